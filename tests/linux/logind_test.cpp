// The adapters of logind and systemd.
#include "logind.h"
#include "machine.h"
#include "targets.h"
#include "use.h"

#include <cstdlib>
#include <tuple>

namespace {

constexpr int kMostConnections = 50; // of one sandbox

class Services : public Machine {
protected:
  // Returns what was heard until the services were there.
  std::string start(void (*adapter)()) {
    start_services();
    start_bus();
    adapter();
    return seen();
  }
};

void prepare_for(const char *what, const char *begins) {
  emit(kLogind, (std::string("PrepareFor") + what).c_str(), "b", std::string("<") + begins + ">");
}

TEST_F(Services, ASleepIsDelayed_Announced_AndOrderedWithItsInhibitorsChecked) {
  EXPECT_EQ(start(start_logind), "works 3; Inhibit 'sleep:shutdown'");
  EXPECT_TRUE(inhibitor_is_held());
  take_inhibitor();
  prepare_for("Sleep", "true");
  EXPECT_EQ(seen(), "sleep begins");
  release_inhibitor();
  EXPECT_FALSE(inhibitor_is_held());
  prepare_for("Sleep", "false");
  prepare_for("Shutdown", "true");
  prepare_for("Shutdown", "false");
  EXPECT_EQ(seen(), "sleep ends; shutdown begins; shutdown ends");
  for (const off_action method :
       {off_action::kSuspend, off_action::kPoweroff, off_action::kHibernate})
    send_to_sleep(method);
  EXPECT_EQ(seen(), "answered 0; answered 0; answered 0; SuspendWithFlags uint64 1; "
                    "PowerOffWithFlags uint64 1; HibernateWithFlags uint64 1");
  refuse(kLogind, "SuspendWithFlags", "t");
  send_to_sleep(off_action::kSuspend);
  EXPECT_EQ(seen(), "answered 13; SuspendWithFlags uint64 1");
  ask_preparing();
  EXPECT_EQ(seen(), "preparing 0 0");
  set_property(kLogind, "PreparingForShutdown", "true");
  ask_preparing();
  EXPECT_EQ(seen(), "preparing 0 1");
  set_property(kLogind, "PreparingForSleep", "true");
  ask_preparing();
  EXPECT_EQ(seen(), "preparing 1 1");
  take_inhibitor();
  take_inhibitor();
  EXPECT_EQ(seen(), "works 3; Inhibit 'sleep:shutdown'") << "one is on its way";
  release_inhibitor();
  refuse(kLogind, "Inhibit", "ssss");
  take_inhibitor();
  EXPECT_EQ(seen(), "refused 3 13; Inhibit 'sleep:shutdown'");
}

TEST_F(Services, TheInhibitorIsTakenAgain_WhenLogindHasStartedAgain) {
  EXPECT_EQ(start(start_logind), "works 3; Inhibit 'sleep:shutdown'");
  services.reset();
  start_services();
  EXPECT_EQ(seen(), "works 3; Inhibit 'sleep:shutdown'");
}

// Any user may send one to the daemon alone.
TEST_F(Services, ASignalToThisProcessAlone_IsNoneOfTheirs) {
  EXPECT_EQ(start(start_logind), "works 3; Inhibit 'sleep:shutdown'");
  for (int connection = 0; connection < kMostConnections; ++connection) {
    const message forged(
        dbus_message_new_signal(kLogind.path, kLogind.interface, "PrepareForSleep"));
    const dbus_bool_t begins = TRUE;
    dbus_message_append_args(forged.get(), DBUS_TYPE_BOOLEAN, &begins, DBUS_TYPE_INVALID);
    dbus_message_set_destination(forged.get(), (":1." + std::to_string(connection)).c_str());
    client().post(forged);
  }
  prepare_for("Shutdown", "true");
  EXPECT_EQ(seen(), "shutdown begins");
}

// Of "use": a user's session, an active one, what is blocked, what the machine can, the delay.
TEST_F(Services, WhoUsesTheMachine_IsToldAndAskedFor) {
  static constexpr bus_service kSession = {kLogind.name, "/org/freedesktop/login1/session/_31",
                                           "org.freedesktop.login1.Session"};
  static constexpr struct {
    const bus_service &of;
    const char *property;
    const char *value;
    const char *found;
  } kCases[] = {
      {kLogind, "BlockInhibited", "'handle-power-key:sleep'", " 1 0 1 11 5000"},
      {kLogind, "BlockInhibited", "'idle:shutdown:sleepy'", " 1 0 6 11 5000"},
      {kLogind, "InhibitDelayMaxUSec", "uint64 30000000", " 1 0 6 11 30000"},
      {kLogind, "InhibitDelayMaxUSec", "uint64 18446744073709551615", " 1 0 6 11 600000"},
      {kLogind, "InhibitDelayMaxUSec", "uint64 30000000", " 1 0 6 11 30000"},
      {kSession, "IdleHint", "false", " 1 2 6 11 30000"},
      {kSession, "Class", "'user-early'", " 1 2 6 11 30000"},
      {kSession, "Class", "'greeter'", " 0 0 6 11 30000"},
  };
  EXPECT_EQ(start(start_use), "use 1 0 0 11 5000");
  for (const auto &[of, property, value, found] : kCases) {
    set_property(of, property, value);
    EXPECT_EQ(seen(), &of == &kLogind ? "use" + std::string(found) : "");
    ask_use();
    EXPECT_EQ(seen(), "use answered" + std::string(found));
  }
  for (const char *signal : {"SessionNew", "SessionRemoved"}) {
    emit(kLogind, signal, "so", "<'2'>, <objectpath '/2'>");
    EXPECT_EQ(seen(), "use 0 0 6 11 30000") << signal;
  }
  tell(kLogind, "AddMethod", "'CanHibernate', '', 's', \"ret = 'na'\"");
  refuse(kLogind, "CanSuspend", "");
  ask_use();
  EXPECT_EQ(seen(), "use answered 0 0 6 2 30000");
  refuse(kLogind, "ListSessions", "");
  ask_use();
  ask_use();
  EXPECT_EQ(seen(), "refused 4 13") << "the later question replaces the earlier one";
}

TEST_F(Services, TargetsAreStarted_AndTheirJobsFollowed) {
  EXPECT_EQ(start(start_targets), "jobs");
  start_unit(unit::kOff, 0);
  start_unit(unit::kWakeup, 20);
  stop_unit(unit::kAmbient);
  EXPECT_EQ(seen(), "job 7 1; job 7 3; job 7 2; RestartUnit 'dravel-off.target'; "
                    "RestartUnit 'dravel-wakeup@20.target'; StopUnit 'dravel-ambient.target'");
  for (const char *signal : {"JobNew", "JobRemoved"})
    for (const char *name : {"dravel-on.target", "dravel-wakeup@5.target", "other.target"})
      emit(kSystemd, signal, "uoss",
           std::string("<uint32 8>, <objectpath '/8'>, <'") + name + "'>, <'done'>");
  EXPECT_EQ(seen(), "job 8 0; job 8 3; job ended 8; job ended 8");
  for (const auto &[name, result, heard] : {std::tuple{"ddc-off", "failed", "refused 18 1"},
                                            {"ddc-off", "canceled", ""},
                                            {"ddc", "done", ""}, // it is stopped
                                            {"ddc-off", "done", "works 18"}}) {
    emit(kSystemd, "JobRemoved", "uoss",
         std::string("<uint32 9>, <objectpath '/9'>, <'dravel-screen-") + name + ".service'>, <'" +
             result + "'>");
    EXPECT_EQ(seen(), heard);
  }
  refuse(kSystemd, "RestartUnit", "ss");
  start_unit(unit::kOn, 0);
  EXPECT_EQ(seen(), "unit refused 0 13; RestartUnit 'dravel-on.target'");
}

TEST_F(Services, JobsOfAnEarlierRun_AreFoundAtTheStart) {
  start_services();
  tell(kSystemd, "AddMethod",
       "'ListJobs', '', 'a(usssoo)', \"o = dbus.ObjectPath('/1'); ret = [(dbus.UInt32(5), "
       "'dravel-wakeup@20.target', 'start', 'running', o, o), (dbus.UInt32(6), 'x.service', "
       "'start', 'running', o, o)]\"");
  start_bus();
  start_targets();
  EXPECT_EQ(seen(), "jobs; job 5 3");
}

TEST_F(Machine, WithoutABus_EveryOrderIsAnswered) {
  setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/tmp/none", 1);
  start_bus();
  start_logind();
  start_use();
  start_targets();
  take_inhibitor();
  ask_use();
  ask_preparing();
  send_to_sleep(off_action::kSuspend);
  start_unit(unit::kOn, 0);
  EXPECT_EQ(seen(),
            "refused 3 107; refused 4 107; preparing 0 0; answered 107; unit refused 0 107; "
            "no system bus: No such file or directory; the machine is not sent to sleep, "
            "and nothing runs before its sleep");
}

} // namespace
