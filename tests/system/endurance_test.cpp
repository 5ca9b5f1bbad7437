// A client changes timers while the daemon or the bus is killed, or the disk fails: what was
// acknowledged is there afterwards. A hundredth of the rounds that scripts/soak runs; the same SEED
// gives the same faults, but for the moments at which processes are killed.
#include "daemon.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <map>
#include <random>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

constexpr std::size_t kFullBook = 60; // of 80 timers that the daemon keeps
constexpr const char *kAllRows = "SELECT * FROM dravel";
constexpr const char *kStored = // in the order of an image
    "SELECT timer_id, type, priority, date_type, tm_sec, tm_min, tm_hour, tm_mday, tm_mon, tm_year,"
    " tm_wday, tm_yday, tm_isdst, delay, week_flag, disable_period_effect, time_type FROM dravel "
    "ORDER BY timer_id";

using timer_rows = std::map<int, std::string>;

// As that statement gives it.
std::string row_of(std::span<const int> image) {
  std::string row;
  for (int word = 0; word < TIMER_WORDS; ++word)
    if (word <= TIMER_WORD_ISDST || word >= TIMER_WORD_DELAY)
      row += (word == 0 ? "" : "|") + std::to_string(image[static_cast<std::size_t>(word)]);
  return row;
}

std::string text_of(const timer_rows &timers) {
  std::string text;
  for (const auto &[id, row] : timers)
    text += (text.empty() ? "" : " ") + row;
  return text;
}

int setting(const char *name, int otherwise) {
  const char *given = std::getenv(name);
  return given == nullptr ? otherwise : std::atoi(given);
}

class Endurance : public daemon_test {
protected:
  Endurance() { log_level = "error"; } // many changes in little time

  // Of so many rounds of the full run, at least one of each kind.
  template <typename Round> void run(int full, int kinds, Round round) {
    const int rounds = std::max(kinds, full * setting("PERCENT", 1) / 100);
    for (int number = 0; number < rounds && !HasFailure(); ++number) {
      SCOPED_TRACE(number);
      round(number);
    }
    start();
    check_all(bus);
    EXPECT_GT(acknowledged_, 0);
    std::printf("%d rounds, %d changes acknowledged\n", rounds, acknowledged_);
  }

  int below(int limit) { return static_cast<int>(generator_() % static_cast<unsigned>(limit)); }

  // At a minute of the day of its own, not within the hour from noon, up to 300 days ahead, so that
  // it lasts until it is cancelled.
  timer_arguments any_timer() {
    static constexpr int kTypes[] = {0, 1, 2, 3, 5};
    minute_ = (minute_ + 101) % (23 * 60); // which have no factor in common
    const int at = 86400 * below(300) + 60 * minute_;
    timer_arguments timer =
        arguments_of({kTypes[below(5)], time_text(time_of("16 13:00") + static_cast<unsigned>(at)),
                      below(2) * (1 + below(kDaily)), 0, 0, below(5)});
    timer[TIMER_ARG_DELAY] = below(1000);
    return timer;
  }

  // Nothing when there was no answer.
  std::optional<int> answer_to(bus_client &by, const char *method, std::span<const int> arguments) {
    const message reply = by.try_call(kDaemon, method, arguments);
    acknowledged_ += reply == nullptr ? 0 : 1;
    return reply == nullptr ? std::nullopt : std::optional(int_of(reply));
  }

  bool add_one(bus_client &by) {
    unanswered_add_ = any_timer();
    const auto id = answer_to(by, "schedule_timer", unanswered_add_);
    EXPECT_TRUE(!id ||
                (*id > 0 && book.emplace(*id, row_of(words_of(*id, unanswered_add_))).second));
    return id.has_value();
  }

  bool cancel_one(bus_client &by) {
    unanswered_cancel_ = std::next(book.begin(), below(static_cast<int>(book.size())))->first;
    const auto answer = answer_to(by, "cancel_timer", {&unanswered_cancel_, 1});
    EXPECT_EQ(answer.value_or(0), 0);
    if (answer)
      book.erase(unanswered_cancel_);
    return answer.has_value();
  }

