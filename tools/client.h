// The daemon as a client sees it over the system bus.
#pragma once

#include "machine_state.h"
#include "timers.h"

#include <gio/gio.h>

#include <initializer_list>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

// The values are exit statuses. A timeout has that of a daemon that is not reached.
enum class fault { kRefused = 1, kUsage, kNotRunning, kNotAllowed, kDiffers, kTimeout };

// What ends the program: what failed and why, and what to do about it.
struct failure {
  std::string what;
  std::string advice;
  fault kind = fault::kRefused;
  std::string option{}; // that has the fault

  int status() const { return kind == fault::kTimeout ? 3 : static_cast<int>(kind); }
};

failure usage(const std::string &what, const std::string &advice = "",
              const std::string &option = "");

failure no_machine(); // the platform shows none

inline constexpr const char *kLogHint = "its log says why: journalctl -t DRAVEL_MANAGER";

// False when the property is not among them.
bool read_wakeup(GVariantDict *properties, wakeup_time &wakeup);

civil_time machine_time(); // UTC

// What several commands ask of the daemon.
enum class question { kState, kTimers, kWakeupTimer, kMachine };

struct bus_call;

class client {
public:
  // Throws a failure when there is no bus.
  explicit client(double timeout_seconds);
  ~client();
  client(const client &) = delete;
  client &operator=(const client &) = delete;

  // The reply, of the type `reply_type`. Throws a failure when there is none, `when_silent` being
  // what an answer that never comes means for this call.
  GVariant *call(const char *method, GVariant *arguments, const char *reply_type,
                 const std::string &when_silent = "");

  // For replies of one integer.
  int call_int(const char *method, GVariant *arguments, const std::string &when_silent = "");

  // Sends questions that are about to be asked, so that their answers are awaited together.
  void ask_ahead(std::initializer_list<question> questions);

  std::vector<timer_record> timers();
  std::optional<timer_record> timer(int id);
  std::optional<timer_record> wakeup_timer();
  std::vector<holiday> holidays();

  // Everything at once; the holidays only where they are needed. From a daemon without the state
  // object: what the tool computes from this machine's local time.
  snapshot look(bool with_holidays = true);

  // The same for commands that need the state object. Throws a failure when there is none.
  snapshot look_at_state(bool with_holidays = true);

  // Of the user's rights; empty when the user may.
  std::string reason_not_to_change();
  std::string reason_not_to_order(); // the machine's screen and sleep

  // Nothing where the daemon's platform shows no machine.
  std::optional<machine_state> machine();
  // The reply of a method of the machine object, which may take that long in addition. Throws a
  // failure like `call`, with the platform's own words when it refuses.
  GVariant *call_machine(const char *method, GVariant *arguments, const char *reply_type,
                         int seconds_more = 0);

  GDBusConnection *bus() const { return bus_; }

private:
  struct image_reply;
  class sent_call;
  GVariant *answer_to(const bus_call &call, int timeout_ms, GError **error);
  image_reply call_images(const char *method, int argument, std::size_t image_size);
  GVariantDict *properties_of(const char *path, const char *interface);
  bool read_state(snapshot &view);
  void read_lists(snapshot &view, bool with_holidays);
  void read_halts(snapshot &view);
  [[noreturn]] void fail(const char *method, const GError *error, int timeout_ms,
                         const std::string &when_silent);

  GDBusConnection *bus_ = nullptr;
  GMainContext *context_ = nullptr; // of the answers
  int timeout_ms_;
  std::map<std::string, std::unique_ptr<sent_call>> sent_; // ahead, by path and method
};
