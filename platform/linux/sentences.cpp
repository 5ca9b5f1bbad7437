#include "sentences.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iterator>

namespace {

template <class Enum> struct named {
  Enum value;
  const char *name;
};

struct problem_words {
  problem what;
  const char *matter; // the error stands behind it
  const char *consequence;
};

} // namespace

static constexpr named<cause> kCauses[] = {
    {cause::kNothing, "nothing known"}, {cause::kUser, "user"},
    {cause::kTimer, "timer"},           {cause::kHop, "hop"},
    {cause::kForeign, "foreign"},       {cause::kTest, "test"}};
static constexpr named<screen_state> kScreenStates[] = {
    {screen_state::kUnknown, "unknown"}, {screen_state::kOn, "on"}, {screen_state::kOff, "off"}};
static constexpr named<alarm_owner> kOwners[] = {{alarm_owner::kNone, "none"},
                                                 {alarm_owner::kTimer, "timer"},
                                                 {alarm_owner::kHop, "hop"},
                                                 {alarm_owner::kTest, "test"},
                                                 {alarm_owner::kForeign, "foreign"}};
static constexpr named<off_action> kOffActions[] = {{off_action::kSuspend, "suspend"},
                                                    {off_action::kPoweroff, "power off"},
                                                    {off_action::kHibernate, "hibernate"},
                                                    {off_action::kNone, "nothing"}};
static constexpr named<postponed> kReasons[] = {
    {postponed::kNot, ""},
    {postponed::kBlocked, "a program blocks it"},
    {postponed::kSession, "a user is logged in"},
    {postponed::kJob, "a unit of a dravel-wakeup@ target runs"},
    {postponed::kHook, "a unit of dravel-off.target runs"},
    {postponed::kOnTimeNear, "an on-time is near"},
    {postponed::kNoAlarm, "nothing would wake the machine for the next on-time"},
    {postponed::kScreenSilent, "the television does not say that it is off"},
    {postponed::kUseUnknown, "logind does not say who uses the machine"},
    {postponed::kFailed, "the last attempt failed"},
    {postponed::kOften, "the machine was woken too often by nothing known"},
};

template <class Enum, std::size_t Size>
static const char *name_of(const named<Enum> (&names)[Size], Enum value) {
  const auto found = std::ranges::find(names, value, &named<Enum>::value);
  return found == std::end(names) ? "?" : found->name;
}

const char *word_of(cause by) { return name_of(kCauses, by); }
const char *word_of(screen_state state) { return name_of(kScreenStates, state); }
const char *word_of(alarm_owner owner) { return name_of(kOwners, owner); }

static std::string suspend_stat(const char *name) {
  std::string text;
  std::getline(std::ifstream(std::string("/sys/power/suspend_stats/") + name), text);
  return text;
}

// Of a failed sleep the kernel knows more.
std::string sentence_of(postponed why) {
  std::string text = name_of(kReasons, why);
  const std::string step = why == postponed::kFailed ? suspend_stat("last_failed_step") : "";
  if (step.empty())
    return text;
  const std::string device = suspend_stat("last_failed_dev");
  text += "; the kernel's last failure: " + step;
  return device.empty() ? text : text + ", " + device;
}

// --- problems ---

static constexpr problem_words kProblemWords[] = {
    {problem::kNoDevice, "there is no real-time clock with an alarm",
     "the machine is not woken for on-timers"},
    {problem::kAlarmRefused, "the real-time clock refuses the alarm",
     "the machine is not woken for the next on-timer; it is tried again"},
    {problem::kAlarmRead, "the alarm of the real-time clock cannot be read",
     "none is set, the machine is perhaps not woken; it is tried again"},
    {problem::kInhibitor, "logind gives no delay", "a sleep may begin before the alarm is set"},
    {problem::kUse, "logind does not say who uses the machine", "the machine is not sent to sleep"},
    {problem::kSleep, "the machine does not sleep", "it stays awake; it is tried again"},
    {problem::kCannotSleep, "the machine cannot do the off-action",
     "it stays awake when the screen is off"},
    {problem::kInput, "the input devices cannot be read",
     "a person at the keyboard is not noticed"},
    {problem::kScreen, "the CEC adapter cannot be used",
     "only the targets turn the screen on and off"},
    {problem::kTelevision, "the television did not follow the last order",
     "its screen may show something else"},
    {problem::kOnUnit, "dravel-on.target cannot be started", "its hooks do not run"},
    {problem::kOffUnit, "dravel-off.target cannot be started", "its hooks do not run"},
    {problem::kAmbientUnit, "dravel-ambient.target cannot be started", "its hooks do not run"},
    {problem::kWakeupUnit, "a dravel-wakeup@ target cannot be started", "its hooks do not run"},
    {problem::kClock, "timedated does not answer", "the clock counts as set by hand"},
    {problem::kZone, "/etc cannot be watched", "a change of the time zone is not noticed"},
    {problem::kState, "what is known about the machine cannot be stored",
     "after a restart or a boot it is not known what woke it"},
    {problem::kWakesLoop, "the machine wakes again and again, by nothing known",
     "it is sent back to sleep only every 15 minutes"},
    {problem::kScreenUnit, "a dravel-screen unit has failed, its journal says why",
     "the screen may not have followed the last order"},
};
static_assert(std::size(kProblemWords) == kProblems);

