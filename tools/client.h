// The daemon as a client sees it over the system bus.
#pragma once

#include "bus.h"
#include "machine_state.h"
#include "timers.h"

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

// False when it is another property.
bool read_wakeup(property &now, wakeup_time &wakeup);

civil_time machine_time(); // UTC

struct slept { // by a test
  std::uint32_t seconds;
  std::string cause; // of the wake-up
};

slept slept_in(sd_bus_message *reply); // of a call made by new_test_wake

class client {
public:
  // The first use reaches the bus, and throws a failure when there is none; a bus that is silent is
  // waited for as long as an answer.
  explicit client(double timeout_seconds);

  // The reply to a method that takes integers, of the type `reply_types`. Nothing else is heard
  // while it is awaited. Throws a failure when there is none.
  bus_message call(const char *method, const std::vector<int> &arguments, const char *reply_types);

  // For replies of one integer.
  int call_int(const char *method, const std::vector<int> &arguments);

  // `when_silent` is what an answer that never comes means.
  int copy_db(bool into_the_set, const char *directory, const std::string &when_silent);

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

  // Throw a failure, with the platform's own words when it refuses.
  void turn_screen(bool on);
  // For `length` seconds; `more` may pass until it has fallen asleep and is up again.
  slept test_wake(std::uint32_t length, int more);
  bus_message new_test_wake(std::uint32_t length); // to be sent by the caller

  // Signals of an object of the daemon, for as long as the slot is kept and events are run.
  bus_slot hear(const char *path, const char *interface, sd_bus_message_handler_t heard,
                void *data);
  bus_slot hear_owner(sd_bus_message_handler_t changed, void *data); // of the daemon's name
  bus_slot hear_loss(sd_bus_message_handler_t lost, void *data);     // of the bus
  std::string owner(); // of the daemon's name; empty while it does not run

  sd_bus *bus();

private:
  struct image_reply;
  struct no_reply;
  void connect();
  bus_message new_call(const char *path, const char *interface, const char *method);
  bus_message send(sd_bus_message *call, int timeout_ms, no_reply &why);
  bus_message send(sd_bus_message *call, const char *reply_types, int timeout_ms,
                   const std::string &when_silent = "");
  bus_message call_machine(sd_bus_message *call, const char *reply_types, int timeout_ms);
  image_reply call_images(const char *method, int argument, std::size_t image_size);
  bus_message properties_of(const char *path, const char *interface);
  bool read_state(snapshot &view);
  void read_lists(snapshot &view, bool with_holidays);
  void read_halts(snapshot &view);
  [[noreturn]] void fail(const char *method, const no_reply &why, int timeout_ms,
                         const std::string &when_silent);

  std::unique_ptr<sd_bus, bus_release> bus_;
  int timeout_ms_;
};
