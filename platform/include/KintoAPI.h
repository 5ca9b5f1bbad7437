// The TV middleware's signals.
#pragma once

#include <cstdint>

enum ESignalType : std::int32_t { SIGNAL_SYSTEM_TIME_UPDATED = 108 };
enum EProfile : std::int32_t { PROFILE_MAIN = 0 };

// What a signal carries; the daemon does not read it.
struct TSSignalData {
  std::uint32_t words[4];
};

using SignalCallback = int (*)(ESignalType type, EProfile profile, std::uint16_t value,
                               TSSignalData data, void *user_data);

// A registered listener. The middleware gives its parameters no public names.
class ISignalSubscriber {
public:
  // Starts delivery of the signal `type`. A result above 0 means success.
  virtual int Subscribe(int type, int, int, int, int) = 0;
  // Ends delivery of the signal `type`.
  virtual int Unsubscribe(int type, int, int, int) = 0;

protected:
  ~ISignalSubscriber() = default;
};

class KintoAPI {
public:
  // Hands back in `*out` a subscriber whose signals arrive at `callback` on the
  // main-loop thread, or null. The middleware owns it until
  // DestroySignalSubscriber is called with the same callback.
  static int CreateSignalSubscriber(SignalCallback callback, ISignalSubscriber **out);
  static int DestroySignalSubscriber(SignalCallback callback);
};
