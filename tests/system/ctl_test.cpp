// What a person at the shell gets from dravelctl, held against the daemon's own answers.
#include "daemon.h"

#include <fstream>
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

class Ctl : public daemon_test {};

TEST_F(Ctl, EachCommand_DoesWhatItSays_OrSaysWhatFailed) {
  EXPECT_EQ(dravelctl("list").status, 1);
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
      {"wakeup", 0, "No timer woke the set.", nullptr},
      {"holidays add 12-24 12-26", 0, "24 Dec to 26 Dec",
       [&] {
         return rows("SELECT start_tm_mon, start_tm_mday, end_tm_mday, end_tm_hour FROM "
                     "disabled_period") == "11|24|26|23";
       }},
      {"holidays add 12-24 01-02", 2, "run over the new year", nullptr},
      {"holidays list", 0, "24 Dec", nullptr},
      {"holidays remove 1", 0, "", [&] { return rows("SELECT * FROM disabled_period").empty(); }},
      {"holidays remove 1", 1, "There are no holidays 1", nullptr},
      {"backup /tmp", 0, "/tmp/.dravel.db",
       [&] { return rows("SELECT timer_id FROM dravel", "/tmp/.dravel.db") == "1 2"; }},
      {"backup /nowhere", 1, "is no directory", nullptr},
      {"backup /proc", 1, "could not back its database up to /proc", nullptr},
      {"cancel 1", 0, "Timer 1 is cancelled.", [&] { return timer_ids() == words{2}; }},
      {"cancel 1", 1, "There is no timer 1", nullptr},
      {"restore /tmp", 0, "when the daemon starts next", nullptr},
      {"juggle", 2, "There is no command juggle", nullptr},
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

TEST_F(Ctl, Introspection_IsWhatIsInstalled) {
  start();
  g_autofree char *live = nullptr;
  ASSERT_TRUE(g_spawn_command_line_sync(
      "busctl --system --xml-interface introspect org.olvara.tv.system.dravel "
      "/org/olvara/tv/system/dravel",
      &live, nullptr, nullptr, nullptr));
  std::ifstream file(INTROSPECTION_XML);
  const std::string installed{std::istreambuf_iterator<char>(file), {}};
  const auto shape = [](const std::string &xml) {
    strings members;
    GDBusNodeInfo *node = g_dbus_node_info_new_for_xml(xml.c_str(), nullptr);
    const GDBusInterfaceInfo *interface =
        node ? g_dbus_node_info_lookup_interface(node, "org.olvara.tv.system.dravel") : nullptr;
    const auto arguments = [](GDBusArgInfo **list) {
      std::string types;
      for (; list && *list; ++list)
        types += (*list)->signature;
      return types;
    };
    for (auto **method = interface ? interface->methods : nullptr; method && *method; ++method)
      members.push_back(std::string((*method)->name) + "(" + arguments((*method)->in_args) + ")" +
                        arguments((*method)->out_args));
    for (auto **signal = interface ? interface->signals : nullptr; signal && *signal; ++signal)
      members.push_back(std::string((*signal)->name) + ":" + arguments((*signal)->args));
    g_clear_pointer(&node, g_dbus_node_info_unref);
    return members;
  };
  EXPECT_EQ(shape(live), shape(installed));
  EXPECT_EQ(shape(live).size(), 16U); // thirteen methods, three signals
}

} // namespace
