#include "daemon_callbacks.h"

#include <memory>
#include <tuple>

struct settings_key {
  const char *name;
};

static constexpr int kSubscribed = 1; // the middleware's success is above 0
static constexpr const char *kSignal = "signal";

callback_list &daemon_callbacks() {
  static callback_list held;
  return held;
}

// --- events ---

static void deliver_option(const char *event, int option) {
  daemon_callbacks().deliver<device_power_option_cb>(event, option);
}

void deliver_poweroff(int option) { deliver_option("poweroff", option); }

void deliver_standby(int option) { deliver_option("standby", option); }

void deliver_wakeup(int reason) { deliver_option("wakeup", reason); }

void deliver_ambient_poweroff() {
  daemon_callbacks().deliver<device_power_ambient_poweroff_cb>("ambient_poweroff");
}

void deliver_state_changed(int state, int ambient_mode) {
  const device_power_event event = {{}, state, 0, ambient_mode};
  daemon_callbacks().deliver<device_power_state_changed_cb>("state_changed_event", &event);
}

void deliver_setting(const char *key) {
  settings_key changed{key};
  daemon_callbacks().deliver<settings_changed_cb>(key, &changed);
}

void deliver_signal(int type) {
  daemon_callbacks().deliver<SignalCallback>(kSignal, static_cast<ESignalType>(type), PROFILE_MAIN,
                                             std::uint16_t{0}, TSSignalData{});
}

// --- the middleware's subscribers ---

namespace {

class signal_subscriber final : public ISignalSubscriber {
public:
  signal_subscriber(SignalCallback listener, refusal refuses)
      : callback(listener), refuses_(refuses) {}

  int Subscribe(int type, int a, int b, int c, int d) override {
    if (std::tuple(type, a, b, c, d) != std::tuple(SIGNAL_SYSTEM_TIME_UPDATED, 0, 1, 0, 0) ||
        refused(__func__) || daemon_callbacks().add(kSignal, callback, nullptr) != kDone)
      return kFailed;
    return kSubscribed;
  }

  int Unsubscribe(int type, int a, int b, int c) override {
    if (std::tuple(type, a, b, c) != std::tuple(SIGNAL_SYSTEM_TIME_UPDATED, 1, 0, 0) ||
        refused(__func__))
      return kFailed;
    return daemon_callbacks().remove(kSignal, callback);
  }

  const SignalCallback callback;

private:
  bool refused(std::string_view operation) const {
    return refuses_ != nullptr && refuses_(operation);
  }

  const refusal refuses_;
};

} // namespace

static std::vector<std::unique_ptr<signal_subscriber>> subscribers;

int create_subscriber(SignalCallback callback, ISignalSubscriber **out, refusal refuses) {
  *out = nullptr;
  if (callback == nullptr)
    return kFailed;
  *out = subscribers.emplace_back(std::make_unique<signal_subscriber>(callback, refuses)).get();
  return kDone;
}

int destroy_subscriber(SignalCallback callback) {
  daemon_callbacks().remove(kSignal, callback);
  const auto destroyed = std::erase_if(
      subscribers, [callback](const auto &subscriber) { return subscriber->callback == callback; });
  return destroyed != 0 ? kDone : kFailed;
}