  // False when it was not answered.
  bool change(bus_client &by) {
    const bool cancels = book.size() >= kFullBook || (!book.empty() && below(5) < 2);
    return cancels ? cancel_one(by) : add_one(by);
  }

  static timer_rows listed(bus_client &by) {
    const words list = by.list(kDaemon);
    timer_rows timers;
    for (auto images = std::span(list).subspan(1); images.size() >= TIMER_WORDS;
         images = images.subspan(TIMER_WORDS))
      timers.emplace(images[0], row_of(images));
    EXPECT_EQ(timers.size() * TIMER_WORDS + 1, list.size()) << "an id is listed twice";
    return timers;
  }

  // The list, the rows and the acknowledged changes are the same; the store is sound. A change that
  // was not answered may have been made or not.
  void check_all(bus_client &by) {
    const timer_rows timers = listed(by);
    if (!timers.contains(unanswered_cancel_))
      book.erase(unanswered_cancel_);
    for (const auto &[id, row] : timers)
      if (!book.contains(id) && row == row_of(words_of(id, unanswered_add_)))
        book.emplace(id, row);
    unanswered_cancel_ = 0;
    ASSERT_EQ(text_of(timers), text_of(book));
    ASSERT_EQ(rows(kStored), text_of(timers));
    for (const char *path : {kDravelDbPath, kWakeupDbPath})
      ASSERT_EQ(rows("PRAGMA integrity_check", path), "ok");
  }

  // The first change comes before: a slow machine may make none in that time.
  void change_until_killed(bus_client &by, pid_t victim, int longest_us) {
    EXPECT_TRUE(change(by));
    auto killed = std::async(std::launch::async, [victim, wait = below(longest_us)] {
      usleep(static_cast<unsigned>(wait));
      return kill(victim, SIGKILL);
    });
    while (change(by))
      continue;
    EXPECT_EQ(killed.get(), 0) << "it ended before it was killed";
  }

  timer_rows book; // what a client may rely on while the daemon comes and goes

private:
  std::mt19937 generator_{static_cast<unsigned>(setting("SEED", 1))};
  int minute_ = 0;
  int acknowledged_ = 0;
  timer_arguments unanswered_add_{};
  int unanswered_cancel_ = 0;
};

TEST_F(Endurance, Kills_LoseNothing) {
  run(1000, 3, [this](int) {
    start();
    check_all(bus);
    change_until_killed(bus, bus.pid_of(kDravelBusName), 30000);
    EXPECT_EQ(wait_exit(), -SIGKILL);
  });
}

TEST_F(Endurance, LostBuses_LoseNothing) {
  run(100, 1, [this](int) {
    static constexpr const char *kAddress = "unix:path=/run/bench/short-lived";
    shell(std::string("dbus-daemon --fork --nosyslog --config-file=" BUS_CONFIGURATION
                      " --address=") +
          kAddress);
    bus_client by(kAddress);
    launch(kAddress);
    wait_start(by);
    check_all(by);
    change_until_killed(by, by.pid_of(DBUS_SERVICE_DBUS), 50000);
    EXPECT_EQ(wait_exit(), 0);
  });
}

// --- a disk that is full, read-only or failing ---

enum hindrance { FULL, READ_ONLY, FAILING, kHindrances };

constexpr const char *kFiller = "/opt/dbspace/filler";
constexpr const char *kBackup = "/opt/dbspace/backup";

class SmallDisk : public Endurance {
protected:
  // An ordinary user makes itself the owner of its own mounts first.
  SmallDisk() {
    if (geteuid() != 0) {
      const std::string user = std::to_string(geteuid());
      const std::string group = std::to_string(getegid());
      EXPECT_EQ(unshare(CLONE_NEWUSER | CLONE_NEWNS), 0);
      std::ofstream("/proc/self/uid_map") << user + ' ' + user + " 1";
      std::ofstream("/proc/self/setgroups") << "deny";
      std::ofstream("/proc/self/gid_map") << group + ' ' + group + " 1";
    }
    mount_disk(0);
    std::signal(SIGXFSZ, SIG_IGN); // the daemon inherits it: a failing write is then an error alone
  }

