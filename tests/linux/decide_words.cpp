// The words of scenarios of the rules. What happens: an event by the name of its struct with its
// fields in their order, or a word of kSteps. What is seen: an order by its name, a problem's or a
// delay's name, or a word of kFields and kSeen. An order without fields is seen as how many were
// given since the start, the last "forget" or sleep; others as their fields. Enumerators are their
// names without the k: kOffTimer is "off_timer".
#include "decide_words.h"

#include "lines.h"

#include <linux/cec.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstring>
#include <map>
#include <optional>
#include <string_view>

static std::optional<awake_machine> run;

void begin_scenario() { run.emplace(); }

// --- names ---

template <auto Value> static std::string name_of_value() {
  const std::string_view text = __PRETTY_FUNCTION__; // "... [with auto Value = unit::kOn; ..."
  const std::size_t start = text.find("Value = ") + std::strlen("Value = ");
  const std::string_view value = text.substr(start, text.find_first_of(";]", start) - start);
  std::string name;
  for (const char letter : value.substr(std::min(value.rfind("::k") + 3, value.size())))
    name += letter >= 'a' ? std::string(1, letter)
                          : (name.empty() ? "" : "_") + std::string(1, letter | 0x20);
  return value.find("::k") == value.npos ? "" : name;
}

template <class Enum> static const text_list &names_of() {
  static const text_list names = []<std::size_t... I>(std::index_sequence<I...>) {
    return text_list{name_of_value<static_cast<Enum>(I)>()...};
  }
  (std::make_index_sequence<20>{});
  return names;
}

template <class Struct> static std::string name_of_struct() {
  const std::string_view text = __PRETTY_FUNCTION__; // "... [with Struct = order::tv_on; ..."
  const std::size_t start = text.find("::", text.find("Struct = ")) + 2;
  return std::string(text.substr(start, text.find_first_of(";]", start) - start));
}

// --- values ---

static const std::map<std::string_view, std::int64_t> kNumbers = {
    {"", 0},
    {"no", 0},
    {"off", 0},
    {"yes", 1},
    {"on", 1},
    {"suspend", kSleepBit},
    {"sleep", kSleepBit},
    {"shutdown", kShutdownBit},
    {"idle", kIdleBit},
    {"hibernate", kHibernateBit},
    {"standby", CEC_MSG_STANDBY},
    {"question", CEC_MSG_GIVE_DEVICE_POWER_STATUS}};

static std::optional<int> error_of(const std::string &name) {
  for (int error = 1; error < 140; ++error)
    if (const char *known = strerrorname_np(error); known != nullptr && name == known)
      return error;
  return {};
}

// "+5000" is that many seconds from kNow.
static std::int64_t number_of(const std::string &word) {
  if (const auto known = kNumbers.find(word); known != kNumbers.end())
    return known->second;
  if (const auto error = error_of(word))
    return *error;
  return (word[0] == '+' || word[0] == '-' ? kNow : 0) + std::stoll(word);
}

template <class Value> static Value value_of(const std::string &word) {
  if constexpr (!std::is_enum_v<Value>) {
    return static_cast<Value>(number_of(word));
  } else {
    const text_list &names = names_of<Value>();
    const auto found = std::ranges::find(names, word);
    if (word.empty() || found == names.end())
      throw std::runtime_error("no such value: " + word);
    return static_cast<Value>(found - names.begin());
  }
}

template <class Value> static std::string text_of(Value value) {
  if constexpr (std::is_enum_v<Value>) {
    return names_of<Value>()[static_cast<std::size_t>(value)];
  } else if constexpr (std::is_same_v<Value, bool>) {
    return value ? "yes" : "no";
  } else {
    static constexpr auto kNear = 100 * kOneDay;
    const auto from_now = static_cast<std::int64_t>(value) - kNow;
    const bool is_time = std::abs(from_now) < kNear;
    return (is_time && from_now >= 0 ? "+" : "") + std::to_string(is_time ? from_now : value);
  }
}

// --- what happens ---

namespace {

// Whatever a field is made of.
struct field_word {
  std::string word;
  template <class Field>
  requires(std::is_arithmetic_v<Field> || std::is_enum_v<Field>) operator Field() const {
    return value_of<Field>(word);
  }
};

} // namespace

static constexpr std::size_t kFlat = sizeof(event::use_changed); // larger ones have words

