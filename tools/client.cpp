#include "client.h"

#include "words.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <iterator>
#include <string_view>
#include <utility>

using namespace std::chrono;

static constexpr std::size_t kTimerSize = std::size_t{4} * TIMER_WORDS;
static constexpr std::size_t kPeriodSize = std::size_t{4} * PERIOD_WORDS;
static constexpr seconds kBetweenReadings{2};
static constexpr const char *kSystemBus = "unix:path=/run/dbus/system_bus_socket";
static constexpr const char *kListTimers = "request_timer_list";
static constexpr const char *kWakeupTimer = "request_wakeup_timer";
static constexpr const char *kListHolidays = "request_disabled_period_list";

struct client::image_reply {
  int first = 0;
  std::size_t count = 0;
  std::vector<std::uint8_t> images;
};

failure usage(const std::string &what, const std::string &advice, const std::string &option) {
  return {what, advice.empty() ? "see dravelctl help" : advice, fault::kUsage, option};
}

static std::string seconds_text(int milliseconds) {
  std::string text = std::to_string(milliseconds / 1000.0);
  text.erase(text.find_last_not_of('0') + 1);
  if (text.back() == '.')
    text.pop_back();
  return text + (text == "1" ? " second" : " seconds");
}

static std::uint64_t us_of(int milliseconds) {
  return std::uint64_t{1000} * static_cast<std::uint64_t>(milliseconds);
}

static failure bus_lost() {
  return {"the system bus was lost", "try it again", fault::kNotRunning};
}

static failure not_understood(const char *method) {
  return {"the answer to " + std::string(method) + " is not understood",
          "dravelctl and dravel-manager are of different versions"};
}

// What came in place of a reply.
struct client::no_reply {
  sd_bus_error error{};
  int result = 0; // a negative errno

  no_reply() = default;
  no_reply(const no_reply &) = delete;
  no_reply &operator=(const no_reply &) = delete;
  ~no_reply() { sd_bus_error_free(&error); }

  bool is_one_of(std::initializer_list<const char *> names) const {
    return std::ranges::any_of(
        names, [&](const char *name) { return sd_bus_error_has_name(&error, name) > 0; });
  }
  // The daemon has no such object or method.
  bool is_absent() const {
    return is_one_of(
        {SD_BUS_ERROR_UNKNOWN_METHOD, SD_BUS_ERROR_UNKNOWN_OBJECT, SD_BUS_ERROR_UNKNOWN_INTERFACE});
  }
};

// The bus lets any user send a signal to one connection, whatever the matches say. The daemon sends
// its own to everybody.
static int drop_addressed(sd_bus_message *message, void *, sd_bus_error *) {
  return sd_bus_message_is_signal(message, nullptr, nullptr) > 0 &&
                 sd_bus_message_get_destination(message) != nullptr
             ? 1
             : 0;
}

static std::uint64_t left_until(steady_clock::time_point end) {
  return static_cast<std::uint64_t>(
      std::max(duration_cast<microseconds>(end - steady_clock::now()), microseconds(0)).count());
}

// The library itself asks the bus for nothing before the first call, which would take a bus that
// refuses it for the daemon. Gives a negative errno.
static int wait_for_bus(sd_bus *bus, steady_clock::time_point end) {
  while (sd_bus_is_ready(bus) == 0) {
    int result = sd_bus_process(bus, nullptr);
    const std::uint64_t left = left_until(end);
    if (result == 0)
      result = left > 0 ? sd_bus_wait(bus, left) : -ETIMEDOUT;
    if (result < 0 && result != -EINTR)
      return result;
  }
  return 0;
}

client::client(double timeout_seconds) : timeout_ms_(static_cast<int>(timeout_seconds * 1000)) {}

