// Who may call the daemon: the installed policy on the machine's own kind of system bus, with
// callers of their own user and group.
#include "daemon.h"

#include <fstream>
#include <unistd.h>

namespace {

#define POLICY_BUS "unix:path=/run/bench/policy-bus"

// A caller may do what is open to those before it. Every system has these accounts.
enum caller { LOCAL_USER, MEMBER, ROOT, CALLERS };
const char *const kAsCaller[CALLERS] = {"setpriv --reuid=nobody --regid=nogroup --clear-groups ",
                                        "setpriv --reuid=daemon --regid=nogroup --groups=65003 ",
                                        ""};

// A system bus as it is shipped, which knows a group as the installation makes it; the first of a
// name counts, where the machine has one.
outcome start_bus() {
  std::ofstream("/run/bench/group") << "dravel:x:65003:\n" << std::ifstream("/etc/group").rdbuf();
  return shell("bwrap --dev-bind / / --ro-bind /run/bench/group /etc/group --tmpfs /etc/dbus-1 "
               "--tmpfs /usr/share/dbus-1/system.d --ro-bind " BUS_POLICY
               " /etc/dbus-1/system.d/dravel.conf "
               "dbus-daemon --system --fork --nopidfile --address=" POLICY_BUS);
}

const std::string kNames = "name=org.olvara.tv.system.dravel\n"
                           "path=/org/olvara/tv/system/dravel\n"
                           "service=\"$name $path $name\"\n"
                           "state=\"$name $path/state\"\n"
                           "set=\"$name /org/olvara/tv/standin\"\n"
                           "introspect=org.freedesktop.DBus.Introspectable\\ Introspect\n"
                           "properties=org.freedesktop.DBus.Properties\n";
const struct {
  caller least;
  const char *method;
} kCalls[] = {
    {LOCAL_USER, "$service request_timer_list i 0"},
    {LOCAL_USER, "$service dravel_get_timer_by_id i 1"},
    {LOCAL_USER, "$service request_wakeup_timer i 0"},
    {LOCAL_USER, "$service request_disabled_period_list i 0"},
    {LOCAL_USER, "$service request_get_timers_halt_effect i 0"},
    {LOCAL_USER, "$name $path $introspect"},
    {LOCAL_USER, "$state $introspect"},
    {LOCAL_USER, "$state $properties GetAll s $name.state"},
    {LOCAL_USER, "$state $properties Get ss $name.state Armed"},
    {MEMBER, "$service schedule_timer iiiiiiiiiiiiiii 0 0 0 0 99 0 1 0 0 0 0 0 0 0 0"},
    {MEMBER, "$service cancel_timer i 1"},
    {MEMBER, "$service request_halt_ontimers i 0"},
    {MEMBER, "$service request_halt_offtimers i 0"},
    {MEMBER, "$service request_set_disable_period iiiiiiiiiiiiiiiiiiii $(yes 0 | head -20)"},
    {MEMBER, "$service request_remove_disabled_period i 9"},
    {MEMBER, "$service request_set_disable_period_effect ii 1 1"},
    {ROOT, "$service request_copy_db is 0 /run/bench"},
    {ROOT, "$set $introspect"},
    {ROOT, "$set org.olvara.tv.standin TimeSet"},
    {ROOT, "$set $properties GetAll s org.olvara.tv.standin"},
    {ROOT, "org.freedesktop.DBus / org.freedesktop.DBus RequestName su $name 0"},
};

class Policy : public daemon_test {};

TEST_F(Policy, LocalUsersLook_TheGroupChanges_RootAloneCopies) {
  if (getuid() != 0)
    GTEST_SKIP() << "only root can call as other users: run this test as root";
  ASSERT_EQ(start_bus().said, "");
  launch(POLICY_BUS);
  wait_log("end scheduling...");
  for (const auto &[least, method] : kCalls)
    for (int who = LOCAL_USER; who < CALLERS; ++who)
      EXPECT_THAT(shell(kNames + kAsCaller[who] + "busctl --address=" POLICY_BUS " call " + method +
                        " && echo answered")
                      .said,
                  testing::EndsWith(who >= least ? "answered\n" : "denied\n"))
          << kAsCaller[who] << method;
  // The checkout may lie below a directory that only its owner may enter.
  EXPECT_THAT(
      shell(std::string("install -m 755 " DRAVELCTL " /run/bench/dravelctl\nmkdir -m 777 b\n"
                        "DBUS_SYSTEM_BUS_ADDRESS=" POLICY_BUS " ") +
            kAsCaller[LOCAL_USER] +
            "sh -c 'PATH=/run/bench:$PATH; dravelctl halt on; dravelctl check; "
            "dravelctl overview; dravelctl backup b -j; dravelctl backup /; echo $?'")
          .said,
      testing::AllOf(
          HasSubstr(
              "you may not change the timers; members of the group dravel may; as root: adduser"),
          HasSubstr("problem Group: you may not change the timers; members of the group"),
          HasSubstr("\"may\":{\"change\":\"members of the group dravel may;"),
          testing::EndsWith("cannot write to /: Permission denied\n4\n"),
          HasSubstr("{\"kind\":\"not-allowed\",\"what\":\"you may not copy the database\","
                    "\"advice\":\"only root may\"}")));
}

} // namespace
