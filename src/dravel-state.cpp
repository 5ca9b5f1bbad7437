#include "dravel-state.h"

#include "dravel-changes.h"
#include "dravel-item.h"
#include "dravel-list.h"
#include "dravel-log.h"
#include "dravel-timer.h"

#include <E_DBus.h>
#include <Ecore.h>
#include <glib.h>

#include <algorithm>
#include <cstdarg>
#include <initializer_list>
#include <iterator>
#include <string_view>
#include <utility>
#include <vector>

// Sending adds 15 to 20 % to a call that adds or cancels a timer, with the store in memory. A burst
// of calls must not pay that each time: what changes this soon after the last signals waits.
static constexpr double kBurstSeconds = 0.02;

static constexpr const char *kAddedSignal = "TimerAdded";
static constexpr const char *kChangedSignal = "TimerChanged";
static constexpr const char *kRemovedSignal = "TimerRemoved";

// By removal_reason.
static constexpr const char *kReasonWords[] = {"fired", "cancelled", "replaced", "evicted",
                                               "past",  "never",     "lost"};

namespace {

// One signal to be sent.
struct timer_change {
  const char *signal;
  int timer_id;
  const char *reason; // the word for it; null unless the timer was removed
};

struct armed_timer {
  int timer_id;
  time_value expiry;

  bool operator==(const armed_timer &) const = default;
};

struct programmed_wakeup {
  int timer_id;
  time_value ontime;
  int type;
  dbus_bool_t is_utc;

  bool operator==(const programmed_wakeup &) const = default;
};

// What the properties show.
struct shown_state {
  const char *version;
  const char *platform;
  time_value clock;
  unsigned clock_settings; // how often the clock was set: it is announced then, not every second
  dbus_bool_t clock_confirmed;
  std::vector<armed_timer> armed; // in list order
  programmed_wakeup wakeup;
  int halt_on;
  int halt_off;
  unsigned stored;
  unsigned limit;
  std::vector<int> periods; // the ids of the disabled periods
};

struct state_property {
  const char *name;
  const char *type;
  E_DBus_Property_Change change;
  void (*append)(const shown_state &state, DBusMessageIter *out);
  bool (*differs)(const shown_state &one, const shown_state &other);
};

} // namespace

static E_DBus_Connection *state_bus;
static E_DBus_Object *state_object;
static E_DBus_Interface *state_interface;
static shown_state seen; // at the end of the last pass

static Ecore_Idle_Enterer *end_of_pass;
static Ecore_Timer *end_of_burst;
static double sent_at = -kBurstSeconds;
static std::vector<timer_change> timer_changes;
static std::vector<const char *> changed_properties;
static std::vector<int> fired_timers; // for the only time, and listed still
static unsigned clock_settings;
static bool ontime_accepted = true;

static std::vector<armed_timer> armed_timers(void) {
  std::vector<armed_timer> armed;
  for (const dravel_item *item : items_of<dravel_item>(get_dravel_list())) {
    if (const auto expiry = armed_expiry(item->timer_id))
      armed.push_back({item->timer_id, *expiry});
  }
  return armed;
}

// --- the set's log ---

static void log_event(const char *event, int timer_id, const char *reason, const char *format, ...)
    __attribute__((format(printf, 4, 5)));

static void log_event(const char *event, int timer_id, const char *reason, const char *format,
                      ...) {
  va_list arguments;
  va_start(arguments, format);
  g_autofree char *text = g_strdup_vprintf(format, arguments);
  va_end(arguments);
  system_log_event(event, timer_id, reason, text);
}

