#include "use.h"

#include "bus.h"
#include "milliseconds.h"

#include <algorithm>
#include <iterator>
#include <string_view>

static constexpr std::uint64_t kLongestDelay = 600'000'000; // microseconds; it may be infinite

namespace {

struct ability {
  const char *question;
  use_bits bit;
};

struct block {
  std::string_view word;
  use_bits bit;
};

// Of a session, as logind tells them.
struct session {
  bool is_user = false;
  int idle = 1;
  std::uint64_t began = 0; // microseconds, CLOCK_MONOTONIC
  std::uint64_t idle_changed = 0;
};

// One round of questions; a later round leaves the answers of an earlier one unread.
struct question_round {
  unsigned number = 0;
  int open = 0; // questions without an answer
  bool is_asked = false;
  int error = 0;
  event::use_changed found;
};

} // namespace

static constexpr ability kAbilities[] = {
    {"CanSuspend", kSleepBit}, {"CanPowerOff", kShutdownBit}, {"CanHibernate", kHibernateBit}};
static constexpr block kBlocks[] = {
    {"sleep", kSleepBit}, {"shutdown", kShutdownBit}, {"idle", kIdleBit}};

static question_round questions;

// --- answers ---

// A time before the last sleep becomes a later one, which is still before the end of that sleep.
static std::int64_t boot_time_of(std::uint64_t monotonic) {
  const std::int64_t slept = milliseconds_of(CLOCK_BOOTTIME) - milliseconds_of(CLOCK_MONOTONIC);
  return static_cast<std::int64_t>(monotonic / kMillisecondUs) + slept;
}

static std::uint8_t blocks_in(std::string_view words) {
  std::uint8_t bits = 0;
  for (std::size_t from = 0; from <= words.size();) {
    const std::size_t end = std::min(words.find(':', from), words.size());
    for (const block &row : kBlocks)
      if (words.substr(from, end - from) == row.word)
        bits |= row.bit;
    from = end + 1;
  }
  return bits;
}

static bool take_use_property(const char *name, sd_bus_message *value, void *) {
  if (name == std::string_view{"BlockInhibited"}) {
    const char *words = "";
    sd_bus_message_read(value, "v", "s", &words);
    questions.found.blocked = blocks_in(words);
  } else if (name == std::string_view{"InhibitDelayMaxUSec"}) {
    std::uint64_t longest = 0;
    sd_bus_message_read(value, "v", "t", &longest);
    questions.found.delay_max_ms =
        static_cast<std::int64_t>(std::min(longest, kLongestDelay) / kMillisecondUs);
  } else {
    return false;
  }
  return true;
}

static bool take_session_property(const char *name, sd_bus_message *value, void *data) {
  auto &of = *static_cast<session *>(data);
  const char *kind = "";
  if (name == std::string_view{"Class"}) {
    sd_bus_message_read(value, "v", "s", &kind);
    of.is_user = std::string_view(kind).starts_with("user"); // root's is user-early
  } else if (name == std::string_view{"IdleHint"}) {
    sd_bus_message_read(value, "v", "b", &of.idle);
  } else if (name == std::string_view{"TimestampMonotonic"}) {
    sd_bus_message_read(value, "v", "t", &of.began);
  } else if (name == std::string_view{"IdleSinceHintMonotonic"}) {
    sd_bus_message_read(value, "v", "t", &of.idle_changed);
  } else {
    return false;
  }
  return true;
}

static void take_session(sd_bus_message *reply) {
  session found;
  bus_read_properties(reply, take_session_property, &found);
  if (!found.is_user)
    return;
  auto &use = questions.found;
  use.session_at = std::max(use.session_at, boot_time_of(found.began));
  if (found.idle == 0)
    use.active_at = std::max(use.active_at, boot_time_of(found.idle_changed));
}

static void take_ability(sd_bus_message *reply, use_bits bit) {
  const char *answer = "";
  sd_bus_message_read(reply, "s", &answer);
  if (answer == std::string_view{"yes"})
    questions.found.can |= bit;
}

// --- questions ---

static void round_ended() {
  questions.found.is_answer = questions.is_asked;
  if (questions.error != 0)
    happens(event::refused{problem::kUse, questions.error});
  else
    happens(questions.found);
  questions.is_asked = false;
}

// What the questions of a round carry, to tell its answers from those of the rounds before.
static void *round_mark() {
  static char marks[64];
  return &marks[questions.number % sizeof marks];
}

static int answered(void *data, sd_bus_message *reply, bool is_needed,
                    void (*take)(sd_bus_message *reply)) {
  if (data != round_mark())
    return 0;
  const int error = bus_error_of(reply);
  if (error == 0)
    take(reply);
  else if (is_needed)
    questions.error = error;
  if (--questions.open == 0)
    round_ended();
  return 0;
}

// A session may have ended meanwhile: its error is none.
static int session_answered(sd_bus_message *reply, void *data, sd_bus_error *) {
  return answered(data, reply, false, take_session);
}

static void take_sessions(sd_bus_message *reply) {
  const char *path = "";
  if (sd_bus_message_enter_container(reply, 'a', "(susso)") <= 0)
    return;
  while (sd_bus_message_read(reply, "(susso)", nullptr, nullptr, nullptr, nullptr, &path) > 0) {
    ++questions.open;
    bus_get_properties({kLogind.name, path, "org.freedesktop.login1.Session"}, session_answered,
                       round_mark());
  }
}

static int sessions_answered(sd_bus_message *reply, void *data, sd_bus_error *) {
  return answered(data, reply, true, take_sessions);
}

static int properties_answered(sd_bus_message *reply, void *data, sd_bus_error *) {
  return answered(data, reply, true,
                  [](sd_bus_message *message) { bus_read_properties(message, take_use_property); });
}

template <std::size_t Row>
static int ability_answered(sd_bus_message *reply, void *data, sd_bus_error *) {
  return answered(data, reply, false,
                  [](sd_bus_message *message) { take_ability(message, kAbilities[Row].bit); });
}

static constexpr int kQuestions = 2 + static_cast<int>(std::size(kAbilities));

static void begin_round() {
  questions = {questions.number + 1, kQuestions, questions.is_asked, 0, {}};
  void *data = round_mark();
  bus_get_properties(kLogind, properties_answered, data);
  bus_call(kLogind, kAbilities[0].question, ability_answered<0>, data, "");
  bus_call(kLogind, kAbilities[1].question, ability_answered<1>, data, "");
  bus_call(kLogind, kAbilities[2].question, ability_answered<2>, data, "");
  bus_call(kLogind, "ListSessions", sessions_answered, data, "");
}

void ask_use() {
  questions.is_asked = true;
  begin_round();
}

static int logind_told(sd_bus_message *, void *, sd_bus_error *) {
  begin_round();
  return 0;
}

void start_use() {
  bus_watch_signal(kLogind, "SessionNew", logind_told);
  bus_watch_signal(kLogind, "SessionRemoved", logind_told);
  bus_watch_properties(kLogind, logind_told);
  bus_watch_service(kLogind, begin_round);
}