std::string sentence_of(problem what, int error) {
  const auto words = std::ranges::find(kProblemWords, what, &problem_words::what);
  std::string text = words->matter;
  if (error > 1)
    text += std::string(": ") + std::strerror(error);
  return text + "; " + words->consequence;
}

std::string refusal_of_test(int error) {
  switch (error) {
  case ERANGE:
    return "the machine cannot sleep for so many seconds: at most 3600, and more than the programs "
           "that delay a sleep may take";
  case EALREADY:
    return "another test runs, or the machine goes to sleep already";
  case EBUSY:
    return "an on-time, another program's alarm, a program that blocks the sleep, or a unit of a "
           "dravel-wakeup@ target is in the way";
  case ECANCELED:
    return "the machine did not sleep";
  default:
    return std::string("the alarm or the sleep was refused: ") + std::strerror(error);
  }
}

// --- events ---

static std::string time_text(std::int64_t utc) {
  const auto time = static_cast<std::time_t>(utc);
  std::tm local{};
  char text[32] = "";
  if (localtime_r(&time, &local) != nullptr)
    std::strftime(text, sizeof text, "%F %T", &local);
  return text;
}

static std::string nothing(std::int64_t) { return ""; }
static std::string cause_text(std::int64_t by) { return word_of(static_cast<cause>(by)); }
static std::string seconds_text(std::int64_t count) { return std::to_string(count) + " seconds"; }
static std::string wait_text(std::int64_t why) { return sentence_of(static_cast<postponed>(why)); }
static std::string method_text(std::int64_t way) {
  return name_of(kOffActions, static_cast<off_action>(way));
}
static std::string answer_text(std::int64_t denied) {
  return denied == 0 ? "does not answer that it is on" : "answers that it is off";
}

namespace {

// "BEFORE number AFTER".
struct saying_words {
  order::saying what;
  const char *event;
  const char *before;
  std::string (*number)(std::int64_t number);
  bool is_reason; // the number is the reason, too
  const char *after = "";
};

} // namespace

using order::saying;

// Of a problem its sentence stands for the number.
static constexpr saying_words kSayings[] = {
    {saying::kWoken, "woken", "the machine was woken by: ", cause_text, true},
    {saying::kBooted, "booted", "the machine was booted by: ", cause_text, true},
    {saying::kHopWillNotBoot, "hop-refused", "nothing wakes the machine for ", time_text, false,
     ": its clock takes no alarm that far ahead, and hop-boots is no"},
    {saying::kForeignFound, "foreign-alarm", "another program's alarm stands for ", time_text,
     false},
    {saying::kForeignPutBack, "foreign-alarm-restored", "another program's alarm at ", time_text,
     false, " is set again"},
    {saying::kScreenOn, "screen-on", "the screen is on", nothing, false},
    {saying::kScreenOff, "screen-off", "the screen is off", nothing, false},
    {saying::kTelevisionLate, "screen-late", "the television ", answer_text, true,
     ", 15 seconds after it was turned on"},
    {saying::kTelevisionStays, "screen-late",
     "the television answers that it is on, 15 seconds after it was turned off", nothing, false},
    {saying::kGoesToSleep, "sleeping", "the machine is sent to sleep: ", method_text, true},
    {saying::kPostponed, "postponed", "the sleep is postponed: ", wait_text, true},
    {saying::kLate, "late", "a timer is made up for, late by ", seconds_text, false},
    {saying::kTestBegins, "test", "a test: the machine sleeps and is woken after ", seconds_text,
     false},
    {saying::kProblem, "problem", "", nothing, false},
    {saying::kProblemOver, "problem-over", "no longer: ", nothing, false},
};

sentence sentence_of(const order::say &said) {
  const auto words = std::ranges::find(kSayings, said.what, &saying_words::what);
  std::string number = words->number(said.number);
  if (said.what == saying::kProblem || said.what == saying::kProblemOver)
    number = sentence_of(static_cast<problem>(said.number), said.error);
  return {words->event, words->before + number + words->after, words->is_reason ? number : ""};
}
