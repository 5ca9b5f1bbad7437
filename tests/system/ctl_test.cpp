// What a person at the shell gets from dravelctl, held against the daemon's own answers.
#include "daemon.h"

#include <fstream>
#include <functional>
#include <iterator>

#include <gmock/gmock.h>
#include <sys/wait.h>

namespace {

struct outcome {
  int status = -1;
  std::string out;
  std::string err;
};

outcome dravelctl(const std::string &arguments) {
  g_autofree char *out = nullptr;
  g_autofree char *err = nullptr;
  int status = -1;
  const std::string line = std::string(DRAVELCTL) + " " + arguments;
  if (!g_spawn_command_line_sync(line.c_str(), &out, &err, &status, nullptr))
    return {};
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, out, err};
}

class Ctl : public daemon_test {
protected:
  void start() { daemon_test::start("TvClock=1732449600\nRtc=1732449600"); } // 2024-11-24 12:00
};

TEST_F(Ctl, EachCommand_DoesWhatItSays_OrSaysWhatFailed) {
  EXPECT_THAT(dravelctl("list").err, testing::HasSubstr("is not running"));
  start();
  const struct {
    const char *arguments;
    int status;
    const char *said; // in the output, or in the error when the status is not 0
    std::function<bool()> holds;
  } steps[] = {
      {"add --at '2024-11-25 07:00' --type off --priority -3", 0, "Timer 1 is added.",
       [&] {
         return rows("SELECT timer_id, type, priority, tm_mday, tm_hour, tm_wday, tm_yday "
                     "FROM dravel") == "1|1|-3|25|7|1|329";
       }},
      {"add --at 13:30 --on mon,fri --type 2 --holidays skip --clock rtc", 0, "Mon,Fri",
       [&] {
         return rows("SELECT week_flag, disable_period_effect, time_type, tm_hour FROM dravel "
                     "WHERE timer_id = 2") == "34|1|2|13";
       }},
      {"add --at '2024-11-24 11:59'", 1, "refused the timer", nullptr},
      {"add --at '2024-11-24 25:00'", 2, "is no time", nullptr},
      {"add --at 07:00 --on someday", 2, "is not understood", nullptr},
      {"list", 0, "Mon,Fri", nullptr},
      {"list --json", 0, "\"id\": 1", nullptr},
      {"show 1", 0, "powers the set off", nullptr},
      {"show 9", 1, "There is no timer 9", nullptr},
      {"halt off", 0, "Off-timers: halted",
       [&] { return call("request_get_timers_halt_effect", "(0,)") == "(0, 1)"; }},
      {"halt none", 0, "Off-timers: active",
       [&] { return call("request_get_timers_halt_effect", "(0,)") == "(0, 0)"; }},
      {"halt on none", 2, "none stands alone", nullptr},
      {"wakeup", 0, "No timer woke the set.", nullptr},
      {"holidays add 12-24 12-26", 0, "24 Dec to 26 Dec",
       [&] {
         return rows("SELECT start_tm_mon, start_tm_mday, end_tm_mday, end_tm_hour FROM "
                     "disabled_period") == "11|24|26|23";
       }},
      {"holidays add 12-24 01-02", 2, "run over the new year", nullptr},
      {"holidays add 02-20 02-28 --end-of-february", 0, "20 Feb to end of Feb", nullptr},
      {"holidays list", 0, "20 Feb     end of Feb", nullptr},
      {"holidays remove 1", 0, "",
       [&] { return rows("SELECT period_id FROM disabled_period") == "2"; }},
      {"holidays remove 1", 1, "There are no holidays 1", nullptr},
      {"backup /tmp", 0, "/tmp/.dravel.db",
       [&] { return rows("SELECT timer_id FROM dravel", "/tmp/.dravel.db") == "1 2"; }},
      {"backup ''", 2, "is empty", nullptr},
      {"backup /nowhere", 1, "is no directory", nullptr},
      {"backup /proc", 1, "could not back its database up to /proc", nullptr},
      {"cancel 1", 0, "Timer 1 is cancelled.", [&] { return timer_ids() == words{2}; }},
      {"cancel -10", 1, "There is no timer -10",
       [&] { // the daemon lists what only makes sense on a week's days
         return call("schedule_timer", "(10, 127, 0, 0, 2147483647, -2147483648, -2147483648, "
                                       "1, 2, 3, 0, 0, 0, 0, 0)") == "(-10,)";
       }},
      {"show -10", 0, "Set for: 01:02:03", nullptr},
      {"cancel -10", 0, "", nullptr},
      {"holidays ignore 2", 0, "",
       [&] { return rows("SELECT disable_period_effect FROM dravel") == "0"; }},
      {"holidays skip 2", 0, "",
       [&] { return rows("SELECT disable_period_effect FROM dravel") == "1"; }},
      {"restore /tmp", 0, "when the daemon starts next",
       [&] { return rows("SELECT timer_id FROM dravel") == "1 2"; }},
      {"juggle", 2, "There is no command juggle", nullptr},
      {"--timeout 0.0001 list", 2, "from 0.001", nullptr},
      {"", 2, "command missing", nullptr},
  };
  for (const auto &step : steps) {
    SCOPED_TRACE(step.arguments);
    const outcome result = dravelctl(std::string("--timeout 0.5 ") + step.arguments);
    EXPECT_EQ(result.status, step.status);
    EXPECT_THAT(step.status == 0 ? result.out : result.err, testing::HasSubstr(step.said));
    EXPECT_TRUE(!step.holds || step.holds());
  }
}

