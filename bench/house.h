// What the benchmarks and the endurance runs share: a blocking client on the private bus of
// scripts/house, services that it starts and ends, and the timers that it sets.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include <dbus/dbus.h>
#include <sys/types.h>

using message = std::unique_ptr<DBusMessage, void (*)(DBusMessage *)>;

// Where a call goes. The interface of all but the set's properties is the service's own.
struct bus_target {
  const char *name;
  const char *path;
  const char *interface;
};

inline constexpr bus_target daemon_service = {
    "org.olvara.tv.system.dravel", "/org/olvara/tv/system/dravel", "org.olvara.tv.system.dravel"};
inline constexpr bus_target daemon_set = {"org.olvara.tv.system.dravel", "/org/olvara/tv/standin",
                                          "org.olvara.tv.standin"};
inline constexpr bus_target bare_service = {"org.olvara.tv.bare", "/org/olvara/tv/bare",
                                            "org.olvara.tv.bare"};

inline constexpr const char *daemon_store = "/opt/dbspace/.dravel.db";
inline constexpr const char *bare_store = "/opt/dbspace/bare.db";

// The arguments of schedule_timer.
using timer_arguments = std::array<dbus_int32_t, 15>;
timer_arguments timer_at(std::uint32_t time, int type, int week_flag);

// The `index`-th of a household's timers: on- and off-timers in turn, each a quarter of an hour
// after the one before; half of them repeat when `repeating`.
timer_arguments household_timer(std::uint32_t from, int index, bool repeating);

// A run that went wrong ends the program.
[[noreturn]] void fail(const std::string &what);

std::uint32_t wall_clock();  // whole seconds, as the set's clocks count
double precise_wall_clock(); // seconds
double microseconds();       // of the monotonic clock

// Ends the program unless it runs in the house, where /opt and /tmp are private. Services started
// later log errors alone, as on a set.
void prepare_house();

class bus_client {
public:
  // On the bus of the house, or at `address`.
  explicit bus_client(const char *address = nullptr);
  ~bus_client();
  bus_client(const bus_client &) = delete;
  bus_client &operator=(const bus_client &) = delete;

  message call(const bus_target &target, const char *method,
               std::span<const dbus_int32_t> arguments = {});
  // Null when the answer is an error or none comes within `timeout_ms`.
  message try_call(const bus_target &target, const char *method,
                   std::span<const dbus_int32_t> arguments, int timeout_ms = 30000);
  // Whether the daemon answers `request`: so it has when it has answered the call after it.
  bool is_answered(message request);
  dbus_int32_t call_int(const bus_target &target, const char *method,
                        std::span<const dbus_int32_t> arguments = {});
  std::vector<unsigned char> list(const bus_target &target); // the images

  void keep(const bus_target &target, const std::vector<unsigned char> &images);
  void set_property(const char *name, int type, std::uint32_t value); // of the set
  void set_text(const char *name, const char *value);                 // likewise
  std::uint32_t property(const char *name);                           // one of the type u

  int schedule(const bus_target &target, const timer_arguments &timer);
  void cancel(const bus_target &target, int timer_id);

  pid_t pid_of(const char *connection); // -1 when it has gone

  // Hands over the signals that match `rule` and have arrived until `done` says so.
  void listen(const char *rule);
  void receive(const std::function<bool(DBusMessage *)> &done);

private:
  message send(message request);
  void set(const char *name, int type, const void *value);

  DBusConnection *bus_;
};

// Starts a program, its standard error in the file `errors`; `end` waits for a process and gives
// its exit status, or the signal that ended it as a negative number. One that does not end within
// 30 seconds is killed and ends the program.
pid_t start(const std::vector<std::string> &command, const char *errors = "/dev/null");
int end(pid_t pid);

// A process that answers under a name.
class service {
public:
  // Returns once the name has an owner.
  service(bus_client &bus, const bus_target &target, const std::vector<std::string> &command,
          const char *errors = "/dev/null");
  ~service(); // SIGTERM, and its end in order unless it has been waited for
  service(const service &) = delete;
  service &operator=(const service &) = delete;

  pid_t pid() const { return pid_; }
  int wait(); // as end() does

private:
  pid_t pid_ = -1;
};

// Removes what a daemon leaves, so that the next one starts with an empty store.
void empty_store();
