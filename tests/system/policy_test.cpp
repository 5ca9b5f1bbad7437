// Who may call the daemon: the installed policy on a bus that refuses what no policy allows, with
// callers of their own user and group.
#include "daemon.h"

#include <fstream>
#include <iterator>

#include <gmock/gmock.h>
#include <unistd.h>

namespace {

constexpr const char *kBus = "unix:path=/run/bench/policy-bus";
constexpr const char *kConfig = "/run/bench/policy-bus.conf";

// As on every system bus: signals and replies pass, calls and names need a policy. The group that
// the installation makes need not exist here, so another one stands in for it.
void write_config() {
  std::ifstream file(BUS_POLICY);
  std::string policy{std::istreambuf_iterator<char>(file), {}};
  const std::string group = "group=\"dravel\"";
  policy.replace(policy.find(group), group.size(), "group=\"users\"");
  policy = policy.substr(policy.find("<busconfig>") + 11);
  std::ofstream(kConfig) << "<busconfig><type>system</type><listen>" << kBus
                         << "</listen><auth>EXTERNAL</auth><policy context=\"default\">"
                            "<allow user=\"*\"/><deny own=\"*\"/><deny send_type=\"method_call\"/>"
                            "<allow send_type=\"signal\"/><allow send_requested_reply=\"true\" "
                            "send_type=\"method_return\"/><allow send_requested_reply=\"true\" "
                            "send_type=\"error\"/><allow receive_type=\"method_call\"/>"
                            "<allow receive_type=\"method_return\"/><allow receive_type=\"error\"/>"
                            "<allow receive_type=\"signal\"/>"
                            "<allow send_destination=\"org.freedesktop.DBus\"/></policy>"
                         << policy;
}

std::string run(const std::string &line) {
  g_autofree char *out = nullptr;
  g_autofree char *err = nullptr;
  if (!g_spawn_command_line_sync(line.c_str(), &out, &err, nullptr, nullptr))
    return "not started";
  return std::string(out) + err;
}

class Policy : public daemon_test {};

TEST_F(Policy, LocalUsersLook_TheGroupChanges_RootAloneCopies) {
  if (getuid() != 0)
    GTEST_SKIP() << "only root can call as other users";
  write_config();
  ASSERT_EQ(run(std::string("dbus-daemon --fork --config-file=") + kConfig).find("rror"),
            std::string::npos);
  launch(kBus, "");
  wait_log("end scheduling...");

  const std::string service = "org.olvara.tv.system.dravel";
  const std::string dravel = service + " /org/olvara/tv/system/dravel " + service + " ";
  const std::string standin_get = service + " /org/olvara/tv/standin "
                                            "org.freedesktop.DBus.Properties Get ss "
                                            "org.olvara.tv.standin SyncDb";
  const std::string take_name =
      "org.freedesktop.DBus /org/freedesktop/DBus org.freedesktop.DBus RequestName su " + service +
      " 0";
  const struct {
    std::string call;
    const char *by_user, *by_member, *by_root;
  } calls[] = {
      {dravel + "request_timer_list i 0", "iay 0", "iay 0", "iay 0"},
      {dravel + "dravel_get_timer_by_id i 1", "iay -1", "iay -1", "iay -1"},
      {dravel + "request_disabled_period_list i 0", "iay 0", "iay 0", "iay 0"},
      {dravel + "request_wakeup_timer i 0", "iay -1", "iay -1", "iay -1"},
      {dravel + "request_halt_ontimers i 1", "denied", "i 0", "i 0"},
      {dravel + "request_halt_ontimers i 0", "denied", "i 0", "i 0"},
      {dravel + "cancel_timer i 1", "denied", "i -1", "i -1"},
      {dravel + "request_set_disable_period_effect ii 1 1", "denied", "i -1", "i -1"},
      {dravel + "request_copy_db is 0 /tmp", "denied", "denied", "i 0"},
      {standin_get, "denied", "denied", "v i 0"},
      {take_name, "denied", "denied", "u 2"}, // queued behind the daemon
  };
  const std::string busctl = std::string("busctl --address=") + kBus + " call ";
  for (const auto &row : calls) {
    SCOPED_TRACE(row.call);
    EXPECT_THAT(run("setpriv --reuid=65534 --regid=65534 --clear-groups " + busctl + row.call),
                testing::HasSubstr(row.by_user));
    EXPECT_THAT(run("setpriv --reuid=65534 --regid=65534 --groups=users " + busctl + row.call),
                testing::HasSubstr(row.by_member));
    EXPECT_THAT(run(busctl + row.call), testing::HasSubstr(row.by_root));
  }
  // What the bus refuses the daemon never sees.
  wait_log("failed to set disable period effect");
  EXPECT_EQ(times_logged("set dbus message args"), 4);
}

} // namespace