// On-timers, so that the daemon's own computation shows in what it programs.
TEST_F(Ctl, NextFiring_IsTheOneThatTheDaemonProgrammed) {
  start();
  g_setenv("DRAVELCTL_NOW", "2024-11-24 12:00:00", TRUE); // where the clock stands: a Sunday
  for (const char *days :
       {"11-25 11-26", "11-29 12-31", "01-01 02-27", "02-28 03-31 --end-of-february"})
    EXPECT_EQ(dravelctl(std::string("holidays add ") + days).status, 0);
  for (const char *options :
       {"--at 12:00", "--at 12:00:30", "--at '2025-11-24 11:59:59'", "--at 11:59 --on sun",
        "--at 12:01:45 --on sun", "--at 11:00:45 --on wed", "--at 07:00 --on mon,tue,sat",
        "--at 07:00 --on daily --holidays skip", "--at 07:00 --on fri --holidays skip",
        "--at 07:00 --on mon --type 9 --holidays skip", "--at '2024-11-26 09:00' --holidays skip",
        "--at '2025-02-27 09:00' --holidays skip"}) {
    SCOPED_TRACE(options);
    const std::string added = dravelctl(std::string("add --json ") + options).out;
    const std::string programmed = get("WakeupTime");
    g_autoptr(GDateTime) at = g_date_time_new_from_unix_utc(std::atoll(programmed.c_str() + 7));
    g_autofree char *next = g_date_time_format(at, "\"next\": \"%Y-%m-%dT%H:%M:%S\"");
    EXPECT_THAT(added, testing::HasSubstr(next));
    EXPECT_EQ(dravelctl("cancel " + std::to_string(timer_ids().at(0))).status, 0);
  }
  g_unsetenv("DRAVELCTL_NOW");
}

// In the daemon's place, so that no second has to pass.
TEST_F(Ctl, Monitor_JoinsTheSignalsOfAnExpiry) {
  const std::string name = "org.olvara.tv.system.dravel";
  g_autoptr(GDBusConnection) bus = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
  const auto own = [&](const char *method, GVariant *arguments) {
    g_variant_unref(g_dbus_connection_call_sync(bus, "org.freedesktop.DBus", "/",
                                                "org.freedesktop.DBus", method, arguments, nullptr,
                                                G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr));
  };
  const auto emit = [&](const char *signal, int value) {
    g_dbus_connection_emit_signal(bus, nullptr, "/org/olvara/tv/system/dravel", name.c_str(),
                                  signal, g_variant_new("(i)", value), nullptr);
  };
  own("RequestName", g_variant_new("(su)", name.c_str(), 0));
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
  own("ReleaseName", g_variant_new("(s)", name.c_str()));
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
    EXPECT_THAT(live, testing::HasSubstr(installed.substr(0, installed.find("</node>"))));
  }
}

} // namespace
