#include "machine_object.h"

#include "configuration.h"
#include "milliseconds.h"
#include "sentences.h"

#include <E_DBus.h>
#include <machine_bus.h>

#include <algorithm>
#include <array>
#include <iterator>
#include <map>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

static constexpr const char *kRefused = "org.olvara.tv.system.dravel.machine.Refused";

namespace {

// What the properties show. Times are UTC seconds.
struct shown_machine {
  std::string screen;
  std::string screen_by;
  std::uint64_t alarm = 0;
  std::string alarm_for;
  std::string alarm_problem;
  std::uint64_t last_wake = 0;
  std::string last_cause;
  std::uint64_t sleeps_at = 0; // 0: it does not
  std::string postponed;
  std::vector<std::string> problems;
};

struct machine_property {
  const char *name;
  const char *type;
  void (*append)(const shown_machine &shown, DBusMessageIter *out);
  bool (*differs)(const shown_machine &one, const shown_machine &other);
};

} // namespace

static E_DBus_Object *object;
static E_DBus_Interface *interface;
static shown_machine announced;
static machine_view seen;
static std::map<std::uint64_t, DBusMessage *> open_calls; // of TestWake

// --- what is shown ---

// The sentence that is among the problems, too.
static std::string alarm_problem(const machine &record) {
  if (record.alarm.for_good)
    return sentence_of(problem::kNoDevice, record.problems[std::size_t(problem::kNoDevice)]);
  if (const int error = record.problems[std::size_t(problem::kAlarmRead)]; error != 0)
    return sentence_of(problem::kAlarmRead, error);
  return record.alarm.refused == 0 ? "" : sentence_of(problem::kAlarmRefused, record.alarm.refused);
}

static std::vector<std::string> problems_of(const machine &record) {
  std::vector<std::string> sentences = configuration_faults();
  for (std::size_t i = 0; i < kProblems; ++i)
    if (record.problems[i] != 0)
      sentences.push_back(sentence_of(static_cast<problem>(i), record.problems[i]));
  return sentences;
}

// At the end of another wait it is only looked whether the sleep may come.
static bool is_tried_again(const machine &record) {
  const postponed why = record.sleep.why;
  return why == postponed::kFailed || why == postponed::kOften || why == postponed::kOnTimeNear;
}

// The two clocks are not read at once: a difference of a second is none.
static std::uint64_t sleeps_at(const machine &record, std::uint64_t before) {
  const std::int64_t again =
      is_tried_again(record) ? due_at(record, due_kind::kSleepAgain) : kNever;
  const std::int64_t due = std::min(due_at(record, due_kind::kReturn), again);
  if (due == kNever)
    return 0;
  const auto at = static_cast<std::uint64_t>(
      (milliseconds_of(CLOCK_REALTIME) + due - milliseconds_of(CLOCK_BOOTTIME)) / kSecondMs);
  return at - before + 1 <= 2 ? before : at;
}

static shown_machine shown_now() {
  const machine &record = seen.record();
  const std::string adapter = seen.adapter();
  shown_machine now;
  now.screen = word_of(record.screen.believed);
  now.screen_by = adapter.empty() ? "targets" : adapter;
  now.alarm = static_cast<std::uint64_t>(record.alarm.stands.utc);
  now.alarm_for = word_of(record.alarm.stands.owner);
  now.alarm_problem = alarm_problem(record);
  now.last_wake = static_cast<std::uint64_t>(record.woken.utc);
  now.last_cause = word_of(record.woken.by);
  now.sleeps_at = sleeps_at(record, announced.sleeps_at);
  now.postponed = sentence_of(record.sleep.why);
  now.problems = problems_of(record);
  return now;
}

// --- properties ---

static void append_text(DBusMessageIter *out, const std::string &text) {
  const char *value = text.c_str();
  dbus_message_iter_append_basic(out, DBUS_TYPE_STRING, &value);
}

template <auto Field> static void append(const shown_machine &from, DBusMessageIter *out) {
  if constexpr (std::is_same_v<decltype(Field), std::string shown_machine::*>)
    append_text(out, from.*Field);
  else
    dbus_message_iter_append_basic(out, DBUS_TYPE_UINT64, &(from.*Field));
}

template <auto Field> static bool differs(const shown_machine &one, const shown_machine &other) {
  return one.*Field != other.*Field;
}

static void append_last_wake(const shown_machine &from, DBusMessageIter *out) {
  DBusMessageIter inside;
  dbus_message_iter_open_container(out, DBUS_TYPE_STRUCT, nullptr, &inside);
  dbus_message_iter_append_basic(&inside, DBUS_TYPE_UINT64, &from.last_wake);
  append_text(&inside, from.last_cause);
  dbus_message_iter_close_container(out, &inside);
}

static bool last_wake_differs(const shown_machine &one, const shown_machine &other) {
  return one.last_wake != other.last_wake || one.last_cause != other.last_cause;
}