// As sd_bus_open_system() does it, but no message brings descriptors: those of the signals that any
// user can send would use up what the process may have while it waits for an answer.
static int open_bus(sd_bus **bus) {
  const char *address = secure_getenv("DBUS_SYSTEM_BUS_ADDRESS");
  int result = sd_bus_new(bus);
  if (result >= 0)
    result = sd_bus_set_address(*bus, address != nullptr ? address : kSystemBus);
  if (result >= 0)
    result = sd_bus_set_bus_client(*bus, 1);
  if (result >= 0)
    result = sd_bus_negotiate_fds(*bus, 0);
  return result >= 0 ? sd_bus_start(*bus) : result;
}

void client::connect() {
  sd_bus *opened = nullptr;
  int result = open_bus(&opened);
  std::unique_ptr<sd_bus, bus_release> bus(opened);
  if (result >= 0)
    result = wait_for_bus(opened, steady_clock::now() + milliseconds(timeout_ms_));
  if (result >= 0)
    result = sd_bus_add_filter(opened, nullptr, drop_addressed, nullptr);
  if (result == -ENOBUFS)
    throw failure{"the system bus takes no more connections of this user",
                  "end some of the user's programs", fault::kNotRunning};
  if (result < 0)
    throw failure{std::string("no system bus: ") + std::strerror(-result),
                  "start dbus, or correct DBUS_SYSTEM_BUS_ADDRESS", fault::kNotRunning};
  sd_bus_set_method_call_timeout(opened, us_of(timeout_ms_));
  bus_ = std::move(bus);
}

sd_bus *client::bus() {
  if (bus_ == nullptr)
    connect();
  return bus_.get();
}

static constexpr const char *kWhoMay =
    "members of the group dravel may; as root: adduser USER dravel, then log in again";

// What somebody wants who calls it.
static std::string act_of(std::string_view method) {
  constexpr std::pair<std::string_view, const char *> kActs[] = {
      {"request_copy_db", "copy the database"}, {"TurnScreen", "turn the screen on or off"},
      {"TestWake", "test the wake-up"},         {kListTimers, "see the timers"},
      {kWakeupTimer, "see the timers"},         {kListHolidays, "see the holidays"}};
  const auto *act = std::ranges::find(kActs, method, [](const auto &row) { return row.first; });
  return act != std::end(kActs) ? act->second : "change the timers";
}

void client::fail(const char *method, const no_reply &why, int timeout_ms,
                  const std::string &when_silent) {
  if (why.is_one_of({SD_BUS_ERROR_NO_REPLY}))
    throw failure{"dravel-manager ended before it answered", kLogHint, fault::kNotRunning};
  if (why.result == -ETIMEDOUT)
    throw failure{
        "dravel-manager did not answer within " + seconds_text(timeout_ms) +
            (when_silent.empty() ? "; it may still do what it was asked" : ": " + when_silent),
        kLogHint, when_silent.empty() ? fault::kTimeout : fault::kRefused};
  if (why.is_one_of({SD_BUS_ERROR_SERVICE_UNKNOWN, SD_BUS_ERROR_NAME_HAS_NO_OWNER}))
    throw failure{"dravel-manager is not running",
                  "start it: systemctl start dravel-manager.service", fault::kNotRunning};
  if (why.is_one_of({SD_BUS_ERROR_DISCONNECTED}) || why.result == -ENOTCONN)
    throw bus_lost();
  if (why.is_one_of({SD_BUS_ERROR_ACCESS_DENIED}))
    throw failure{"you may not " + act_of(method),
                  method == std::string_view("request_copy_db") ? "only root may" : kWhoMay,
                  fault::kNotAllowed};
  const std::string name = why.error.name != nullptr ? why.error.name : "";
  const std::string text =
      why.error.message != nullptr && *why.error.message != '\0' ? why.error.message : name;
  const bool is_refusal = name.ends_with(".Refused");
  throw failure{is_refusal ? text : "the call of " + std::string(method) + " failed: " + text, ""};
}

// --- calls ---

bus_message client::new_call(const char *path, const char *interface, const char *method) {
  sd_bus_message *made = nullptr;
  if (sd_bus_message_new_method_call(bus(), &made, kDravelBusName, path, interface, method) < 0)
    throw bus_lost();
  sd_bus_message_set_auto_start(made, 0);
  return bus_message(made);
}