// A change of the clock programs many on-times in a pass: only the last one counts.
static void log_ontime(void) {
  static micom_ontimer_record logged;
  static bool logged_accepted = true;
  const micom_ontimer_record &record = programmed_ontimer();
  if (record.timer_id == logged.timer_id && record.ontime == logged.ontime &&
      (record.timer_id == 0 || ontime_accepted == logged_accepted))
    return;
  logged = record;
  logged_accepted = ontime_accepted;
  if (record.timer_id == 0) {
    log_event("programmed", 0, "", "no timer is programmed to wake the set");
    return;
  }
  std::tm at;
  unsigned_gmtime_r(record.ontime, &at);
  log_event(ontime_accepted ? "programmed" : "refused", record.timer_id, "",
            "the set %s wake for timer %d at %04d-%02d-%02d %02d:%02d:%02d%s",
            ontime_accepted ? "will" : "refused to", record.timer_id, at.tm_year + 1900,
            at.tm_mon + 1, at.tm_mday, at.tm_hour, at.tm_min, at.tm_sec,
            record.is_utc != 0 ? " UTC" : "");
}

// --- the properties ---

static programmed_wakeup wakeup_of(const micom_ontimer_record &record) {
  if (record.timer_id == 0)
    return {};
  return {record.timer_id, record.ontime, static_cast<int>(record.type),
          record.is_utc != 0 ? 1U : 0U};
}

static unsigned stored_timers(void) {
  unsigned count = 0;
  for (const dravel_item *item : items_of<dravel_item>(get_dravel_list()))
    count += has_type(item, TIMER_TYPE_TRANSIENT) ? 0U : 1U;
  return count;
}

static std::vector<int> period_ids(void) {
  std::vector<int> ids;
  for (const disabled_period_item *period :
       items_of<disabled_period_item>(get_disabled_period_list()))
    ids.push_back(period->period_id);
  return ids;
}

static shown_state current_state(void) {
  shown_state state{};
  state.version = DRAVEL_VERSION;
  state.platform = DRAVEL_PLATFORM_NAME;
  get_cur_time(&state.clock, TIME_TYPE_BROADCAST);
  state.clock_settings = clock_settings;
  state.clock_confirmed = get_kinto_time_updated() != 0 ? 1 : 0;
  state.armed = armed_timers();
  state.wakeup = wakeup_of(programmed_ontimer());
  state.halt_on = ontimer_halt;
  state.halt_off = offtimer_halt;
  state.stored = stored_timers();
  state.limit = kMaxTimerNum;
  state.periods = period_ids();
  return state;
}

template <auto Field, int Type>
static void append_basic(const shown_state &state, DBusMessageIter *out) {
  dbus_message_iter_append_basic(out, Type, &(state.*Field));
}

static void append_struct(DBusMessageIter *out,
                          std::initializer_list<std::pair<int, const void *>> members) {
  DBusMessageIter inside;
  dbus_message_iter_open_container(out, DBUS_TYPE_STRUCT, nullptr, &inside);
  for (const auto &[type, member] : members)
    dbus_message_iter_append_basic(&inside, type, member);
  dbus_message_iter_close_container(out, &inside);
}

static void append_armed(const shown_state &state, DBusMessageIter *out) {
  DBusMessageIter timers;
  dbus_message_iter_open_container(out, DBUS_TYPE_ARRAY, "(iu)", &timers);
  for (const armed_timer &timer : state.armed)
    append_struct(&timers, {{DBUS_TYPE_INT32, &timer.timer_id}, {DBUS_TYPE_UINT32, &timer.expiry}});
  dbus_message_iter_close_container(out, &timers);
}

static void append_periods(const shown_state &state, DBusMessageIter *out) {
  DBusMessageIter ids;
  dbus_message_iter_open_container(out, DBUS_TYPE_ARRAY, DBUS_TYPE_INT32_AS_STRING, &ids);
  for (const int id : state.periods)
    dbus_message_iter_append_basic(&ids, DBUS_TYPE_INT32, &id);
  dbus_message_iter_close_container(out, &ids);
}

static void append_wakeup(const shown_state &state, DBusMessageIter *out) {
  const programmed_wakeup &wakeup = state.wakeup;
  append_struct(out, {{DBUS_TYPE_INT32, &wakeup.timer_id},
                      {DBUS_TYPE_UINT32, &wakeup.ontime},
                      {DBUS_TYPE_INT32, &wakeup.type},
                      {DBUS_TYPE_BOOLEAN, &wakeup.is_utc}});
}