template <class Event, std::size_t... I>
static bool send_of(arguments a, std::index_sequence<I...>) {
  if constexpr (requires { Event{field_word{a[I]}...}; } && sizeof(Event) <= kFlat)
    return run->send(Event{field_word{a[I]}...}), true;
  return false;
}

// False when this is not its name.
template <class Event> static bool send_named(arguments a) {
  if (name_of_struct<Event>() != a[0])
    return false;
  const arguments fields = a.subspan(1);
  return [&]<std::size_t... Count>(std::index_sequence<Count...>) {
    return ((fields.size() == Count && send_of<Event>(fields, std::make_index_sequence<Count>{})) ||
            ...);
  }
  (std::make_index_sequence<7>{});
}

template <class... Events> static bool send_any(std::variant<Events...> *, arguments a) {
  return (send_named<Events>(a) || ...);
}

namespace {

struct field {
  std::string (*read)(machine &);
  void (*write)(machine &, const std::string &word);
};

} // namespace

template <class Get> static field field_of(Get) {
  return {[](machine &m) { return text_of(Get{}(m)); },
          [](machine &m, const std::string &word) { Get{}(m) = field_word{word}; }};
}

static const std::map<std::string_view, field> kFields = {
    {"started", field_of([](machine &m) -> auto & { return m.started; })},
    {"wanted", field_of([](machine &m) -> auto & { return m.alarm.wanted.on_time; })},
    {"stands", field_of([](machine &m) -> auto & { return m.alarm.stands.owner; })},
    {"foreign", field_of([](machine &m) -> auto & { return m.alarm.foreign.count; })},
    {"reach", field_of([](machine &m) -> auto & { return m.alarm.range; })},
    {"wants_idle", field_of([](machine &m) -> auto & { return m.wants_idle; })},
    {"woken", field_of([](machine &m) -> auto & { return m.woken.by; })},
    {"woken_utc", field_of([](machine &m) -> auto & { return m.woken.utc; })},
    {"woken_at", field_of([](machine &m) -> auto & { return m.woken.at; })},
    {"woken_booted", field_of([](machine &m) -> auto & { return m.woken.booted; })},
    {"stays", field_of([](machine &m) -> auto & { return m.woken.stays; })},
    {"believed", field_of([](machine &m) -> auto & { return m.screen.believed; })},
    {"ordered", field_of([](machine &m) -> auto & { return m.screen.ordered; })},
    {"ordered_on", field_of([](machine &m) -> auto & { return m.screen.ordered_on; })},
    {"pending", field_of([](machine &m) -> auto & { return m.screen.pending; })},
    {"has_spoken", field_of([](machine &m) -> auto & { return m.screen.has_spoken; })},
    {"wish", field_of([](machine &m) -> auto & { return m.sleep.wish; })},
    {"stage", field_of([](machine &m) -> auto & { return m.sleep.stage; })},
    {"why", field_of([](machine &m) -> auto & { return m.sleep.why; })},
    {"method", field_of([](machine &m) -> auto & { return m.sleep.method; })},
    {"last_method", field_of([](machine &m) -> auto & { return m.sleep.last_method; })},
    {"phase", field_of([](machine &m) -> auto & { return m.power.now; })},
    {"went_utc", field_of([](machine &m) -> auto & { return m.power.went.utc; })},
    {"clock", field_of([](machine &m) -> auto & { return m.clock.state; })},
    {"clock_was_set", field_of([](machine &m) -> auto & { return m.clock.was_set; })},
    {"watched", field_of([](machine &m) -> auto & { return m.use.watched; })},
};

static std::string value_after(const std::string &word) { return word.substr(word.find('=') + 1); }

// As in "off=none hop_boots=no".
static settings settings_of(arguments a) {
  settings set;
  for (const std::string &word : a)
    if (word.starts_with("off="))
      set.off = value_of<off_action>(value_after(word));
    else if (word.starts_with("hop_boots="))
      set.hop_boots = value_of<bool>(value_after(word));
    else if (word.starts_with("follow_screen="))
      set.follow_screen = value_of<bool>(value_after(word));
    else if (word.starts_with("screen_follows="))
      set.screen_follows = value_of<bool>(value_after(word));
    else if (word.starts_with("lead="))
      set.lead_suspend = number_of(value_after(word));
    else if (word.starts_with("return="))
      set.return_to_sleep = number_of(value_after(word));
  return set;
}

static bool has_word(arguments a, const char *word) {
  return std::ranges::find(a, word) != a.end();
}