bus_message client::send(sd_bus_message *call, int timeout_ms, no_reply &why) {
  sd_bus_message *reply = nullptr;
  why.result = sd_bus_call(bus(), call, us_of(timeout_ms), &why.error, &reply);
  return bus_message(reply);
}

// Its name is read after it was sent, which moves it.
static bus_message understood(bus_message reply, sd_bus_message *call, const char *types) {
  if (sd_bus_message_has_signature(reply.get(), types) <= 0)
    throw not_understood(sd_bus_message_get_member(call));
  return reply;
}

bus_message client::send(sd_bus_message *call, const char *reply_types, int timeout_ms,
                         const std::string &when_silent) {
  no_reply why;
  bus_message reply = send(call, timeout_ms, why);
  if (reply == nullptr)
    fail(sd_bus_message_get_member(call), why, timeout_ms, when_silent);
  return understood(std::move(reply), call, reply_types);
}

bus_message client::call(const char *method, const std::vector<int> &arguments,
                         const char *reply_types) {
  const bus_message call = new_call(kDravelObjectPath, kDravelBusName, method);
  for (const int argument : arguments)
    sd_bus_message_append(call.get(), "i", argument);
  return send(call.get(), reply_types, timeout_ms_);
}

static int number_in(const bus_message &reply) {
  int number = 0;
  sd_bus_message_read(reply.get(), "i", &number);
  return number;
}

int client::call_int(const char *method, const std::vector<int> &arguments) {
  return number_in(call(method, arguments, "i"));
}

int client::copy_db(bool into_the_set, const char *directory, const std::string &when_silent) {
  const bus_message call = new_call(kDravelObjectPath, kDravelBusName, "request_copy_db");
  sd_bus_message_append(call.get(), "is", into_the_set ? 1 : 0, directory);
  return number_in(send(call.get(), "i", timeout_ms_, when_silent));
}

// --- records ---

// A number and records of `image_size` bytes back to back.
client::image_reply client::call_images(const char *method, int argument, std::size_t image_size) {
  const bus_message reply = call(method, {argument}, "iay");
  image_reply result;
  sd_bus_message_read(reply.get(), "i", &result.first);
  const void *data = nullptr;
  std::size_t size = 0;
  if (sd_bus_message_read_array(reply.get(), 'y', &data, &size) < 0 || size % image_size != 0)
    throw not_understood(method);
  result.count = size / image_size;
  const auto *begin = static_cast<const std::uint8_t *>(data);
  result.images.assign(begin, begin + size);
  return result;
}

template <typename Record, typename Reply>
static std::vector<Record> records_of(const Reply &reply, Record (*from)(const std::uint8_t *),
                                      std::size_t image_size) {
  std::vector<Record> records;
  for (std::size_t i = 0; i < reply.count; ++i)
    records.push_back(from(reply.images.data() + i * image_size));
  return records;
}

// The record of a reply that begins with a result instead of a count.
template <typename Reply> static std::optional<timer_record> only_record(const Reply &reply) {
  if (reply.first != 0 || reply.count == 0)
    return std::nullopt;
  return timer_from_image(reply.images.data());
}

std::vector<timer_record> client::timers() {
  return records_of(call_images(kListTimers, 0, kTimerSize), timer_from_image, kTimerSize);
}

std::optional<timer_record> client::timer(int id) {
  return only_record(call_images("dravel_get_timer_by_id", id, kTimerSize));
}

std::optional<timer_record> client::wakeup_timer() {
  return only_record(call_images(kWakeupTimer, 0, kTimerSize));
}

std::vector<holiday> client::holidays() {
  return records_of(call_images(kListHolidays, 0, kPeriodSize), holiday_from_image, kPeriodSize);
}

// --- the state ---

static civil_time civil(std::uint32_t time) { return civil_time(seconds(time)); }

civil_time machine_time() { return civil_time(seconds(std::time(nullptr))); }

