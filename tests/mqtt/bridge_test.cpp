// What others at the broker see of the bridge.
#include "at_broker.h"
#include "discovery.h"

#include <glib.h>

#include <algorithm>
#include <sstream>
#include <utility>

using testing::AllOf;
using testing::Not;

namespace {

constexpr const char *kSeven = R"({"type":0,"time":"07:00","days":["Mon"]})";

TEST_F(Mqtt, EveryCommand_IsCarriedOutOrRefusedInWords) {
  start_all();
  check(R"(
    add {"id":"1","timer":{"type":0,"time":"07:00","days":["Mon"]}} => {"id":"1","command":"add","done":true,"timer":{"id":1
    add {"id":"2","timer":{"type":1,"at":"2026-12-24T22:00:00"}} => "done":true,"timer":{"id":2
    add {"id":"3","timer":{"type":0,"tme":"07:00"}} => "kind":"refused","what":"timer has a field tme
    add {"id":"4","timer":[]} => "what":"timer is a list; it must be an object
    add {"id":"5"} => {"id":"5","command":"add","done":false,"error":{"kind":"usage","what":"the message has no timer"}}
    add {"timer":{}} => {"command":"add","done":false,"error":{"kind":"usage","what":"add needs an id
    add {"id":"6","timer":{},"x":1} => "what":"this command has no member x"
    add {"id": => "what":"the message is no JSON
    change {"id":"10","timer_id":1,"set":{"time":"07:15"}} => "done":true,"timer":{"id":3
    change {"id":"11","timer_id":2,"set":{"time":"21:00"}} => "at":"2026-12-24T21:00:00+00:00"
    change {"id":"12","timer_id":9,"set":{"time":"21:00"}} => "what":"there is no timer 9"
    change {"id":"13","timer_id":3,"set":{}} => "what":"set must be an object with what shall be different"
    change {"id":"14","timer_id":"3","set":{"time":"7"}} => "what":"timer_id must be
    change {"id":"15","timer_id":18446744073709551614,"set":{"time":"7"}} => "what":"timer_id must be
    cancel {"id":"20","timer_id":3} => "done":true,"cancelled":3,"timer":{"type":0,"time":"07:15"
    cancel {"id":"21","timer_id":3} => "what":"there is no timer 3"
    halt {"on":true} => {"command":"halt","done":true,"halted":{"on":true,"off":false}}
    halt {"on":false,"off":true} => "halted":{"on":false,"off":true}
    halt {"id":"h","off":false} => {"id":"h","command":"halt","done":true,"halted":{"on":false,"off":false}}
    halt {"on":1} => "what":"on must be true or false"
    halt {} => "what":"on or off must be given"
    holidays {"id":"30","add":[{"first":{"month":12,"day":24},"last":{"month":12,"day":26}}]} => "added":[{"id":1
    holidays {"id":"31","add":[{"first":{"month":12,"day":24},"last":{"month":12,"day":26}}]} => "what":"these days are holidays 1 already"
    holidays {"id":"31b","add":[{"first":{"month":5,"day":1},"last":{"month":5,"day":1}},{"first":{"month":5,"day":1},"last":{"month":5,"day":1}}]} => "what":"add[1] stands in the list already
    holidays {"id":"32","remove":[1]} => "done":true,"added":[],"removed":[1]
    holidays {"id":"33","remove":[1]} => "what":"there are no holidays 1"
    screen {"on":true} => "done":false,"error":{"kind":"refused","what":"the platform of this dravel-manager shows no machine"
    test {"test":"screen"} => "error":{"kind":"not-allowed","what":"this machine does not take the command: its commands do not name test"
    apply {"timers":[]} => "what":"apply must be published with the retain flag"
    fly {"id":"1"} => {"id":"1","command":"fly","done":false,"error":{"kind":"usage","what":"there is no command fly"
    !cancel {"id":"40","timer_id":4} => "what":"only apply may be published with the retain flag"
    halt nonsense => "what":"the message is no JSON: parse error
    halt [] => "what":"the message is no JSON object"
    halt [[[[[[[[[[[[[[[[[[[[[[]]]]]]]]]]]]]]]]]]]]]] => "what":"the message is nested too deeply"
  )");
  seen->publish("dravel/m/set/cancel", "", true); // what clears the retained one is no command
  EXPECT_THAT(ask("group/b/set/cancel", R"({"id":"20","timer_id":4})"),
              HasSubstr(R"({"id":"20","command":"cancel","done":true)"));
  EXPECT_EQ(timer_ids(), words{});
}

TEST_F(Mqtt, WhatTheDaemonTells_IsPublished) {
  start_all();
  EXPECT_THAT(seen->last("dravel/m/availability"), "online");
  ask("m/set/add", R"({"id":"1","timer":{"type":0,"time":"07:00","days":["Mon"]}})");
  EXPECT_THAT(
      seen->wait("dravel/m/event"),
      AllOf(HasSubstr(R"({"event":"added","id":1,"timer":{"id":1)"), HasSubstr("at_seconds")));
  EXPECT_THAT(seen->wait("dravel/m/timers", R"("id":1)"), HasSubstr(R"("days_text":"Mon")"));
  EXPECT_THAT(seen->wait("dravel/m/week", R"("id":1)"), HasSubstr(R"("mark":"on")"));
  EXPECT_THAT(seen->wait("dravel/m/state", R"("next_on":{"id":1)"),
              AllOf(HasSubstr("machine_id"), HasSubstr("problems"), Not(HasSubstr("next_text"))));
  ask("m/set/halt", R"({"off":true})");
  EXPECT_EQ(shell("dravelctl add --at +1s --type off").status, 0);
  EXPECT_THAT(seen->wait("dravel/m/event", "halted"),
              HasSubstr(R"("id":2,"type":1,"type_name":"off")"));
  ask("m/set/cancel", R"({"id":"2","timer_id":2})");
  EXPECT_THAT(seen->wait("dravel/m/event", "removed"), HasSubstr(R"("id":2,"why":"cancelled")"));
  EXPECT_EQ(stop(), 0);
  EXPECT_THAT(seen->wait("dravel/m/state", "not running"), HasSubstr(R"("next_on":null)"));
  EXPECT_THAT(ask("m/set/halt", R"({"on":true})"), HasSubstr(R"("kind":"not-running")"));
  start();
  seen->wait("dravel/m/state", R"("next_on":{"id":1)");
}

TEST_F(Mqtt, ACommand_IsCarriedOutOnce_WhateverEndsTheBridge) {
  start_all();
  const std::string add = std::string(R"({"id":"1","timer":)") + kSeven + "}";
  const std::string first = ask("m/set/add", add);
  EXPECT_EQ(ask("m/set/add", add), first);
  kill_bridge();
  seen->wait("dravel/m/availability", "offline");
  restart_bridge();
  EXPECT_EQ(ask("m/set/add", add), first);

  // Killed while the daemon thinks about it.
  const pid_t daemon = bus.pid_of(kDaemon.name);
  kill(daemon, SIGSTOP);
  seen->publish("dravel/m/set/cancel", R"({"id":"2","timer_id":1})");
  while (read(std::string(kDirectory) + "/commands").find("cancel 2") == std::string::npos)
    usleep(1000);
  kill_bridge();
  kill(daemon, SIGCONT);
  write("commands", read(std::string(kDirectory) + "/commands") + "{}\n{\"key\":\"torn");
  restart_bridge();
  EXPECT_THAT(ask("m/set/cancel", R"({"id":"2","timer_id":1})"),
              HasSubstr("begun, outcome unknown"));
  EXPECT_EQ(ask("m/set/add", add), first);
  EXPECT_THAT(ask("m/set/cancel", R"({"id":"3","timer_id":8})"), HasSubstr("no timer 8"));
}

TEST_F(Mqtt, TheBroker_MayBeAbsentAndComeBack) {
  start();
  launch_bridge();
  wait_bridge_log("Connection refused");
  for (const bool again : {false, true}) {
    kill(bridge->pid(), SIGSTOP);
    start_broker();
    seen.emplace(port);
    kill(bridge->pid(), SIGCONT);
    seen->wait("dravel/m/availability", "online");
    if (again)
      seen->wait("dravel/m/event", "added");
    seen->wait("dravel/m/state", "next_on");
    seen.reset();
    broker.reset();
    schedule({1, "20 12:00"}); // told when it is back
  }
}

// Somebody else in the broker's place, who says what he likes.
class stand_in_broker {
public:
  explicit stand_in_broker(int port) {
    const int on = 1;
    setsockopt(listener_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    const timeval deadline{.tv_sec = 30, .tv_usec = 0}; // only ever reached by a failure
    setsockopt(listener_, SOL_SOCKET, SO_RCVTIMEO, &deadline, sizeof deadline);
    const sockaddr_in address = loopback(port);
    EXPECT_EQ(bind(listener_, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
    listen(listener_, 1);
  }
  ~stand_in_broker() {
    close(client_);
    close(listener_);
  }
  std::string hear() {
    std::string heard(65536, '\0');
    const ssize_t size = recv(client_, heard.data(), heard.size(), 0);
    EXPECT_GT(size, 0);
    return heard.substr(0, static_cast<std::size_t>(std::max<ssize_t>(size, 0)));
  }
  void say(std::string packet) { // its second byte is the place of the length
    std::string length;
    for (std::size_t left = packet.size() - 2; left > 0 || length.empty(); left /= 128)
      length += static_cast<char>(left % 128 | (left > 127 ? 128 : 0));
    packet.replace(1, 1, length);
    EXPECT_EQ(send(client_, packet.data(), packet.size(), 0), std::ssize(packet));
  }
  // `between` comes before the acknowledgement of the subscription.
  void meet(const std::vector<std::string> &between = {}) {
    client_ = accept(listener_, nullptr, nullptr);
    hear(); // CONNECT
    say(std::string("\x20\0\0\0\0", 5));
    const std::string heard = hear(); // SUBSCRIBE; its packet id follows the length
    for (const std::string &packet : between)
      say(packet);
    say(std::string("\x90\0", 2) + heard.substr((heard[1] & 0x80) != 0 ? 3 : 2, 2) +
        std::string("\0\1", 2) + std::string(40, '\x87')); // more than it was asked for
  }
  void lose() { close(std::exchange(client_, -1)); }

private:
  const int listener_ = socket(AF_INET, SOCK_STREAM, 0);
  int client_ = -1;
};

TEST_F(Mqtt, ABroker_MayRetainFirst_AndAcknowledgeNothing) {
  start();
  const std::string apply = std::string("\0\x12", 2) + "dravel/m/set/apply" + '\0';
  {
    stand_in_broker other(port);
    launch_bridge();
    other.meet({std::string("\x31\0", 2) + apply + R"({"timers":[)" + kSeven + "]}",
                std::string("\x30\0", 2) + apply + std::string(70000, ' '),
                std::string("\x30\0", 2) + apply + "{}"});
    std::string all;
    for (const char *part : {"published with the retain flag", R"("command":"apply","done":true)"})
      while (all.find(part) == std::string::npos && !HasFailure())
        all += other.hear();
    kill(bridge->pid(), SIGSTOP);
  }
  start_broker();
  seen.emplace(port);
  kill(bridge->pid(), SIGCONT);
  wait_bridge_log("a message that is too long is left alone: dravel/m/set/apply");
  seen->wait("dravel/m/event", "added");
  seen->wait("dravel/m/result", R"("command":"apply","done":true)");
}

TEST_F(Mqtt, ALostBus_EndsTheBridge_WhileItConnects) {
  constexpr const char *kOtherBus = "unix:path=/run/bench/other-bus";
  const outcome other =
      shell(std::string("dbus-daemon --session --fork --print-pid --address=") + kOtherBus);
  const stand_in_broker silent(port);
  for (int i = 0; i < 2; ++i) // its queue is full then: the next one who connects gets no answer
    wait_listening(port);
  setenv("DBUS_SYSTEM_BUS_ADDRESS", kOtherBus, 1);
  launch_bridge();
  setenv("DBUS_SYSTEM_BUS_ADDRESS", kSandboxBus, 1);
  while (shell(DRAVEL_MQTT " --wake").status != 0) // until its main loop runs
    usleep(1000);
  kill(std::stoi(other.said), SIGTERM);
  EXPECT_EQ(bridge->wait(), 1);
}

TEST_F(Mqtt, ASubscriptionThatCannotBeSent_IsTold_AndTriedAgain) {
  start_broker("allow_anonymous true\nmax_packet_size 200\n");
  of_machine = "groups=" + std::string(64, 'a') + "," + std::string(64, 'b') + "\n";
  launch_bridge();
  wait_bridge_log("no connection to the broker localhost:" + std::to_string(port) +
                  ": Packet larger than");
  broker.reset();
  start_broker();
  for (const char *now : {" --sleep", " --wake"})
    EXPECT_EQ(shell(std::string(DRAVEL_MQTT) + now).status, 0);
  wait_bridge_log("connected to the broker localhost as m");
}

TEST_F(Mqtt, ConnectionsThatNeverHold_RaiseAQuestion_Once) {
  const auto told = [](const std::string &text) {
    int count = 0;
    const std::string log = read(kLog);
    for (auto at = log.find(text); at != std::string::npos; at = log.find(text, at + 1))
      ++count;
    return count;
  };
  stand_in_broker other(port);
  launch_bridge();
  for (int lost = 1; lost <= 4; ++lost) {
    other.meet();
    other.lose();
    while (told("no connection to the broker") < lost)
      usleep(1000);
    EXPECT_EQ(told("does another machine have the same /etc/machine-id?"), lost > 2 ? 1 : 0);
    for (const char *now : {" --sleep", " --wake"}) // so that it does not wait to connect
      EXPECT_EQ(shell(std::string(DRAVEL_MQTT) + now).status, 0);
  }
}

TEST_F(Mqtt, AFlood_IsAnsweredOrRefused_AndHarmsNothing) {
  start_all();
  for (int i = 0; i < 1000; ++i)
    seen->publish("dravel/m/set/add",
                  R"({"id":")" + std::to_string(i) + R"(","timer":{"type":1}})");
  seen->wait_count("dravel/m/result", 1000);
  seen->wait("dravel/m/result", R"("kind":"busy")");

  // What is no command is not lost among them.
  const pid_t daemon = bus.pid_of(kDaemon.name);
  kill(daemon, SIGSTOP);
  const auto flood = [&](const std::string &id) {
    for (int i = 0; i < 200; ++i)
      seen->publish("dravel/m/set/halt", R"({"on":false,"id":")" + id + R"("})");
    seen->wait("dravel/m/result", id + R"(","command":"halt","done":false,"error":{"kind":"busy")");
  };
  flood("before");
  seen->forget();
  seen->publish("homeassistant/status", "online");
  seen->publish("dravel/m/availability", "offline", true);
  seen->publish("dravel/m/set/apply", R"({"revision":"1"})", true);
  seen->publish("dravel/m/set/apply", R"({"revision":"2","timers":[]})", true);
  flood("after");
  kill(daemon, SIGCONT);
  seen->wait_count("homeassistant/device/dravel_m/config", 2); // one for each of both
  seen->wait("dravel/m/availability", "online");
  EXPECT_THAT(seen->wait("dravel/m/applied"), HasSubstr(R"("revision":"2")"));
  seen->publish("dravel/m/set/halt", std::string(70000, ' ')); // is not even delivered
  seen->forget();
  EXPECT_THAT(ask("m/set/halt", R"({"on":false})"), HasSubstr(R"("done":true)"));
}

TEST_F(Mqtt, OnePlan_IsAppliedOnce_TheOwnBeforeTheGroups) {
  const auto plan = [](const char *revision, const char *time) {
    return std::string(R"({"revision":")") + revision +
           R"(","timers":[{"type":0,"days":["Mon"],"time":")" + time + R"("}]})";
  };
  start();
  start_broker();
  seen.emplace(port);
  seen->publish("dravel/group/b/set/apply", plan("b1", "06:00"), true);
  seen->publish("dravel/group/a/set/apply", plan("a1", "07:00"), true);
  write("applied", R"({"sha256":1})"); // counts as not written
  launch_bridge();
  EXPECT_THAT(seen->wait("dravel/m/applied"),
              AllOf(HasSubstr(R"({"source":"group/a","revision":"a1","sha256":")"),
                    HasSubstr(R"("added":1,"cancelled":0,)"), HasSubstr(R"("refused":[])")));
  EXPECT_THAT(seen->wait("dravel/m/result"), HasSubstr(R"({"command":"apply","done":true,)"));
  seen->publish("dravel/group/b/set/apply", plan("b2", "06:30"), true);
  seen->publish("dravel/m/set/apply", plan("m1", "08:00"), true);
  EXPECT_THAT(seen->wait("dravel/m/applied", "m1"), HasSubstr(R"("cancelled":1)"));
  const std::string deep = std::string(20, '[') + std::string(20, ']');
  for (const auto &[refused, why] : std::initializer_list<std::pair<std::string, const char *>>{
           {R"({"timers":[{"type":0}],"revision":[1]})", R"("why":"the message: timers[0])"},
           {R"({"revision":)" + deep + "}", R"("why":"the message is nested too deeply")"}}) {
    seen->publish("dravel/m/set/apply", refused, true);
    EXPECT_THAT(seen->wait("dravel/m/applied"),
                AllOf(HasSubstr(R"("revision":null)"), HasSubstr(why)));
  }

  // Withdrawn: nothing changes, and the group's that was carried out is not carried out again.
  EXPECT_EQ(shell("dravelctl add --at +1h --type off").status, 0);
  const words timers = timer_ids();
  const auto withdraw = [&](const char *topic) {
    seen->publish(topic, "", true);
    seen->publish("dravel/m/set/cancel", R"({"id":"1","timer_id":99})"); // waits for a plan's end
    seen->wait("dravel/m/result", "no timer 99");
    EXPECT_EQ(timer_ids(), timers);
    EXPECT_EQ(bridge->stop(), 0);
    seen->forget();
    seen->publish("dravel/m/state", "", true); // so that it is online once it has settled
    restart_bridge();
  };
  withdraw("dravel/m/set/apply");
  withdraw("dravel/group/a/set/apply");
  seen->wait("dravel/m/applied", "b2"); // the first one at this connection, and new

  // What somebody changes stays until the next one, unless it is enforced.
  seen->wait("dravel/m/result", R"("command":"apply")");
  seen->forget();
  EXPECT_EQ(shell("dravelctl cancel --all").status, 0);
  EXPECT_EQ(bridge->stop(), 0);
  write("applied", seen->last("dravel/m/applied")); // as an earlier version kept it
  seen->publish("dravel/m/state", "", true);
  restart_bridge();
  seen->wait("dravel/m/applied", "b2"); // of before
  ask("m/set/halt", R"({"on":false})");
  EXPECT_EQ(timer_ids(), words{});
  EXPECT_EQ(bridge->stop(), 0);
  of_machine = "enforce=yes\n";
  restart_bridge();
  seen->wait("dravel/m/result", R"("added":1)");
}

TEST_F(Mqtt, APlan_WaitsForTheDaemon) {
  start_broker();
  seen.emplace(port);
  seen->publish("dravel/m/set/apply", std::string(R"({"timers":[)") + kSeven + "]}", true);
  launch_bridge();
  wait_bridge_log("apply waits: dravel-manager is not running");
  EXPECT_THAT(ask("m/set/halt", R"({"on":true})"), HasSubstr(R"("kind":"not-running")"));
  EXPECT_EQ(seen->last("homeassistant/device/dravel_m/config"), ""); // without what it has?
  start();
  EXPECT_THAT(seen->wait("dravel/m/applied"), HasSubstr(R"("added":1)"));
}

TEST_F(Mqtt, WhatAMachineHas_GoesWithItsPlatform_NotWithTheDaemon) {
  const char *config = "homeassistant/device/dravel_m/config";
  std::optional<simulated_machine> machine(bus);
  start_all();
  const configuration settings = read_configuration(std::string(kDirectory) + "/conf");
  EXPECT_EQ(seen->last(config), discovery_of(settings, true));
  EXPECT_EQ(stop(), 0);
  seen->wait("dravel/m/state", "not running");
  EXPECT_THAT(ask("m/set/screen", R"({"on":true})"), HasSubstr("not-running"));
  EXPECT_EQ(seen->last(config), discovery_of(settings, true));
  machine.reset();
  start(); // on a set
  seen->wait(config, discovery_of(settings, false));
  EXPECT_THAT(ask("m/set/screen", R"({"on":true})"), HasSubstr("shows no machine"));
}

TEST_F(Mqtt, APlan_IsToldAsFarAsItWent_AndDelaysNothing) {
  start_all();
  rows("CREATE TRIGGER full BEFORE INSERT ON disabled_period WHEN new.start_tm_mon = 11 "
       "BEGIN SELECT RAISE(FAIL, 'full'); END");
  seen->publish("dravel/m/set/apply", R"({"holidays":[
    {"first":{"month":1,"day":1},"last":{"month":1,"day":1}},
    {"first":{"month":12,"day":24},"last":{"month":12,"day":26}}]})",
                true);
  EXPECT_THAT(seen->wait("dravel/m/applied"),
              AllOf(HasSubstr(R"("holidays_added":1)"), HasSubstr(R"({"what":"holidays 24 Dec)")));

  // It waits: the list is full, and all of it is due within a minute.
  for (int i = 0; i < 80; ++i)
    schedule({1, "15 12:00:50"});
  seen->publish("dravel/m/set/apply", std::string(R"({"timers":[)") + kSeven + "]}", true);
  seen->publish("dravel/m/set/add", std::string(R"({"id":"1","timer":)") + kSeven + "}");
  seen->publish("dravel/m/set/halt", R"({"on":true})");
  seen->wait("dravel/m/result", R"("command":"halt","done":true)");
  EXPECT_EQ(shell("dravelctl cancel 1").status, 0);
  EXPECT_THAT(seen->wait("dravel/m/applied"), HasSubstr(R"("added":1,"cancelled":79)"));
  seen->wait("dravel/m/result", R"("command":"apply","done":true)");
  seen->wait("dravel/m/result", R"("command":"add","done":true)"); // and it stays
}

TEST_F(Mqtt, AMachineOfTheSameName_IsLeftAlone) {
  start();
  start_broker();
  seen.emplace(port);
  seen->publish("dravel/m/state", R"({"machine_id":"other"})", true);
  seen->publish("dravel/m/availability", "online", true);
  seen->wait("dravel/m/availability");
  of_broker = "settle-milliseconds=30000\n"; // both are known sooner
  launch_bridge();
  wait_bridge_log("another machine has the name m");
  seen->publish("dravel/m/set/halt", R"({"on":true})");
  seen->publish("dravel/m/state", R"({"machine_id":null})", true); // anybody's
  seen->publish("dravel/m/availability", "offline", true);         // it goes
  seen->wait("dravel/m/availability", "online");
  EXPECT_THAT(seen->wait("dravel/m/state", "next_on"), HasSubstr(R"("halted":{"on":false)"));
  seen->publish("dravel/m/availability", "offline", true); // an old will
  seen->wait("dravel/m/availability", "online");
  seen->publish("dravel/m/state", R"({"machine_id":"0"})", true); // came at once with this one
  wait_bridge_log("as m\nanother machine has the name m");
}

TEST_F(Mqtt, TheMachinesSleep_IsAnnounced) {
  start_all();
  EXPECT_EQ(shell(DRAVEL_MQTT " --sleep").status, 0);
  seen->wait("dravel/m/availability", "asleep");
  schedule({1, "20 12:00"}); // told after it
  EXPECT_EQ(shell(DRAVEL_MQTT " --wake").status, 0);
  seen->wait("dravel/m/event", "added");
  seen->wait("dravel/m/availability", "online");
  EXPECT_EQ(bridge->stop(), 0);
  seen->wait("dravel/m/availability", "offline");
  EXPECT_EQ(shell(DRAVEL_MQTT " --sleep").status, 1);
}

TEST_F(Mqtt, Forget_LeavesNothingAtTheBroker) {
  start_all();
  EXPECT_EQ(bridge->stop(), 0);
  EXPECT_EQ(shell(DRAVEL_MQTT " --forget -c " + std::string(kDirectory) + "/conf").status, 0);
  seen->wait("homeassistant/device/dravel_m/config", "");
  for (const char *left : {"dravel/m/availability", "dravel/m/state", "dravel/m/timers"}) {
    SCOPED_TRACE(left);
    while (!seen->last(left).empty())
      seen->wait(left);
  }
}

// --- rights ---

TEST_F(Mqtt, Tls_VerifiesTheChainAndTheName) {
  write("make", R"(
    cd /run/bench/mqtt
    for ca in good other; do
      openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 2 -subj /CN=$ca -keyout $ca.key -out $ca.pem
    done
    openssl req -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -subj /CN=localhost -keyout server.key -out server.csr
    echo subjectAltName=DNS:localhost >names
    openssl x509 -req -in server.csr -CA good.pem -CAkey good.key -CAcreateserial -days 2 -extfile names -out server.pem
  )");
  ASSERT_EQ(shell("sh -e /run/bench/mqtt/make").status, 0);
  start();
  const char *const refused[] = {"host=localhost\nca-file=/run/bench/mqtt/other.pem\n",
                                 "host=localhost\n", // the system's authorities
                                 "host=127.0.0.1\nca-file=/run/bench/mqtt/good.pem\n"};
  start_broker("allow_anonymous true\ncertfile /run/bench/mqtt/server.pem\n"
               "keyfile /run/bench/mqtt/server.key\n");
  for (const std::string keys : refused) {
    SCOPED_TRACE(keys);
    of_broker = "tls=yes\n" + keys;
    launch_bridge();
    wait_bridge_log("certificate verify failed");
    bridge.reset();
  }
  of_broker = "tls=yes\nhost=localhost\nca-file=/run/bench/mqtt/good.pem\n";
  launch_bridge();
  wait_bridge_log("connected to the broker localhost as m");
}

TEST_F(Mqtt, TheBrokersAccessList_Decides_AndARefusalIsLogged) {
  write("acl", read(ACCESS_LIST) + "user admin\ntopic readwrite #\n");
  start();
  start_broker("allow_anonymous true\nacl_file /run/bench/mqtt/acl\n");
  seen.emplace(port, "#", "admin");
  of_broker = "user=m\n";
  launch_bridge();
  seen->wait("homeassistant/device/dravel_m/config");
  EXPECT_THAT(ask("group/a/set/halt", R"({"on":true})"), HasSubstr(R"("done":true)"));
  seen->publish("homeassistant/status", "online");
  seen->wait("homeassistant/device/dravel_m/config");
  EXPECT_THAT(read(kLog), Not(HasSubstr("refuses")));
  bridge.reset();
  of_broker = "user=somebody\n";
  launch_bridge();
  wait_bridge_log("the broker refuses what is published to dravel/m/availability: Not authorized");
}

TEST_F(Mqtt, AConfiguration_IsReadOrRefusedInWords) {
  const struct {
    const char *file;
    const char *said;
  } rows[] = {
      {"[broker]\nhots=x\n", "conf: [broker] hots is no key; see dravel-mqtt.conf(5)"},
      {"[broker]\nhost=\n", "[broker] host must be the broker's name or address"},
      {"[broker]\nport=0\n", "[broker] port must be a number from 1 to 65535"},
      {"[broker]\ntls=maybe\n", "[broker] tls must be yes or no"},
      {"[broker]\nca-file=/none\n", "[broker] ca-file cannot be read: No such file"},
      {"[broker]\nhost=hub\ntls=no\n", "the password would go to hub in clear text"},
      {"[broker]\nhost=127.hub\ntls=no\n", "the password would go to 127.hub in clear text"},
      {"[machine]\nname=a/b\n", "[machine] name must be of 1 to 64 letters, digits, _ and -"},
      {"[machine]\nname=group\n", "[machine] name must not be group"},
      {"[machine]\nprefix=a//b\n", "[machine] prefix must be names"},
      {"[machine]\ngroups=a, b c\n", "[machine] groups must be of 1 to 64 letters"},
      {"[machine]\ncommands=timers,fly\n", "commands fly is none of timers"},
      {"x", "conf: Key file contains line"},
  };
  write("password", "secret\n");
  for (const auto &[file, said] : rows) {
    SCOPED_TRACE(file);
    write("conf", file);
    const outcome result = shell("timeout 10 " DRAVEL_MQTT " -c /run/bench/mqtt/conf");
    EXPECT_EQ(result.status, 2);
    EXPECT_THAT(result.said, HasSubstr(said));
  }
  write("conf", "");
  for (const std::string password : {"\xc3\xb6l", " secret", ""}) {
    write("password", password + "\n");
    EXPECT_EQ(read_configuration("/run/bench/mqtt/conf").broker.password, password);
  }
}

// --- Home Assistant ---

TEST_F(Mqtt, HomeAssistant_IsToldWhatItsDocumentationAsksFor) {
  may = "timers,holidays,halt,screen,apply,test";
  start_all();
  ask("m/set/add", R"({"id":"1","timer":{"type":0,"time":"07:00","days":["Mon"]}})");
  seen->wait("dravel/m/state", R"("next_on":{"id":1)");
  const configuration settings = read_configuration(std::string(kDirectory) + "/conf");
  EXPECT_EQ(shell("systemd-id128 machine-id --app-specific=5e0b916f2dc447a18f3ac07219e6d854").said,
            settings.machine_id + "\n");
  EXPECT_EQ(seen->last("homeassistant/device/dravel_m/config"), discovery_of(settings, false));
  write("config", discovery_of(settings, true));
  write("state", seen->last("dravel/m/state"));
  write("event", seen->wait("dravel/m/event", "added"));
  const outcome result = shell("python3 " HOME_ASSISTANT " /run/bench/mqtt");
  EXPECT_EQ(result.status, 0) << result.said;
  seen->publish("homeassistant/status", "online");
  seen->wait("homeassistant/device/dravel_m/config");
}

} // namespace