// The next process: of the same_boot, of an other_build, or after a boot, so many seconds ago. It
// knows the record of this one, or only the fields that are given.
static void start(arguments a) {
  event::started next;
  next.has_kept = !has_word(a, "first");
  next.same_boot = has_word(a, "same_boot");
  next.is_other_build = has_word(a, "other_build");
  next.rtc_valid = has_word(a, "rtc_valid");
  next.device.clock = run->now.utc;
  next.device.minutes = has_word(a, "minutes");
  if (!next.is_other_build)
    next.kept = run->m;
  for (const std::string &word : a)
    if (word.starts_with("booted="))
      next.booted_at = run->now.utc - number_of(value_after(word));
    else if (word.starts_with("build="))
      next.build_day = number_of(value_after(word));
    else if (word.find('=') != word.npos)
      find_word(kFields, word.substr(0, word.find('='))).write(next.kept, value_after(word));
  run->send(next);
}

static void pass(arguments a) { run->pass(std::llround(std::stod(a[0]) * kSecondMs)); }

// So many seconds pass, and what is due happens.
static void wait(arguments a) {
  pass(a);
  run->send(event::due{});
}

static const std::map<std::string_view, void (*)(arguments a)> kSteps = {
    // Another machine: without CEC or a battery of its clock, or with settings.
    {"machine",
     [](arguments a) {
       run.emplace(settings_of(a), !has_word(a, "no_cec"), !has_word(a, "no_battery"));
     }},
    {"set", [](arguments a) { find_word(kFields, a[0]).write(run->m, a[1]); }},
    {"configured", [](arguments a) { run->send(event::configured{settings_of(a)}); }},
    {"start", start},
    {"forget", [](arguments) { run->given.clear(); }},
    {"nothing", [](arguments) {}},
    // time; "slept": nobody has announced it; "counted": only the count shows it
    {"pass", pass},
    {"wait", wait},
    {"each_second", // each ends with this answer of the television
     [](arguments a) {
       for (std::int64_t left = number_of(a[0]); left > 0; --left) {
         run->pass(kSecondMs);
         run->send(event::due{});
         do_step(a.subspan(1));
       }
     }},
    {"sleep", [](arguments a) { run->sleep(number_of(a[0])); }},
    {"slept",
     [](arguments a) {
       pass(a);
       run->now.slept += number_of(a[0]) * kSecondMs;
     }},
    {"counted", [](arguments) { ++run->now.sleeps; }},
    {"uptime", // seconds, seconds slept, sleeps
     [](arguments a) {
       run->now.boot = number_of(a[0]) * kSecondMs;
       run->now.slept = number_of(a[1]) * kSecondMs;
       run->now.sleeps = value_of<std::uint32_t>(a[2]);
     }},
    {"gains", // so many seconds, the system clock on the boot clock; no event tells it
     [](arguments a) {
       const std::int64_t boot = run->now.boot;
       pass(a);
       run->now.boot = boot;
     }},
    {"step_clock",
     [](arguments a) {
       run->now.utc += number_of(a[0]);
       run->send(event::clock_stepped{});
     }},
    // devices, people, the daemon
    {"alarm", [](arguments a) { run->alarm = number_of(a[0]); }},
    {"range", [](arguments a) { run->range = number_of(a[0]); }},
    {"refuse", [](arguments a) { run->refusal = value_of<int>(a[0]); }},
    {"unreadable", [](arguments) { run->read_error = EIO; }},
    {"readable", [](arguments) { run->read_error = 0; }},
    {"gone", [](arguments) { run->is_gone = true; }},
    {"minutes", [](arguments) { run->minutes = true; }},
    {"next_transition", [](arguments a) { run->next_transition = number_of(a[0]); }},
    {"unused", // logind answers
     [](arguments) {
       run->send(event::use_changed{0, 0, 0, kSleepBit, 5000, true});
     }},
    {"off_time", [](arguments) { run->off_time(); }},
    {"busy", [](arguments) { run->is_busy = true; }}, // no callback comes back by itself
    {"pressed",                                       // so many seconds ago
     [](arguments a) { run->send(event::input{run->now.boot - number_of(a[0]) * kSecondMs}); }},
    {"late", // types, each perhaps with its time, as in 1/+5
     [](arguments a) {
       run->late = {};
       for (const std::string &word : a) {
         const std::size_t slash = word.find('/');
         const std::string utc = slash == word.npos ? "0" : word.substr(slash + 1);
         const auto id = ++run->late.count;
         run->late.timers[id - 1U] = {id, value_of<std::uint32_t>(word.substr(0, slash)),
                                      number_of(utc)};
       }
     }},
};

