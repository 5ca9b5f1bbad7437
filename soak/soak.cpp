// Injects faults into the daemon and prints what was seen, a line for each kind. Seeded: the same
// seed gives the same faults, but for the moments at which processes are killed.
//
// Usage: soak DAEMON SEED ROUNDS-PERCENT [FAULT...]   in scripts/sandbox

#include "soak.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string_view>

static constexpr unsigned kFullLedger = 60; // of 80 that the daemon keeps
static constexpr std::uint32_t kMinute = 60;
static constexpr std::uint32_t kDay = 86400;
static constexpr std::uint32_t kMinutesOutsideTheHour = 23 * 60;
static constexpr std::uint32_t kStepMinutes = 101; // has no factor in common with that

void fail(const std::string &what) { throw std::runtime_error(what); }

// At a minute of the day of its own, not within the hour from noon, up to 300 days ahead, so that
// it lasts until it is cancelled.
timer_arguments any_timer(soak_run &run) {
  static constexpr int kTypes[] = {0, 1, 2, 3, 5};
  const std::uint32_t minute = run.timers_made++ * kStepMinutes % kMinutesOutsideTheHour;
  const std::uint32_t at = time_of("16 13:00") + kDay * run.below(300) + kMinute * minute;
  const int week_flag = run.below(2) == 0 ? 1 + static_cast<int>(run.below(kDaily)) : 0;
  timer_arguments timer = arguments_of({run.pick(kTypes), time_text(at), week_flag});
  timer[TIMER_ARG_PRIORITY] = static_cast<int>(run.below(5));
  timer[TIMER_ARG_DELAY] = static_cast<int>(run.below(1000));
  return timer;
}

// --- what was acknowledged ---

// Nothing when there was no answer.
static std::optional<int> answer_to(soak_run &run, const char *method,
                                    std::span<const int> arguments) {
  const message reply = run.bus->try_call(kDaemon, method, arguments);
  return reply == nullptr ? std::nullopt : std::optional(int_of(reply));
}

static bool cancel_one(soak_run &run) {
  ledger &book = run.book;
  const auto count = static_cast<unsigned>(book.timers.size());
  const int id = std::next(book.timers.begin(), run.below(count))->first;
  book.unanswered_cancel = id;
  const auto answer = answer_to(run, "cancel_timer", {&id, 1});
  if (!answer)
    return false;
  if (*answer != 0)
    fail("the listed timer " + std::to_string(id) + " was not cancelled");
  book.timers.erase(id);
  book.unanswered_cancel.reset();
  return true;
}

static bool add_one(soak_run &run) {
  ledger &book = run.book;
  const timer_arguments timer = any_timer(run);
  book.unanswered_add = timer;
  const auto id = answer_to(run, "schedule_timer", timer);
  if (!id)
    return false;
  if (*id <= 0 || !book.timers.emplace(*id, words_of(*id, timer)).second)
    fail("a new timer was answered with " + std::to_string(*id));
  book.unanswered_add.reset();
  return true;
}

bool change(soak_run &run) {
  const std::size_t listed = run.book.timers.size();
  const bool cancels = listed > 0 && (listed >= kFullLedger || run.below(5) < 2);
  const bool answered = cancels ? cancel_one(run) : add_one(run);
  run.book.acknowledged += answered ? 1 : 0;
  return answered;
}

// --- the checks ---

timer_map listed_timers(bus_client &bus) {
  const words list = bus.list(kDaemon);
  timer_map timers;
  for (std::size_t at = 1; at + TIMER_WORDS <= list.size(); at += TIMER_WORDS) {
    timer_words timer{};
    std::copy_n(&list[at], timer.size(), timer.begin());
    timers.emplace(timer[TIMER_WORD_ID], timer);
  }
  if (timers.size() * TIMER_WORDS + 1 != list.size() || static_cast<int>(timers.size()) != list[0])
    fail("the list is not made of so many whole images as it says, each of another timer");
  return timers;
}

std::string row_of(const timer_words &timer) {
  std::string row;
  for (const record_field &field : kRecordFields<dravel_item>)
    row += (row.empty() ? "" : "|") + std::to_string(timer[field.word]);
  return row;
}