bool read_wakeup(property &now, wakeup_time &wakeup) {
  std::uint32_t at = 0;
  int is_utc = 0;
  if (!now.read("Wakeup", "(iuib)", &wakeup.id, &at, &wakeup.type, &is_utc))
    return false;
  wakeup.at = civil(at);
  wakeup.is_utc = is_utc != 0;
  return true;
}

// The two clocks are read one after the other.
static void compare_with_zone(snapshot &view) {
  const auto apart = view.now.set - civil_of(view.now.system);
  view.follows_zone = std::chrono::abs(apart) <= kBetweenReadings;
  if (view.follows_zone)
    view.now.system += apart;
}

static void read_property(snapshot &view, property &now) {
  std::uint32_t number = 0;
  int flag = 0;
  now.read("Version", view.version);
  now.read("Platform", view.platform);
  if (now.read("Clock", "u", &number)) {
    view.clock_known = number != 0;
    if (view.clock_known)
      view.now.set = civil(number);
  }
  if (now.read("ClockConfirmed", "b", &flag))
    view.clock_confirmed = flag != 0;
  now.read("HaltOn", "i", &view.halt_on);
  now.read("HaltOff", "i", &view.halt_off);
  if (now.read("Limit", "u", &number))
    view.limit = number;
  read_wakeup(now, view.wakeup);
  std::vector<std::pair<int, std::uint32_t>> armed;
  now.read("Armed", armed);
  for (const auto &[id, at] : armed)
    view.armed[id] = civil(at);
}

// All properties of one of the daemon's objects; null when it has none there, or a policy from
// before it.
bus_message client::properties_of(const char *path, const char *interface) {
  const bus_message call = new_call(path, "org.freedesktop.DBus.Properties", "GetAll");
  sd_bus_message_append(call.get(), "s", interface);
  no_reply why;
  bus_message reply = send(call.get(), timeout_ms_, why);
  if (reply == nullptr && !why.is_absent() && !why.is_one_of({SD_BUS_ERROR_ACCESS_DENIED}))
    fail("GetAll", why, timeout_ms_, "");
  return reply == nullptr ? nullptr : understood(std::move(reply), call.get(), "a{sv}");
}

bool client::read_state(snapshot &view) {
  const bus_message properties = properties_of(kStateObjectPath, kStateInterface);
  if (properties == nullptr)
    return false;
  view.clock_known = view.clock_confirmed = false;
  each_property(properties.get(), [&](property &now) { read_property(view, now); });
  compare_with_zone(view);
  return true;
}

void client::read_halts(snapshot &view) {
  const bus_message reply = call("request_get_timers_halt_effect", {0}, "ii");
  sd_bus_message_read(reply.get(), "ii", &view.halt_on, &view.halt_off);
}

void client::read_lists(snapshot &view, bool with_holidays) {
  view.timers = timers();
  if (with_holidays)
    view.holidays = holidays();
}

snapshot client::look(bool with_holidays) {
  snapshot view;
  view.now = {civil_of(machine_time()), machine_time()};
  view.has_state = read_state(view);
  read_lists(view, with_holidays || !view.has_state);
  if (view.has_state)
    return view;
  read_halts(view);
  for (timer_record timer : view.timers)
    if (const auto next = next_firing(timer, view.now, view.holidays))
      view.armed[timer.id] = *next;
  return view;
}

snapshot client::look_at_state(bool with_holidays) {
  snapshot view;
  view.now = {civil_of(machine_time()), machine_time()};
  view.has_state = read_state(view);
  if (!view.has_state)
    throw failure{"this dravel-manager is older than dravelctl and does not tell its state",
                  "list, show, add and cancel work with it"};
  read_lists(view, with_holidays);
  return view;
}

std::string client::reason_not_to_change() {
  try {
    call_int("cancel_timer", {0}); // no timer has this id
  } catch (const failure &failure) {
    if (failure.kind != fault::kNotAllowed)
      throw;
    return kWhoMay;
  }
  return "";
}

// --- the machine ---