template <auto Field> static bool differs(const shown_state &one, const shown_state &other) {
  return one.*Field != other.*Field;
}

// Sent as names only: 80 timers and more are armed, and the clock's value is old when it arrives.
static constexpr state_property kProperties[] = {
    {"Version", "s", E_DBUS_PROPERTY_CONST, append_basic<&shown_state::version, DBUS_TYPE_STRING>,
     differs<&shown_state::version>},
    {"Platform", "s", E_DBUS_PROPERTY_CONST, append_basic<&shown_state::platform, DBUS_TYPE_STRING>,
     differs<&shown_state::platform>},
    {"Clock", "u", E_DBUS_PROPERTY_NAMED, append_basic<&shown_state::clock, DBUS_TYPE_UINT32>,
     differs<&shown_state::clock_settings>},
    {"ClockConfirmed", "b", E_DBUS_PROPERTY_SENT,
     append_basic<&shown_state::clock_confirmed, DBUS_TYPE_BOOLEAN>,
     differs<&shown_state::clock_confirmed>},
    {"Armed", "a(iu)", E_DBUS_PROPERTY_NAMED, append_armed, differs<&shown_state::armed>},
    {"Wakeup", "(iuib)", E_DBUS_PROPERTY_SENT, append_wakeup, differs<&shown_state::wakeup>},
    {"HaltOn", "i", E_DBUS_PROPERTY_SENT, append_basic<&shown_state::halt_on, DBUS_TYPE_INT32>,
     differs<&shown_state::halt_on>},
    {"HaltOff", "i", E_DBUS_PROPERTY_SENT, append_basic<&shown_state::halt_off, DBUS_TYPE_INT32>,
     differs<&shown_state::halt_off>},
    {"Stored", "u", E_DBUS_PROPERTY_SENT, append_basic<&shown_state::stored, DBUS_TYPE_UINT32>,
     differs<&shown_state::stored>},
    {"Limit", "u", E_DBUS_PROPERTY_CONST, append_basic<&shown_state::limit, DBUS_TYPE_UINT32>,
     differs<&shown_state::limit>},
    {"DisabledPeriods", "ai", E_DBUS_PROPERTY_SENT, append_periods, differs<&shown_state::periods>},
};

static void get_property(E_DBus_Object *, const char *name, DBusMessageIter *out) {
  const auto *property =
      std::ranges::find(kProperties, std::string_view(name), &state_property::name);
  property->append(current_state(), out);
}

static void send_change(const timer_change &change) {
  DBusMessage *signal = dbus_message_new_signal(kStateObjectPath, kStateInterface, change.signal);
  if (signal == nullptr)
    return;
  const auto append = [&](int type, auto &value) {
    return dbus_message_append_args(signal, type, &value, DBUS_TYPE_INVALID) != FALSE;
  };
  if (append(DBUS_TYPE_INT32, change.timer_id) &&
      (change.reason == nullptr || append(DBUS_TYPE_STRING, change.reason)))
    e_dbus_message_send(state_bus, signal, nullptr, -1, nullptr);
  dbus_message_unref(signal);
}

// What changes and changes back before the next signals is announced too: a client may have read it
// in between.
static void note_changed_properties(void) {
  shown_state state = current_state();
  for (const state_property &property : kProperties) {
    if (property.differs(state, seen) &&
        std::ranges::find(changed_properties, property.name) == changed_properties.end())
      changed_properties.push_back(property.name);
  }
  seen = std::move(state);
}

// Returns whether anything was sent.
static bool send_changed_properties(void) {
  if (changed_properties.empty())
    return false;
  changed_properties.push_back(nullptr);
  e_dbus_properties_changed(state_object, state_interface, changed_properties.data());
  changed_properties.clear();
  return true;
}