std::vector<std::string> stored_timers(const char *path) {
  std::istringstream in(
      rows("SELECT timer_id, type, priority, date_type, tm_sec, tm_min, tm_hour, tm_mday, "
           "tm_mon, tm_year, tm_wday, tm_yday, tm_isdst, delay, week_flag, "
           "disable_period_effect, time_type FROM dravel ORDER BY timer_id",
           path));
  return {std::istream_iterator<std::string>(in), {}};
}

static void settle_unanswered(ledger &book, const timer_map &listed) {
  if (book.unanswered_cancel && !listed.contains(*book.unanswered_cancel))
    book.timers.erase(*book.unanswered_cancel);
  for (const auto &[id, timer] : listed)
    if (book.unanswered_add && !book.timers.contains(id) &&
        timer == words_of(id, *book.unanswered_add))
      book.timers.emplace(id, timer);
  book.unanswered_cancel.reset();
  book.unanswered_add.reset();
}

void check_all(soak_run &run) {
  const timer_map listed = listed_timers(*run.bus);
  settle_unanswered(run.book, listed);
  if (listed != run.book.timers)
    fail("not those timers are listed that were acknowledged");
  std::vector<std::string> expected;
  for (const auto &[id, timer] : listed)
    expected.push_back(row_of(timer));
  if (stored_timers(kDravelDbPath) != expected)
    fail("the list and the store differ");
  for (const char *path : {kDravelDbPath, kWakeupDbPath})
    if (const std::string found = rows("PRAGMA integrity_check", path); found != "ok")
      fail(std::string(path) + ": " + found);
}

// --- the rounds ---

static void start_round(soak_run &run) {
  if (run.bus == nullptr)
    run.bus = std::make_unique<bus_client>(run.address);
  run.daemon.emplace(start_daemon({run.program, run.keys, "error", run.address}, *run.bus));
}

static void end_round(soak_run &run, int expected) {
  const int status = expected == 0 ? run.daemon->stop() : run.daemon->wait();
  if (status != expected)
    fail("the daemon ended with " + std::to_string(status));
  run.daemon.reset();
}

static void run_fault(const fault &fault, soak_run &run, int rounds) {
  empty_store();
  for (run.round = 0; run.round < rounds; ++run.round) {
    if (fault.prepare != nullptr)
      fault.prepare(run);
    start_round(run);
    fault.check(run);
    fault.disturb(run);
    end_round(run, fault.status);
    if (fault.repair != nullptr)
      fault.repair(run);
  }
  if (run.book.acknowledged == 0)
    fail("no change was acknowledged");
  start_round(run);
  check_all(run);
  end_round(run, 0);
}

static void run_named(const fault &fault, char **argv) {
  const int rounds =
      std::max(fault.least, static_cast<int>(fault.rounds * std::strtod(argv[3], nullptr) / 100));
  const auto seed = static_cast<unsigned>(std::strtoul(argv[2], nullptr, 10));
  std::printf("%-9s seed %u: ", fault.name, seed);
  std::fflush(stdout);
  soak_run run{argv[1], std::mt19937(seed)};
  const auto begun = std::chrono::steady_clock::now();
  try {
    run_fault(fault, run, rounds);
  } catch (const std::exception &failure) {
    std::printf("round %d: %s\n%s", run.round, failure.what(), daemon_log().c_str());
    std::exit(1);
  }
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begun;
  std::printf("%d rounds, %d changes acknowledged, none lost, %.0f s\n", rounds,
              run.book.acknowledged, took.count());
}

int main(int argc, char **argv) {
  std::set<std::string_view> wanted(argv + std::min(argc, 4), argv + argc);
  const bool all = wanted.empty();
  for (const fault &fault : faults())
    if (argc >= 4 && (all || wanted.erase(fault.name) == 1))
      run_named(fault, argv);
  if (argc >= 4 && wanted.empty())
    return 0;
  std::fprintf(stderr, "usage: soak DAEMON SEED ROUNDS-PERCENT [FAULT...], of");
  for (const fault &fault : faults())
    std::fprintf(stderr, " %s", fault.name);
  std::fprintf(stderr, "\n");
  return 64;
}