void do_step(arguments step) {
  if (const auto found = kSteps.find(step[0]); found != kSteps.end())
    found->second(step.subspan(1));
  else if (!send_any(static_cast<event::any *>(nullptr), step))
    throw std::runtime_error("no such step: " + joined({step.begin(), step.end()}, " "));
}

// --- what is seen ---

// Where an order says more than a scenario asks for, only that.
static std::string fields_of(const order::write_alarm &o) { return text_of(o.count); }
static std::string fields_of(const order::ask_late &o) { return text_of(o.from); }
static std::string fields_of(const order::sleep &o) { return text_of(o.method); }
static std::string fields_of(const order::watch_input &o) { return text_of(o.on); }
static std::string fields_of(const order::start_unit &o) { return text_of(o.name); }
static std::string fields_of(const order::say &o) { return text_of(o.what); }
static std::string fields_of(const order::deliver &o) {
  return text_of(o.callback) + (o.value == 0 ? "" : ' ' + text_of(o.value));
}
static std::string fields_of(const order::answer &o) {
  return o.error == 0 ? text_of(o.seconds) : strerrorname_np(o.error);
}

template <class Order> static bool see(const std::string &name, std::string &text) {
  if (name_of_struct<Order>() != name)
    return false;
  text_list all;
  for (const order::any &one : run->given)
    if (const auto *same = std::get_if<Order>(&one)) {
      if constexpr (requires { fields_of(*same); })
        all.push_back(fields_of(*same));
      else
        all.emplace_back();
    }
  if constexpr (requires(const Order &one) { fields_of(one); })
    text = joined(all, " ");
  else
    text = std::to_string(all.size());
  return true;
}

template <class... Orders>
static bool see_any(std::variant<Orders...> *, const std::string &name, std::string &text) {
  return (see<Orders>(name, text) || ...);
}

// Seconds from now.
static std::string seconds_to(std::int64_t boot) {
  if (boot == kNever || boot == 0)
    return "-";
  std::string text = std::to_string((boot - run->now.boot) / 1000.0);
  text.erase(text.find_last_not_of('0') + 1);
  return text.ends_with('.') ? text.substr(0, text.size() - 1) : text;
}

static std::string problems() {
  text_list names;
  for (std::size_t part = 0; part < kProblems; ++part)
    if (run->m.problems[part] != 0)
      names.push_back(text_of(static_cast<problem>(part)));
  return joined(names, " ");
}

static std::string jobs() {
  text_list ids;
  for (const job &one : run->m.jobs)
    if (one.id != 0)
      ids.push_back(std::to_string(one.id));
  return joined(ids, " ");
}

static order::say last_said() {
  order::say last;
  for (const order::any &one : run->given)
    if (const auto *same = std::get_if<order::say>(&one))
      last = *same;
  return last;
}

// The number and the error of the last sentence in the journal.
static std::string said() {
  const order::say last = last_said();
  return text_of(last.what) + ' ' + text_of(last.number) + ' ' + text_of(last.error);
}

// The errors of the problems, in their order.
static std::string errors() {
  text_list all;
  for (const int error : run->m.problems)
    if (error != 0)
      all.push_back(std::to_string(error));
  return joined(all, " ");
}

static const std::map<std::string_view, std::string (*)()> kSeen = {
    {"alarm", [] { return text_of(run->alarm); }},
    {"problems", problems},
    {"jobs", jobs},
    {"said", said},
    {"said_timer", [] { return text_of(last_said().timer); }},
    {"errors", errors},
    {"pause_in", [] { return seconds_to(run->m.power.pause_until); }},
};

// An order, a record's field, or as in "return_in" the seconds until something is due.
std::string seen(const std::string &name) {
  std::string text;
  if (see_any(static_cast<order::any *>(nullptr), name, text))
    return text;
  if (const auto found = kFields.find(name); found != kFields.end())
    return found->second.read(run->m);
  if (const auto found = kSeen.find(name); found != kSeen.end() || !name.ends_with("_in"))
    return find_word(kSeen, name)();
  return seconds_to(due_at(run->m, value_of<due_kind>(name.substr(0, name.size() - 3))));
}