static void send_gathered(void) {
  const std::vector<timer_change> changes = std::exchange(timer_changes, {});
  if (state_object == nullptr)
    return;
  for (const timer_change &change : changes)
    send_change(change);
  if (send_changed_properties() || !changes.empty())
    sent_at = ecore_loop_time_get();
}

static Eina_Bool end_of_burst_cb(void *) {
  end_of_burst = nullptr;
  note_changed_properties();
  send_gathered();
  return ECORE_CALLBACK_CANCEL;
}

static Eina_Bool end_of_pass_cb(void *) {
  end_of_pass = nullptr;
  log_ontime();
  note_changed_properties();
  const double wait = sent_at + kBurstSeconds - ecore_loop_time_get();
  if (wait > 0 && end_of_burst == nullptr)
    end_of_burst = ecore_timer_add(wait, end_of_burst_cb, nullptr);
  if (end_of_burst == nullptr)
    send_gathered();
  return ECORE_CALLBACK_CANCEL;
}

void state_touched(void) {
  if (end_of_pass == nullptr)
    end_of_pass = ecore_idle_enterer_add(end_of_pass_cb, nullptr);
}

void timer_added(int timer_id) {
  timer_changes.push_back({kAddedSignal, timer_id, nullptr});
  state_touched();
}

// Once between two sendings of signals, and not for a timer that is in them already.
void timer_changed(int timer_id) {
  if (std::ranges::find(timer_changes, timer_id, &timer_change::timer_id) == timer_changes.end())
    timer_changes.push_back({kChangedSignal, timer_id, nullptr});
  state_touched();
}

// A transient timer that has fired stays listed until somebody finds that it has no next expiry.
void timer_removed(int timer_id, removal_reason reason) {
  const bool has_fired = std::erase(fired_timers, timer_id) != 0;
  if (has_fired && (reason == removal_reason::kPast || reason == removal_reason::kNever))
    reason = removal_reason::kFired;
  const char *word = kReasonWords[static_cast<int>(reason)];
  timer_changes.push_back({kRemovedSignal, timer_id, word});
  log_event("removed", timer_id, word, "timer %d is removed: %s", timer_id, word);
  state_touched();
}

void timer_fired(int timer_id, bool once) {
  std::erase(fired_timers, timer_id);
  if (once)
    fired_timers.push_back(timer_id);
  log_event("fired", timer_id, "", "timer %d has fired", timer_id);
  state_touched();
}

void timer_halted(int timer_id) {
  log_event("halted", timer_id, "", "timer %d does not act: timers of its kind are halted",
            timer_id);
}

void timer_skipped(int timer_id) {
  log_event("skipped", timer_id, "", "timer %d does not fire: it skips this holiday", timer_id);
}

void ontime_requested(bool is_accepted) {
  ontime_accepted = is_accepted;
  state_touched();
}

void clock_set(void) {
  ++clock_settings;
  state_touched();
}

void fini_state_object(void) {
  state_bus = nullptr;
  state_object = nullptr;
  state_interface = nullptr;
}

void init_state_object(E_DBus_Connection *bus) {
  state_bus = bus;
  state_object = e_dbus_object_add(bus, kStateObjectPath, nullptr);
  state_interface = e_dbus_interface_new(kStateInterface);
  if (state_object == nullptr || state_interface == nullptr) {
    LOGE("the state object could not be added");
    fini_state_object();
    return;
  }
  for (const state_property &property : kProperties)
    e_dbus_interface_property_add(state_interface, property.name, property.type, property.change,
                                  get_property, nullptr);
  e_dbus_interface_signal_add(state_interface, kAddedSignal, "i");
  e_dbus_interface_signal_add(state_interface, kChangedSignal, "i");
  e_dbus_interface_signal_add(state_interface, kRemovedSignal, "is");
  e_dbus_object_interface_attach(state_object, state_interface);
  seen = current_state();
}
