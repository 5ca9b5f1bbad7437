// What a person at the shell gets from dravelctl, and from the clients that docs/client.md gives.
#include "daemon.h"

#include <gmock/gmock.h>

#include <csignal>
#include <fstream>
#include <iterator>
#include <sys/wait.h>

namespace {

using testing::HasSubstr;

constexpr const char *kShell = "PATH=$(dirname " DRAVELCTL "):$PATH TZ=UTC LC_ALL=C.UTF-8\n"
                               "export PATH TZ LC_ALL\ncd /tmp\nexec 2>&1\n"
                               "ctl() { dravelctl --timeout ${wait:-9} \"$@\"; }\n"
                               "lose_clock() { busctl set-property org.olvara.tv.system.dravel "
                               "/org/olvara/tv/standin org.olvara.tv.standin TvClock u 0; }\n"
                               "daemon_pid() { gdbus call --system -d org.freedesktop.DBus -o / -m "
                               "org.freedesktop.DBus.GetConnectionUnixProcessID "
                               "org.olvara.tv.system.dravel | sed 's/.* //; s/,)//'; }\n";

struct outcome {
  int status = -1;
  std::string said; // on standard output and error
};

outcome shell(const std::string &script) {
  std::FILE *pipe = popen((kShell + script).c_str(), "r");
  outcome result;
  char piece[4096];
  while (const std::size_t size = std::fread(piece, 1, sizeof piece, pipe))
    result.said.append(piece, size);
  const int status = pclose(pipe);
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return result;
}

struct step {
  const char *given; // what went before, in shell
  const char *line;
  int status;
  const char *said;
  const char *not_said = "\n\n\n";
};

class Ctl : public daemon_test {
protected:
  // Each step on a daemon of its own.
  template <std::size_t N> void check(const step (&steps)[N]) {
    for (const step &step : steps) {
      SCOPED_TRACE(step.line);
      ASSERT_EQ(shell("rm -rf /opt/dbspace/.[a-z]* /tmp/[a-z]* /tmp/.[a-z]*").status, 0);
      start();
      const outcome given = shell(step.given);
      EXPECT_EQ(given.status, 0) << given.said;
      const outcome result = shell(step.line);
      EXPECT_EQ(result.status, step.status) << result.said;
      EXPECT_THAT(result.said, HasSubstr(step.said));
      EXPECT_THAT(result.said, testing::Not(HasSubstr(step.not_said)));
      EXPECT_EQ(stop(), 0);
    }
  }
};

TEST_F(Ctl, Times_AreUnderstoodAsPeopleWriteThem_OrRefusedWithWhatWouldBeRight) {
  check({
      {"", "ctl add --at 7:00", 0, "Next firing: Wed 2026-12-16 07:00:00, in 19 hours", "Note"},
      {"", "ctl add --at 19:30:15 --type off", 0, "Tue 2026-12-15 19:30:15"},
      {"", "ctl add --at 'tomorrow 7:00'", 0, "Wed 2026-12-16 07:00:00"},
      {"", "ctl add --at 'fri 20:00'", 0, "Fri 2026-12-18 20:00:00"},
      {"", "ctl add --at 'Tuesday 11:00'", 0, "Tue 2026-12-22 11:00:00"},
      {"", "ctl add --at 'today 13:00'", 0, "Tue 2026-12-15 13:00:00"},
      {"", "ctl add --at +1h45m", 0, "13:45:00, in 105 minutes"},
      {"", "ctl add --at 2026-12-24T18:00", 0, "moves this timer to the next 18:00"},
      {"", "ctl add --at 7:00 --on mon-fri", 0, "Days: weekdays"},
      {"", "ctl add --at 7:00 --on monday --on sat-sun", 0, "Days: Mon,Sat,Sun"},
      {"", "ctl add --at 25:00", 2, "--at=25:00 is no time; write 7:00"},
      {"", "ctl add --at '2026-14-24 18:00'", 2, "is no time"},
      {"", "ctl add --at 7:00 --on someday", 2, "--on=someday is not understood; write mon"},
      {"", "ctl add --at 7:00 --type 300", 2, "--type=300 is not understood"},
      {"", "ctl add --at 7:00 --priority high", 2, "--priority=high is not understood"},
      {"", "ctl add --at 7:00 --priority +5", 0, "Priority: 5"},
      {"", "ctl add --at 7:00 --on once --on mon", 2, "--on=once goes with no other --on"},
      {"", "ctl add --at \"$(printf '7:00\\n\\033[m')\"", 2, "--at=7:00??[m is no time"},
      {"lose_clock", "ctl add --at +45m", 0, "+45m is counted from this machine's clock, "},
      {"", "ctl add", 2, "add needs --at"},
      {"", "ctl holidays add 12-24 01-02", 2, "run over the new year"},
      {"", "ctl holidays add 02-20 02-28 --end-of-february", 0, "20 Feb to end of Feb"},
  });
}

TEST_F(Ctl, Add_TellsWhyATimerIsRefused_AndWhatBecomesOfOneThatIsNot) {
  check({
      {"", "ctl add --at '2026-12-15 11:59'", 1, "has passed: the set's clock reads Tue"},
      {"", "ctl add --at '2026-12-15 12:00:30'", 1, "on-timers ignore seconds"},
      {"", "ctl add --at '2028-01-01 07:00'", 1, "is more than 365 days ahead"},
      {"ctl holidays add 01-01 12-31", "ctl add --at 7:00 --on daily --holidays skip", 1,
       "holidays cover every day"},
      {"ctl add --at 7:05", "ctl add --at 7:00 --type standby", 1, "a standby timer is then left"},
      {"ctl add --at 7:00", "ctl add --at 7:00", 0, "Timer 1 is for the same second"},
      {"ctl holidays add 12-16", "ctl add --at 7:00:30 --holidays skip", 0,
       "Holidays move it from Wed 2026-12-16 07:00:30 to Thu 2026-12-17 07:00:00."},
      {"ctl add --at '2026-12-24 18:00'", "ctl holidays add 12-26", 0,
       "Timer 1 is now armed for Tue 2026-12-15 18:00:00; it was armed for Thu 2026-12-24 18"},
      {"for i in $(seq 80); do ctl add --at 7:00 --on mon >&2; done; ctl add --at 8:00 --force",
       "ctl add --at 8:00", 1, "timer 2 (on, Mon) would be removed"},
      {"mkdir b; ctl backup b; ctl restore b", "ctl add --at 7:00", 1,
       "refused the timer; its log"},
      {"for i in $(seq 80); do ctl add --at 7:00 --on mon >&2; done", "ctl change 50 --on tue", 1,
       "would be removed to make room; cancel timer 50 first"},
      {"ctl add --at 7:00 --on daily", "ctl holidays add 01-01 12-31 && ctl holidays skip 1", 0,
       "Timer 1 is now removed; it was armed for Wed 2026-12-16 07:00:00."},
      {"ctl add --at 7:00 --type off", "ctl add --at 7:00", 0,
       "Note: It is not armed: off-timer 1 is set for the same time."},
      {"ctl add --at 7:00 --on mon", "ctl add --at 7:00 --on daily", 0,
       "Timer 1 is for the same second, Mon 2026-12-21 07:00:00"},
      {"ctl add --at 7:00 --on mon --type off --priority -3", "ctl change 1 --at 8:15 --on tue", 0,
       "Timer 2 takes the place of timer 1."},
      {"ctl add --at 7:00 --type off --priority -3; ctl change 1 --on tue", "ctl list -j", 0,
       R"("at":"2026-12-22T07:00:00+00:00","at_seconds":1797922800,"days":["Tue"],"priority":-3)",
       R"("id":1)"},
      {"ctl add --at 7:00", "ctl change 1 --at '2026-12-14 7:00'; ctl show 1", 0, "Set for: Wed"},
      {"ctl add --at 7:00; ctl add --at 8:00; ctl add --at 9:00", "ctl cancel 1 3; ctl list", 0,
       "\n2   on", "\n1 "},
      {"ctl add --at 7:00", "ctl cancel 1 9", 1, "there is no timer 9", "is cancelled"},
      {"ctl add --at 7:00", "ctl holidays skip 1 9", 1, "there is no timer 9", "skips"},
      {"ctl holidays add 12-24", "ctl holidays remove 1 9", 1, "no holidays 9", "are removed"},
      {"", "ctl holidays remove x", 2, "x is no id; dravelctl holidays list shows the ids"},
      {"ctl add --at 7:00 --type 10", "ctl cancel -10 --json", 0, R"({"cancelled":-10})"},
      {"", "ctl -j holidays add -- 12-24 12-26", 0, R"("first":{"month":12,"day":24,)"},
  });
}

TEST_F(Ctl, TheState_IsShownAndExplained) {
  constexpr const char *kThree = "ctl holidays add 12-17 12-18; ctl add --at 19:00 --type off\n"
                                 "ctl add --at 7:00 --on mon-fri --holidays skip\n"
                                 "ctl add --at '2026-12-24 18:00'; ctl halt off";
  check({
      {"", "ctl", 0, "Clock: Tue 2026-12-15 12:00:00 (UTC, UTC+00:00), confirmed\n"},
      {kThree, "ctl status", 0, "in 7 hours, halted: timer 1 (off, once)\n   Wakes for: timer 2, "},
      {kThree, "ctl status -j", 0, R"("halted":{"on":false,"off":true},"timers":3,"limit":80,)"},
      {kThree, "ctl list", 0, "in 7 hours, halted  once"},
      {kThree, "ctl explain 1", 0, "Off-timers are halted: it is announced and does nothing else."},
      {kThree, "ctl explain 2", 0,
       "Tue 2026-12-15 is passed over: its time of day has passed.\n"
       "Thu 2026-12-17 to Fri 2026-12-18 are passed over: holidays 1.\n"
       "It fires next on Wed 2026-12-16 07:00:00, in 19 hours.\n"
       "After that it fires on Mon 2026-12-21 07:00:00, Tue"},
      {kThree, "ctl explain 3", 0,
       "Timer 1 fires before it, on Tue 2026-12-15 19:00:00, and moves it to Wed 2026-12-16 18:00"},
      {"ctl add --at 7:00 --on mon; ctl add --at 7:00 --on sat-mon", "ctl explain 1", 0,
       "Mon 2026-12-21 to Mon 2027-01-18 are passed over: timer 2 at the same time goes first.\n"
       "It is armed for Mon 2026-12-21 07:00:00, in 5 days.\n"
       "It does not fire in the coming five weeks."},
      {"ctl add --at 7:00 --on daily; ctl add --at 7:00 --priority 1", "ctl explain -j 1", 0,
       R"("following":[{"at":"2026-12-17T07:00:00+00:00")"},
      {"ctl add --at 13:00; ctl add --at 14:00; ctl add --at '2026-12-17 14:00'", "ctl explain 3",
       0, "Timer 2 fires before it, on Tue 2026-12-15 14:00:00, and removes it."},
      {"ctl add --at 7:00 --on daily --holidays skip; ctl add --at 8:00; ctl holidays add 12-16 "
       "12-18",
       "ctl list", 0, "ignore    broadcast\n1 "},
      {kThree, "ctl explain", 0, "for timer 2: it is the earliest on-timer."},
      {"lose_clock; ctl add --at 0:00 --on daily", "ctl explain 1", 0,
       " is set for 00:00.\nIt is not armed: the set's clock is unknown."},
      {"ctl add --at 7:00 --type off; ctl add --at 7:00", "ctl explain 2", 0,
       "It is not armed: off-timer 1 is set for the same time."},
      {kThree, "ctl week", 0, "Wed 2026-12-16 ··············▲·····················▲···········\n"},
      {"ctl add --at 12:10", "ctl halt both; ctl week", 0,
       "Tue 2026-12-15 ·······················│○···"},
      {kThree, "LC_ALL=C ctl week", 0, "Thu 2026-12-17 ##############################"},
      {kThree, "ctl week --json", 0, R"([{"id":1,"type_name":"off","at":"2026-12-15T19:00:00+00)"},
      {"", "ctl explain 9", 1, "there is no timer 9"},
      {"", "ctl wakeup", 0, "No timer woke the set."},
      {"", "ctl halt on none", 2, "none without on or off"},
  });
}

TEST_F(Ctl, Copies_AreCheckedBeforeTheyReplaceAnother) {
  constexpr const char *kTwo = "mkdir b; ctl add --at 7:00; ctl backup b; ctl add --at 8:00\n";
  check({
      {kTwo, "ctl backup b; sqlite3 b/.dravel.db.1 'SELECT timer_id FROM dravel'", 0,
       "The backup before is in /tmp/b/.dravel.db.1.\n1\n", "1\n2"},
      {kTwo, "echo junk >b/.dravel.db; ctl backup b; ls -A b", 0, ".dravel.db\n", ".dravel.db.1"},
      {kTwo, "echo junk >b/.dravel.db; ctl restore b", 1, "is no SQLite database"},
      {kTwo, "sqlite3 b/.dravel.db 'DROP TABLE dravel'; ctl restore b", 1, "no such table: dravel"},
      {kTwo, "sqlite3 b/.dravel.db 'ALTER TABLE dravel DROP tm_hour'; ctl restore b", 1,
       "no such column: tm_hour"},
      {"mkdir b; mkfifo b/.dravel.db", "timeout 5 dravelctl restore b", 1, "is no regular file"},
      {"mkdir b; mkfifo b/.dravel.db", "timeout 5 dravelctl backup b", 0, "The timers are in"},
      {"mkdir -p b/.dravel.db.new; touch b/.dravel.db.new/x", "ctl backup b; ls -A b", 0,
       "\n.dravel.db\n", ".new"},
      {"mkdir b; rm /opt/dbspace/.dravel.db", "wait=0.5; ctl backup b", 1,
       "database up to /tmp/b, where "},
      {kTwo, "sqlite3 b/.dravel.db 'PRAGMA user_version=2'; ctl restore b", 1, "newer version 2"},
      {kTwo, "printf x | dd of=b/.dravel.db bs=1 seek=4096 conv=notrunc; ctl restore b", 1,
       "is damaged"},
      {kTwo, "ctl restore b; sqlite3 /opt/dbspace/.dravel.db 'SELECT timer_id FROM dravel'", 0,
       "when the daemon starts next", "1\n2"},
      {"mkdir b s; ctl backup b; printf '#!/bin/sh\\necho $* >asked' >s/systemctl; chmod +x s/*",
       "PATH=$PWD/s:$PATH ctl restore b --restart; cat asked", 0, "restart dravel-manager.service"},
      {"mkdir b", "ctl restore b", 1, "/tmp/b/.dravel.db cannot be read: No such file"},
      {"", "ctl restore $(printf %0300d)", 1, "0 is no directory: File name too long"},
      {"ln -s l l", "ctl restore l", 1, "is no directory: Too many levels of symbolic links"},
      {"", "ctl import /tmp", 1, "cannot read /tmp: Is a directory"},
      {"", "ctl backup ''", 2, "is empty"},
      {"", "ctl backup /nowhere", 1, "/nowhere is no directory"},
      {"", "ctl backup /proc", 1, "cannot write to /proc"},
      {"ctl add --at 7:00 --on mon; ctl holidays add 12-24 12-26; ctl export >x; ctl cancel 1",
       "ctl import x && ctl list", 1, "1 added, 1 refused.\nholidays[0]: they are there already"},
      {"", "echo '{\"timers\":[{\"type\":0,\"at\":\"2026-12-14T07:00:00\"}]}' | ctl import -", 1,
       "timers[0]: not added: Mon 2026-12-14 07:00:00 has passed"},
      {"", "echo x | ctl import -", 1, "standard input is no JSON"},
      {"", "echo '{\"timers\":5}' | ctl import -", 1, "timers is 5; it must be a list"},
  });
}

TEST_F(Ctl, AFileWithAFault_IsNotImported) {
  start();
  shell("ctl add --at 7:00 --on mon; ctl holidays add 12-24; ctl export >x\n"
        "ctl cancel 1; ctl holidays remove 1");
  static constexpr struct {
    const char *edit, *said;
  } kFaults[] = {
      {"s/\"priority\": 0/\"priority\": \"high\"/",
       "timers[0].priority is \"high\"; it must be a whole number from -2147483648 to 2147483647"},
      {"s/\"type\": 0/\"type\": 255/",
       "timers[0].type is 255; it must be a whole number from 0 to 254"},
      {"s/\"delay\": 0/\"delay\": 1.5/", "timers[0].delay is 1.5; it must be a whole number from "
                                         "-2147483648 to 2147483647"},
      {"s/\"Mon\"/7/", "timers[0].days is 7; it must be a list such as [\"Mon\",\"Fri\"]"},
      {"s/\"at\": \"/&1/", "timers[0].at is \"12026-12-21T07:00:00+00:00\"; it must be such as "
                           "2026-12-24T07:00:00"},
      {"s/0+00:00/0x/",
       "timers[0].at is \"2026-12-21T07:00:00x\"; it must be such as 2026-12-24T07:00:00"},
      {"s/ignore/ignored/", "timers[0].holidays is \"ignored\"; it must be skip or ignore"},
      {"s/\"priority\"/\"prio\"/",
       "timers[0] has a field prio, which dravelctl export does not write"},
      {"s/\"type\": 0,//", "timers[0] has no type"},
      {"s/\"month\": 12/\"month\": 11/; s/\"day\": 24/\"day\": 31/",
       "holidays[0].first.day is 31; it must be a day of that month"},
      {"s/\"day\": 24/\"day\": {}/",
       "holidays[0].first.day is an object; it must be a whole number from 1 to 31"},
      {"s/february\": false/february\": 0/",
       "holidays[0].first.end_of_february is 0; it must be true or false"},
      {"0,/24/s//25/", "holidays[0] runs over the new year and matches no day"},
  };
  for (const auto &[edit, said] : kFaults)
    EXPECT_EQ(shell(std::string("sed '") + edit + "' x | ctl import -; ctl holidays").said,
              std::string("dravelctl: standard input: ") + said +
                  "; nothing is imported\nNo holidays.\n");
}

TEST_F(Ctl, WhatKeepsItFromWorking_IsSaid) {
  check({
      {"", "ctl juggle", 2, "there is no command juggle; dravelctl help lists"},
      {"", "ctl list foo", 2, "list does not take foo; write it as in dravelctl list --json"},
      {"", "ctl holidays add --foo=5", 2, "no option --foo of holidays add; dravelctl help holi"},
      {"", "ctl --on mon add", 2, "--on stands before add; write it behind add"},
      {"", "ctl show", 2, "show needs ID; write it as in dravelctl show 3"},
      {"", "ctl show 1 2", 2, "show does not take 2; write it as in"},
      {"", "ctl add --at", 2, "--at needs TIME; 7:00, "},
      {"", "ctl add --at 7:00 --at 8:00", 2, "--at=8:00 is one too many; give one --at"},
      {"", "ctl list --json=5", 2, "--json takes no value; write --json alone"},
      {"", "dravelctl --timeout 0 list", 2, "from 0.001"},
      {"", "ctl list >/dev/full", 1, "No space left on device"},
      {"", "ctl list >&-", 1, "cannot write the output"},
      {"", "ctl add --at 7:00 >/dev/full; ctl list", 0,
       "is carried out, but dravelctl cannot write"},
      {"mkfifo p", "exec 3<>p 4>p 3>&-; ctl help >&4", 1, "Broken pipe"},
      {"", "ctl -- show 1", 2, "write the command before --"},
      {"kill -STOP $(daemon_pid)",
       "wait=0.5; ctl; status=$?; kill -CONT $(daemon_pid); exit $status", 1,
       "did not answer within 0.5 seconds"},
  });
  EXPECT_THAT(shell("ctl list").said, HasSubstr("dravel-manager is not running"));
}

TEST_F(Ctl, EveryExample_IsUnderstood) {
  start();
  shell("mkdir /var/backups /run/backups; ctl export >timers.json; ctl add --at 7:00");
  const outcome examples =
      shell("for command in $(dravelctl help | sed -n '/^Subcommands/,$ s/^  \\([a-z]*\\) "
            ".*/\\1/p'); do\n"
            "  echo \"$command: $(dravelctl help $command | sed -n 's/^Example: //p')\"; done");
  std::istringstream lines(examples.said);
  int count = 0;
  for (std::string line; std::getline(lines, line); ++count) {
    std::string example = line.substr(line.find(": ") + 2);
    EXPECT_TRUE(example.starts_with("dravelctl")) << line;
    if (!example.starts_with("dravelctl monitor")) {
      EXPECT_NE(shell(example).status, 2) << example;
    }
  }
  EXPECT_EQ(count, 17);
}

// In the daemon's place: an older one, and one whose signals come at once.
class CtlWithout : public daemon_test {
protected:
  CtlWithout() { own("RequestName", g_variant_new("(su)", kName, 0)); }
  ~CtlWithout() override { own("ReleaseName", g_variant_new("(s)", kName)); }
  void own(const char *method, GVariant *arguments) {
    g_variant_unref(g_dbus_connection_call_sync(bus_, "org.freedesktop.DBus", "/",
                                                "org.freedesktop.DBus", method, arguments, nullptr,
                                                G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr));
  }
  void emit(const char *signal, int value) {
    g_dbus_connection_emit_signal(bus_, nullptr, "/org/olvara/tv/system/dravel", kName, signal,
                                  g_variant_new("(i)", value), nullptr);
  }

private:
  static constexpr const char *kName = "org.olvara.tv.system.dravel";
  GDBusConnection *bus_ = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
};

TEST_F(CtlWithout, AnOlderDaemon_IsSaidToBeOlder) {
  EXPECT_THAT(shell("ctl").said, HasSubstr("this dravel-manager is older than dravelctl"));
}

TEST_F(CtlWithout, Monitor_JoinsTheSignalsOfAnExpiry) {
  std::FILE *monitor = popen(DRAVELCTL " monitor --count 2 2>&1", "r");
  char line[128] = "";
  EXPECT_STREQ(std::fgets(line, sizeof line, monitor),
               "dravel-manager is running; Ctrl-C ends the monitor.\n");
  emit("dravel_type_expired", 9); // the rest of it came too early
  for (const int id : {7, -10}) {
    emit("dravel_week_flag_expired", id > 0 ? 0x22 : 0);
    emit("dravel_expired", id);
    emit("dravel_type_expired", id > 0 ? 1 : 10);
  }
  EXPECT_THAT(std::fgets(line, sizeof line, monitor),
              testing::EndsWith("timer 7 expired: off, Mon,Fri\n"));
  EXPECT_THAT(std::fgets(line, sizeof line, monitor),
              testing::EndsWith("timer -10 expired: transient-off, once\n"));
  EXPECT_EQ(pclose(monitor), 0);
}

TEST_F(Ctl, Monitor_TellsEveryChange) {
  start();
  std::FILE *monitor = popen("echo $$; exec " DRAVELCTL " monitor --json 2>&1", "r");
  char line[1024] = "";
  EXPECT_NE(std::fgets(line, sizeof line, monitor), nullptr);
  const int pid = std::atoi(line);
  EXPECT_NE(std::fgets(line, sizeof line, monitor), nullptr); // it listens
  std::string heard;
  const auto hear = [&](const char *last) {
    const std::size_t before = heard.size();
    do
      heard += std::fgets(line, sizeof line, monitor) != nullptr ? line : last;
    while (heard.find(last, before) == std::string::npos);
  };
  shell("ctl add --at 13:00 --on tue; ctl halt on; ctl cancel 1; ctl add --at 14:00");
  hear(R"("event":"wakeup","id":2)");
  shell("ctl cancel 2");
  hear(R"("event":"wakeup","id":0)");
  for (const char *event :
       {R"("event":"added","id":1,"timer":{"id":1)", R"("event":"added","id":2)",
        R"("event":"halts","on":true)", R"("event":"removed","id":1,"why":"cancelled")",
        R"("event":"wakeup","id":0,"at":null)"})
    EXPECT_THAT(heard, HasSubstr(event));
  kill(pid, SIGTERM);
  while (std::fgets(line, sizeof line, monitor) != nullptr) {
  }
  EXPECT_EQ(pclose(monitor), 0);
}

// The code of docs/client.md, as it stands there.
TEST_F(Ctl, TheDocumentedClients_Work) {
  start();
  const std::string code = "sed -n '/^```%/,/^```$/ { /^```/ !p }' " CLIENT_DOC " >client.%\n";
  const auto extract = [&](const std::string &language) {
    std::string script = code;
    for (auto at = script.find('%'); at != std::string::npos; at = script.find('%'))
      script.replace(at, 1, language);
    return script;
  };
  const outcome python = shell(extract("python") + "/usr/bin/python3 client.python");
  EXPECT_EQ(python.said, "timer 1, type 1, fires at 1797339600\n");
  const outcome c = shell(extract("c") + "cc -x c client.c -x none -I" INCLUDE_DIR
                                         " -o client $(pkg-config --cflags --libs gio-2.0) && "
                                         "./client");
  EXPECT_THAT(c.said, HasSubstr("timer 2, fires at 1797339600\n"));
}

// But for the names of the arguments, which the wire does not know.
TEST_F(Ctl, Introspection_IsWhatIsInstalled) {
  start();
  for (const auto &[object, xml] : {std::pair{"", ".xml"}, std::pair{"/state", ".state.xml"}}) {
    g_autofree char *live = nullptr;
    ASSERT_TRUE(g_spawn_command_line_sync(
        ("busctl --system --xml-interface introspect org.olvara.tv.system.dravel "
         "/org/olvara/tv/system/dravel" +
         std::string(object))
            .c_str(),
        &live, nullptr, nullptr, nullptr));
    std::ifstream file(INTROSPECTION_XML + std::string(xml));
    std::string installed{std::istreambuf_iterator<char>(file), {}};
    const std::string named = "<arg name=\"";
    for (auto at = installed.find(named); at != std::string::npos; at = installed.find(named, at))
      installed.erase(at + 4, installed.find('"', at + named.size()) - at - 3);
    installed.erase(0, installed.find(" <interface name=\"org.olvara"));
    ASSERT_NE(installed, "");
    EXPECT_THAT(live, HasSubstr(installed.substr(0, installed.find("</node>"))));
  }
}

} // namespace