std::optional<machine_state> client::machine() {
  const bus_message properties = properties_of(kMachinePath, kMachineInterface);
  return properties != nullptr ? std::optional(machine_state_of(properties.get())) : std::nullopt;
}

bus_message client::call_machine(sd_bus_message *call, const char *reply_types, int timeout_ms) {
  no_reply why;
  bus_message reply = send(call, timeout_ms, why);
  if (reply == nullptr && why.is_absent())
    throw no_machine();
  if (reply == nullptr)
    fail(sd_bus_message_get_member(call), why, timeout_ms, "");
  return understood(std::move(reply), call, reply_types);
}

void client::turn_screen(bool on) {
  const bus_message call = new_call(kMachinePath, kMachineInterface, "TurnScreen");
  sd_bus_message_append(call.get(), "b", on ? 1 : 0);
  call_machine(call.get(), "", timeout_ms_);
}

bus_message client::new_test_wake(std::uint32_t length) {
  bus_message call = new_call(kMachinePath, kMachineInterface, "TestWake");
  sd_bus_message_append(call.get(), "u", length);
  return call;
}

slept client::test_wake(std::uint32_t length, int more) {
  const int timeout_ms = timeout_ms_ + (static_cast<int>(length) + more) * 1000;
  const bus_message reply = call_machine(new_test_wake(length).get(), "us", timeout_ms);
  return slept_in(reply.get());
}

slept slept_in(sd_bus_message *reply) {
  std::uint32_t length = 0;
  const char *cause = "";
  sd_bus_message_read(reply, "us", &length, &cause);
  return {length, cause};
}

// The bus judges a call before the daemon finds its argument missing.
std::string client::reason_not_to_order() {
  no_reply why;
  send(new_call(kMachinePath, kMachineInterface, "TurnScreen").get(), timeout_ms_, why);
  return why.is_one_of({SD_BUS_ERROR_ACCESS_DENIED}) ? kWhoMay : "";
}

// --- signals ---

// For what the bus itself is asked.
static void check_answer(int result) {
  if (result == -ENOTCONN || result == -ECONNRESET)
    throw bus_lost();
  if (result == -ETIMEDOUT)
    throw failure{"the system bus does not answer", "", fault::kNotRunning};
  if (result < 0)
    throw failure{std::string("the system bus refuses: ") + std::strerror(-result), ""};
}

static bus_slot heard_from(sd_bus_slot *slot, int result) {
  check_answer(result);
  return bus_slot(slot);
}

bus_slot client::hear(const char *path, const char *interface, sd_bus_message_handler_t heard,
                      void *data) {
  sd_bus_slot *slot = nullptr;
  const int result =
      sd_bus_match_signal(bus(), &slot, kDravelBusName, path, interface, nullptr, heard, data);
  return heard_from(slot, result);
}

bus_slot client::hear_owner(sd_bus_message_handler_t changed, void *data) {
  sd_bus_slot *slot = nullptr;
  const std::string match = "type='signal',sender='org.freedesktop.DBus',"
                            "interface='org.freedesktop.DBus',member='NameOwnerChanged',arg0='" +
                            std::string(kDravelBusName) + "'";
  const int result = sd_bus_add_match(bus(), &slot, match.c_str(), changed, data);
  return heard_from(slot, result);
}

bus_slot client::hear_loss(sd_bus_message_handler_t lost, void *data) {
  sd_bus_slot *slot = nullptr;
  const int result = sd_bus_match_signal(bus(), &slot, nullptr, "/org/freedesktop/DBus/Local",
                                         "org.freedesktop.DBus.Local", "Disconnected", lost, data);
  return heard_from(slot, result);
}

std::string client::owner() {
  sd_bus_creds *creds = nullptr;
  const int result = sd_bus_get_name_creds(bus(), kDravelBusName, SD_BUS_CREDS_UNIQUE_NAME, &creds);
  if (result == -ENXIO)
    return "";
  check_answer(result);
  const char *name = "";
  sd_bus_creds_get_unique_name(creds, &name);
  std::string owner = name;
  sd_bus_creds_unref(creds);
  return owner;
}
