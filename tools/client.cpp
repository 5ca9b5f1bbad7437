#include "client.h"

#include "words.h"

#include <algorithm>
#include <cstring>
#include <ctime>
#include <iterator>
#include <string_view>
#include <utility>

using std::chrono::seconds;

static constexpr std::size_t kTimerSize = std::size_t{4} * TIMER_WORDS;
static constexpr std::size_t kPeriodSize = std::size_t{4} * PERIOD_WORDS;
static constexpr seconds kBetweenReadings{2};
static constexpr const char *kGetAll = "GetAll";
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

static bool is_one_of(const GError *error, std::initializer_list<int> codes) {
  return std::ranges::any_of(
      codes, [&](int code) { return g_error_matches(error, G_DBUS_ERROR, code) != FALSE; });
}

// The daemon has no such object or method.
static bool is_absent(const GError *error) {
  return is_one_of(error, {G_DBUS_ERROR_UNKNOWN_METHOD, G_DBUS_ERROR_UNKNOWN_OBJECT,
                           G_DBUS_ERROR_UNKNOWN_INTERFACE});
}

struct bus_call {
  const char *path;
  const char *interface;
  const char *method;
  GVariant *arguments; // floating
  const char *reply_type;
};

// A call on its way. Answers have a context of their own, so that nothing else happens while one is
// awaited.
class client::sent_call {
public:
  sent_call(GDBusConnection *bus, GMainContext *context, const bus_call &call, int timeout_ms)
      : bus_(bus), context_(context) {
    g_main_context_push_thread_default(context_);
    g_dbus_connection_call(bus, kDravelBusName, call.path, call.interface, call.method,
                           call.arguments, G_VARIANT_TYPE(call.reply_type),
                           G_DBUS_CALL_FLAGS_NO_AUTO_START, timeout_ms, nullptr, keep_result, this);
    g_main_context_pop_thread_default(context_);
  }
  sent_call(const sent_call &) = delete;
  sent_call &operator=(const sent_call &) = delete;
  ~sent_call() {
    wait();
    g_object_unref(result_);
  }

  GVariant *answer(GError **error) {
    wait();
    return g_dbus_connection_call_finish(bus_, result_, error);
  }

private:
  static void keep_result(GObject *, GAsyncResult *result, gpointer self) {
    static_cast<sent_call *>(self)->result_ = static_cast<GAsyncResult *>(g_object_ref(result));
  }

  void wait() {
    while (result_ == nullptr)
      g_main_context_iteration(context_, TRUE);
  }

  GDBusConnection *bus_;
  GMainContext *context_;
  GAsyncResult *result_ = nullptr;
};

static bus_call properties_call(const char *path, const char *interface) {
  return {path, "org.freedesktop.DBus.Properties", kGetAll, g_variant_new("(s)", interface),
          "(a{sv})"};
}

static bus_call daemon_call(const char *method, GVariant *arguments, const char *reply_type) {
  return {kDravelObjectPath, kDravelBusName, method, arguments, reply_type};
}

static bus_call call_of(question question) {
  switch (question) {
  case question::kState:
    return properties_call(kStateObjectPath, kStateInterface);
  case question::kMachine:
    return properties_call(kMachinePath, kMachineInterface);
  case question::kTimers:
    return daemon_call(kListTimers, g_variant_new("(i)", 0), "(iay)");
  case question::kWakeupTimer:
    break;
  }
  return daemon_call(kWakeupTimer, g_variant_new("(i)", 0), "(iay)");
}

static std::string key_of(const bus_call &call) { return std::string(call.path) + call.method; }

client::client(double timeout_seconds) : timeout_ms_(static_cast<int>(timeout_seconds * 1000)) {
  g_autoptr(GError) error = nullptr;
  bus_ = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, &error);
  if (bus_ == nullptr)
    throw failure{"no system bus: " + std::string(error->message),
                  "start dbus, or correct DBUS_SYSTEM_BUS_ADDRESS", fault::kNotRunning};
  g_dbus_connection_set_exit_on_close(bus_, FALSE);
  context_ = g_main_context_new();
}

client::~client() {
  sent_.clear();
  g_main_context_unref(context_);
  g_object_unref(bus_);
}

// The arguments of a call that is not sent have no owner.
static void drop(const bus_call &call) { g_variant_unref(g_variant_ref_sink(call.arguments)); }

void client::ask_ahead(std::initializer_list<question> questions) {
  for (const question asked : questions) {
    const bus_call call = call_of(asked);
    auto &sent = sent_[key_of(call)];
    if (sent == nullptr)
      sent = std::make_unique<sent_call>(bus_, context_, call, timeout_ms_);
    else
      drop(call);
  }
}