static void append_problems(const shown_machine &from, DBusMessageIter *out) {
  DBusMessageIter inside;
  dbus_message_iter_open_container(out, DBUS_TYPE_ARRAY, DBUS_TYPE_STRING_AS_STRING, &inside);
  for (const std::string &sentence : from.problems)
    append_text(&inside, sentence);
  dbus_message_iter_close_container(out, &inside);
}

template <auto Field> static constexpr machine_property property(const char *name) {
  constexpr bool kIsText = std::is_same_v<decltype(Field), std::string shown_machine::*>;
  return {name, kIsText ? "s" : "t", append<Field>, differs<Field>};
}

static constexpr machine_property kProperties[] = {
    property<&shown_machine::screen>("Screen"),
    property<&shown_machine::screen_by>("ScreenBy"),
    property<&shown_machine::alarm>("Alarm"),
    property<&shown_machine::alarm_for>("AlarmFor"),
    property<&shown_machine::alarm_problem>("AlarmProblem"),
    {"LastWake", "(ts)", append_last_wake, last_wake_differs},
    property<&shown_machine::sleeps_at>("SleepsAt"),
    property<&shown_machine::postponed>("Postponed"),
    {"Problems", "as", append_problems, differs<&shown_machine::problems>},
};

// The binding asks for no other names than those of the table.
static void get_property(E_DBus_Object *, const char *name, DBusMessageIter *value) {
  std::ranges::find_if(kProperties, [=](const auto &row) {
    return row.name == std::string_view{name};
  })->append(shown_now(), value);
}

// --- methods ---

static DBusMessage *bad_arguments(DBusMessage *message, const char *signature) {
  return dbus_message_new_error(message, DBUS_ERROR_INVALID_ARGS, signature);
}

static DBusMessage *turn_screen(E_DBus_Object *, DBusMessage *message) {
  dbus_bool_t on = 0;
  if (!dbus_message_has_signature(message, "b"))
    return bad_arguments(message, "b");
  dbus_message_get_args(message, nullptr, DBUS_TYPE_BOOLEAN, &on, DBUS_TYPE_INVALID);
  happens(event::screen_wanted{on != 0, event::asker::kBus});
  return dbus_message_new_method_return(message);
}

// Answered when the machine is awake again.
static DBusMessage *test_wake(E_DBus_Object *, DBusMessage *message) {
  static std::uint64_t last = 0;
  std::uint32_t seconds = 0;
  if (!dbus_message_has_signature(message, "u"))
    return bad_arguments(message, "u");
  dbus_message_get_args(message, nullptr, DBUS_TYPE_UINT32, &seconds, DBUS_TYPE_INVALID);
  open_calls[++last] = dbus_message_ref(message);
  happens(event::test_wake{last, seconds});
  return nullptr;
}

static DBusMessage *answer_to(DBusMessage *message, const order::answer &answered) {
  if (answered.error != 0)
    return dbus_message_new_error(message, kRefused, refusal_of_test(answered.error).c_str());
  DBusMessage *reply = dbus_message_new_method_return(message);
  const auto seconds = static_cast<std::uint32_t>(answered.seconds);
  const char *by = word_of(answered.woken_by);
  dbus_message_append_args(reply, DBUS_TYPE_UINT32, &seconds, DBUS_TYPE_STRING, &by,
                           DBUS_TYPE_INVALID);
  return reply;
}

void answer_test_wake(const order::answer &answered) {
  const auto open = open_calls.find(answered.call);
  if (open == open_calls.end()) // of an earlier run
    return;
  DBusMessage *reply = answer_to(open->second, answered);
  e_dbus_message_send(e_dbus_bus_get(DBUS_BUS_SYSTEM), reply, nullptr, 0, nullptr);
  dbus_message_unref(reply);
  dbus_message_unref(open->second);
  open_calls.erase(open);
}

// --- the object ---

static void export_object() {
  object = e_dbus_object_add(e_dbus_bus_get(DBUS_BUS_SYSTEM), kMachinePath, nullptr);
  if (object == nullptr)
    return;
  interface = e_dbus_interface_new(kMachineInterface);
  e_dbus_interface_method_add(interface, "TurnScreen", "b", "", turn_screen);
  e_dbus_interface_method_add(interface, "TestWake", "u", "us", test_wake);
  for (const machine_property &row : kProperties)
    e_dbus_interface_property_add(interface, row.name, row.type, E_DBUS_PROPERTY_SENT, get_property,
                                  nullptr);
  e_dbus_object_interface_attach(object, interface);
}

void start_machine_object(const machine_view &view) { seen = view; }

void announce_machine() {
  static bool tried = false;
  if (!std::exchange(tried, true)) // the daemon has its connection by the first pass
    export_object();
  const shown_machine before = std::exchange(announced, shown_now());
  if (object == nullptr)
    return;
  std::array<const char *, std::size(kProperties) + 1> changed{};
  auto end = changed.begin();
  for (const machine_property &row : kProperties)
    if (row.differs(before, announced))
      *end++ = row.name;
  if (end != changed.begin())
    e_dbus_properties_changed(object, interface, changed.data());
}
