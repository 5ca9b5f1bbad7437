// Who may call the daemon: the installed policy on the machine's own kind of system bus, with
// callers of their own user and group.
#include "daemon.h"

#include <fstream>
#include <unistd.h>

namespace {

constexpr const char *kPolicyBus = "unix:path=/run/bench/policy-bus";

// A caller may do what is open to those before it. Every system has these accounts.
enum caller { LOCAL_USER, MEMBER, ROOT, CALLERS };
const char *const kAsCaller[CALLERS] = {"setpriv --reuid=nobody --regid=nogroup --clear-groups ",
                                        "setpriv --reuid=daemon --regid=nogroup --groups=65003 ",
                                        ""};

std::string run(const std::string &line) {
  g_autofree char *out = nullptr;
  g_autofree char *err = nullptr;
  if (!g_spawn_command_line_sync(line.c_str(), &out, &err, nullptr, nullptr))
    return "not started";
  return std::string(out) + err;
}

// A system bus as it is shipped, which knows a group as the installation makes it; the first of a
// name counts, where the machine has one.
std::string start_bus() {
  std::ofstream("/run/bench/group") << "dravel:x:65003:\n" << std::ifstream("/etc/group").rdbuf();
  return run(
      "bwrap --dev-bind / / --ro-bind /run/bench/group /etc/group --tmpfs /etc/dbus-1 "
      "--tmpfs /usr/share/dbus-1/system.d --ro-bind " BUS_POLICY
      " /etc/dbus-1/system.d/dravel.conf dbus-daemon --system --fork --nopidfile --address=" +
      std::string(kPolicyBus));
}

static const std::string kName = "org.olvara.tv.system.dravel ";
static const std::string kService = kName + "/org/olvara/tv/system/dravel " + kName;
static const std::string kState = kName + "/org/olvara/tv/system/dravel/state ";
static const std::string kSet = kName + "/org/olvara/tv/standin ";
static const std::string kIntrospect = "org.freedesktop.DBus.Introspectable Introspect";
static const struct {
  std::string method;
  const char *arguments;
  caller least;
} kCalls[] = {
    {kService + "request_timer_list", " i 0", LOCAL_USER},
    {kService + "dravel_get_timer_by_id", " i 1", LOCAL_USER},
    {kService + "request_wakeup_timer", " i 0", LOCAL_USER},
    {kService + "request_disabled_period_list", " i 0", LOCAL_USER},
    {kService + "request_get_timers_halt_effect", " i 0", LOCAL_USER},
    {kName + "/org/olvara/tv/system/dravel " + kIntrospect, "", LOCAL_USER},
    {kState + kIntrospect, "", LOCAL_USER},
    {kState + "org.freedesktop.DBus.Properties GetAll", " s org.olvara.tv.system.dravel.state",
     LOCAL_USER},
    {kState + "org.freedesktop.DBus.Properties Get", " ss org.olvara.tv.system.dravel.state Armed",
     LOCAL_USER},
    {kService + "schedule_timer", " iiiiiiiiiiiiiii 0 0 0 0 99 0 1 0 0 0 0 0 0 0 0", MEMBER},
    {kService + "cancel_timer", " i 1", MEMBER},
    {kService + "request_halt_ontimers", " i 0", MEMBER},
    {kService + "request_halt_offtimers", " i 0", MEMBER},
    {kService + "request_set_disable_period",
     " iiiiiiiiiiiiiiiiiiii 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0", MEMBER},
    {kService + "request_remove_disabled_period", " i 9", MEMBER},
    {kService + "request_set_disable_period_effect", " ii 1 1", MEMBER},
    {kService + "request_copy_db", " is 0 /run/bench", ROOT},
    {kSet + kIntrospect, "", ROOT},
    {kSet + "org.olvara.tv.standin TimeSet", "", ROOT},
    {kSet + "org.freedesktop.DBus.Properties GetAll", " s org.olvara.tv.standin", ROOT},
    {"org.freedesktop.DBus / org.freedesktop.DBus RequestName", " su org.olvara.tv.system.dravel 0",
     ROOT},
};

class Policy : public daemon_test {};

TEST_F(Policy, LocalUsersLook_TheGroupChanges_RootAloneCopies) {
  if (getuid() != 0)
    GTEST_SKIP() << "only root can call as other users: run this test as root";
  ASSERT_EQ(start_bus(), "");
  launch(kPolicyBus, "");
  wait_log("end scheduling...");

  const std::string unreadable = "failed to get dbus message args";
  for (const auto &call : kCalls)
    for (int who = LOCAL_USER; who < CALLERS; ++who) {
      SCOPED_TRACE(kAsCaller[who] + call.method);
      const bool allowed = who >= call.least;
      // A refused call is one that the daemon could not have read without complaint.
      const bool ours = call.method.find(kService) == 0;
      const std::string said =
          run(kAsCaller[who] + ("busctl --address=" + std::string(kPolicyBus)) + " call " +
              call.method + (allowed || !ours ? call.arguments : " s refused"));
      EXPECT_EQ(said.find("denied") != std::string::npos, !allowed) << said;
      EXPECT_EQ(said.find("failed") != std::string::npos, !allowed) << said;
    }
  // The checkout may lie below a directory that only its owner may enter.
  ASSERT_EQ(run("install -m 755 " DRAVELCTL " /run/bench/dravelctl"), "");
  EXPECT_NE(run(kAsCaller[LOCAL_USER] + ("env DBUS_SYSTEM_BUS_ADDRESS=" + std::string(kPolicyBus)) +
                " /run/bench/dravelctl halt on")
                .find("only root and the members of the group dravel may"),
            std::string::npos);
  EXPECT_EQ(times_logged(unreadable), 0);
  run("busctl --address=" + std::string(kPolicyBus) + " call " + kService +
      "request_halt_ontimers s x");
  wait_log(unreadable);
  EXPECT_EQ(times_logged(unreadable), 1);
}

} // namespace