  ~SmallDisk() override { umount2("/opt/dbspace", MNT_DETACH); }

  static void mount_disk(unsigned long flags) {
    EXPECT_EQ(mount("small", "/opt/dbspace", "tmpfs", flags, "size=160k"), 0);
  }
  static void fill() { std::ofstream(kFiller) << std::string(1 << 20, 'x'); }

  void limit_writes(rlim_t bytes) {
    const rlimit limit{bytes, RLIM_INFINITY};
    EXPECT_EQ(prlimit(bus.pid_of(kDravelBusName), RLIMIT_FSIZE, &limit, nullptr), 0);
  }

  bool copies(const char *direction) {
    return bus.is_answered(kDaemon, "request_copy_db",
                           std::string("(") + direction + ", '" + kBackup + "')");
  }

  // While nothing can be written, new timers and periods are refused, and a cancelled timer whose
  // row cannot be deleted is gone until the next start. No copy has room.
  void check_refusing(hindrance by) {
    const std::string stored = rows(kAllRows);
    EXPECT_EQ(bus.call_int(kDaemon, "schedule_timer", any_timer()), -1);
    EXPECT_EQ(bus.call_int(kDaemon, "request_set_disable_period", std::array<int, PERIOD_ARGS>{}),
              -1);
    EXPECT_TRUE(by != FULL || (!copies("0") && !copies("1")));
    const char *why = by == READ_ONLY ? "read-only; make it" : "full; make room";
    for (const char *change : {"dravelctl add --at 7:00", "dravelctl holidays add 12-24"})
      if (by != FAILING) {
        EXPECT_THAT(shell(change).said,
                    HasSubstr(std::string(": the disk of /opt/dbspace is ") + why));
      }
    timer_rows left = book;
    if (!left.empty()) {
      const std::string said =
          shell("dravelctl cancel " + std::to_string(left.begin()->first)).said;
      if (by != FAILING) {
        EXPECT_THAT(said, HasSubstr("may undo this; make "));
      }
      left.erase(left.begin());
    }
    EXPECT_EQ(text_of(listed(bus)), text_of(left));
    EXPECT_EQ(rows(kAllRows), stored);
  }

  // With room again while the daemon runs. No copy damages what is there, nor leaves anything.
  void check_hindered(hindrance by) {
    fs::remove(kFiller);
    for (int left = 1 + below(20); left > 0; --left)
      change(bus);
    fs::create_directory(kBackup);
    EXPECT_TRUE(copies("0"));
    const std::string backup = rows(kAllRows);
    by == FULL ? fill() : limit_writes(0);
    check_refusing(by);
    EXPECT_EQ(rows(kAllRows, "/opt/dbspace/backup/.dravel.db"), backup);
    EXPECT_EQ(shell("find /opt/dbspace -name '.dravel.db.*'").said, "");
    fs::remove(kFiller);
    limit_writes(RLIM_INFINITY);
    bus.cancel(kDaemon, bus.schedule(kDaemon, any_timer()));
  }
};

TEST_F(SmallDisk, ThatFails_RefusesChanges_AndLosesNothing) {
  run(120, kHindrances, [this](int number) {
    const auto by = static_cast<hindrance>(number % kHindrances);
    if (by == READ_ONLY)
      mount_disk(MS_REMOUNT | MS_RDONLY);
    else if (number > 0 && below(2) == 0)
      fill(); // a start without room
    start();
    check_all(bus);
    by == READ_ONLY ? check_refusing(by) : check_hindered(by);
    EXPECT_EQ(stop(), 0);
    mount_disk(MS_REMOUNT);
  });
}

} // namespace