GVariant *client::answer_to(const bus_call &call, int timeout_ms, GError **error) {
  const auto sent = sent_.extract(key_of(call));
  if (sent.empty())
    return sent_call(bus_, context_, call, timeout_ms).answer(error);
  drop(call);
  return sent.mapped()->answer(error);
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

void client::fail(const char *method, const GError *error, int timeout_ms,
                  const std::string &when_silent) {
  sent_.clear(); // whoever tries again asks again
  if (g_error_matches(error, G_IO_ERROR, G_IO_ERROR_TIMED_OUT))
    throw failure{
        "dravel-manager did not answer within " + seconds_text(timeout_ms) +
            (when_silent.empty() ? "; it may still do what it was asked" : ": " + when_silent),
        kLogHint, when_silent.empty() ? fault::kTimeout : fault::kRefused};
  if (is_one_of(error, {G_DBUS_ERROR_SERVICE_UNKNOWN, G_DBUS_ERROR_NAME_HAS_NO_OWNER}))
    throw failure{"dravel-manager is not running",
                  "start it: systemctl start dravel-manager.service", fault::kNotRunning};
  if (is_one_of(error, {G_DBUS_ERROR_NO_REPLY}))
    throw failure{"dravel-manager ended before it answered", kLogHint, fault::kNotRunning};
  if (g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CLOSED) != FALSE ||
      is_one_of(error, {G_DBUS_ERROR_DISCONNECTED}))
    throw failure{"the system bus was lost", "try it again", fault::kNotRunning};
  if (is_one_of(error, {G_DBUS_ERROR_ACCESS_DENIED}))
    throw failure{"you may not " + act_of(method),
                  method == std::string_view("request_copy_db") ? "only root may" : kWhoMay,
                  fault::kNotAllowed};
  g_autofree char *remote = g_dbus_error_get_remote_error(error);
  std::string text = error->message;
  if (remote != nullptr && text.rfind(remote) != std::string::npos)
    text.erase(0, text.rfind(remote) + std::strlen(remote) + 2);
  const bool is_refusal = remote != nullptr && std::string_view(remote).ends_with(".Refused");
  throw failure{is_refusal ? text : "the call of " + std::string(method) + " failed: " + text, ""};
}

GVariant *client::call(const char *method, GVariant *arguments, const char *reply_type,
                       const std::string &when_silent) {
  g_autoptr(GError) error = nullptr;
  GVariant *reply = answer_to(daemon_call(method, arguments, reply_type), timeout_ms_, &error);
  if (reply == nullptr)
    fail(method, error, timeout_ms_, when_silent);
  return reply;
}

int client::call_int(const char *method, GVariant *arguments, const std::string &when_silent) {
  g_autoptr(GVariant) reply = call(method, arguments, "(i)", when_silent);
  int value = 0;
  g_variant_get(reply, "(i)", &value);
  return value;
}

// --- records ---

// A number and records of `image_size` bytes back to back.
client::image_reply client::call_images(const char *method, int argument, std::size_t image_size) {
  g_autoptr(GVariant) reply = call(method, g_variant_new("(i)", argument), "(iay)");
  image_reply result;
  g_autoptr(GVariant) bytes = nullptr;
  g_variant_get(reply, "(i@ay)", &result.first, &bytes);
  gsize size = 0;
  const auto *data = static_cast<const std::uint8_t *>(g_variant_get_fixed_array(bytes, &size, 1));
  if (size % image_size != 0)
    throw failure{"the answer to " + std::string(method) + " is not understood",
                  "dravelctl and dravel-manager are of different versions"};
  result.count = size / image_size;
  result.images.assign(data, data + size);
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

bool read_wakeup(GVariantDict *properties, wakeup_time &wakeup) {
  std::uint32_t at = 0;
  gboolean is_utc = FALSE;
  if (g_variant_dict_lookup(properties, "Wakeup", "(iuib)", &wakeup.id, &at, &wakeup.type,
                            &is_utc) == FALSE)
    return false;
  wakeup.at = civil(at);
  wakeup.is_utc = is_utc != FALSE;
  return true;
}

// The two clocks are read one after the other.
static void compare_with_zone(snapshot &view) {
  const auto apart = view.now.set - civil_of(view.now.system);
  view.follows_zone = std::chrono::abs(apart) <= kBetweenReadings;
  if (view.follows_zone)
    view.now.system += apart;
}

static void fill_state(snapshot &view, GVariantDict *properties) {
  view.version = text_property(properties, "Version");
  view.platform = text_property(properties, "Platform");
  std::uint32_t clock = 0;
  gboolean confirmed = FALSE;
  g_variant_dict_lookup(properties, "Clock", "u", &clock);
  g_variant_dict_lookup(properties, "ClockConfirmed", "b", &confirmed);
  view.clock_known = clock != 0;
  view.clock_confirmed = confirmed != FALSE;
  if (view.clock_known)
    view.now.set = civil(clock);
  compare_with_zone(view);
  g_variant_dict_lookup(properties, "HaltOn", "i", &view.halt_on);
  g_variant_dict_lookup(properties, "HaltOff", "i", &view.halt_off);
  std::uint32_t limit = 0;
  if (g_variant_dict_lookup(properties, "Limit", "u", &limit) != FALSE)
    view.limit = limit;

  read_wakeup(properties, view.wakeup);
  GVariantIter *armed = nullptr;
  if (g_variant_dict_lookup(properties, "Armed", "a(iu)", &armed) == FALSE)
    return;
  int id = 0;
  std::uint32_t at = 0;
  while (g_variant_iter_next(armed, "(iu)", &id, &at) != FALSE)
    view.armed[id] = civil(at);
  g_variant_iter_free(armed);
}

// All properties of one of the daemon's objects; null when it has none there, or a policy from
// before it.
GVariantDict *client::properties_of(const char *path, const char *interface) {
  g_autoptr(GError) error = nullptr;
  g_autoptr(GVariant) reply = answer_to(properties_call(path, interface), timeout_ms_, &error);
  if (reply != nullptr) {
    g_autoptr(GVariant) properties = g_variant_get_child_value(reply, 0);
    return g_variant_dict_new(properties);
  }
  if (is_absent(error) || is_one_of(error, {G_DBUS_ERROR_ACCESS_DENIED}))
    return nullptr;
  fail(kGetAll, error, timeout_ms_, "");
}

bool client::read_state(snapshot &view) {
  g_autoptr(GVariantDict) properties = properties_of(kStateObjectPath, kStateInterface);
  if (properties == nullptr)
    return false;
  fill_state(view, properties);
  return true;
}

void client::read_halts(snapshot &view) {
  g_autoptr(GVariant) reply =
      call("request_get_timers_halt_effect", g_variant_new("(i)", 0), "(ii)");
  g_variant_get(reply, "(ii)", &view.halt_on, &view.halt_off);
}

void client::read_lists(snapshot &view, bool with_holidays) {
  view.timers = timers();
  if (with_holidays)
    view.holidays = holidays();
}

snapshot client::look(bool with_holidays) {
  ask_ahead({question::kState, question::kTimers});
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
  ask_ahead({question::kState, question::kTimers});
  snapshot view;
  view.now = {civil_of(machine_time()), machine_time()};
  view.has_state = read_state(view);
  if (!view.has_state) {
    sent_.clear();
    throw failure{"this dravel-manager is older than dravelctl and does not tell its state",
                  "list, show, add and cancel work with it"};
  }
  read_lists(view, with_holidays);
  return view;
}

std::string client::reason_not_to_change() {
  try {
    call_int("cancel_timer", g_variant_new("(i)", 0)); // no timer has this id
  } catch (const failure &failure) {
    if (failure.kind != fault::kNotAllowed)
      throw;
    return kWhoMay;
  }
  return "";
}

// --- the machine ---

std::optional<machine_state> client::machine() {
  g_autoptr(GVariantDict) properties = properties_of(kMachinePath, kMachineInterface);
  return properties != nullptr ? std::optional(machine_state_of(properties)) : std::nullopt;
}

GVariant *client::call_machine(const char *method, GVariant *arguments, const char *reply_type,
                               int seconds_more) {
  g_autoptr(GError) error = nullptr;
  const int timeout_ms = timeout_ms_ + seconds_more * 1000;
  GVariant *reply = answer_to({kMachinePath, kMachineInterface, method, arguments, reply_type},
                              timeout_ms, &error);
  if (reply == nullptr && is_absent(error))
    throw no_machine();
  if (reply == nullptr)
    fail(method, error, timeout_ms, "");
  return reply;
}

// The bus judges a call before the daemon finds its argument missing.
std::string client::reason_not_to_order() {
  g_autoptr(GError) error = nullptr;
  g_autoptr(GVariant) reply = g_dbus_connection_call_sync(
      bus_, kDravelBusName, kMachinePath, kMachineInterface, "TurnScreen", nullptr, nullptr,
      G_DBUS_CALL_FLAGS_NO_AUTO_START, timeout_ms_, nullptr, &error);
  return reply == nullptr && is_one_of(error, {G_DBUS_ERROR_ACCESS_DENIED}) ? kWhoMay : "";
}
