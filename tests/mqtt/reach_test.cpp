// What the bridge takes: its memory, its wake-ups while nothing happens, how late an event comes,
// and a hundred bridges at one broker. Prints the figures; a bound that does not hold is a failure.
#include "at_broker.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>

using std::chrono::duration_cast;
using std::chrono::microseconds;
using std::chrono::steady_clock;

namespace {

class Reach : public Mqtt {
protected:
  Reach() { bus.listen("type='signal',member='TimerAdded'"); }

  std::string of_process(const std::string &file, const std::string &key) const {
    const std::string text = read("/proc/" + std::to_string(bridge->pid()) + "/" + file);
    const auto at = text.find(key);
    return at != std::string::npos ? text.substr(at + key.size(), text.find('\n', at + 1) - at)
                                   : "";
  }
  long switches() const { // of all threads
    long sum = 0;
    for (const auto &thread :
         fs::directory_iterator("/proc/" + std::to_string(bridge->pid()) + "/task")) {
      const std::string text = read(thread.path() / "status");
      for (const char *key : {"\nvoluntary_ctxt_switches:", "\nnonvoluntary_ctxt_switches:"})
        sum += std::atol(text.c_str() + text.find(key) + std::string(key).size());
    }
    return sum;
  }
};

TEST_F(Reach, TheBridge_IsIdleAndSmall_AndEventsComeSoon) {
  start_all();
  std::vector<long> late;
  for (int i = 0; i < 40; ++i) {
    schedule({1, "2026-12-20 12:00", 0, i});
    bus.receive([](DBusMessage *told) {
      return dbus_message_is_signal(told, kStateInterface, "TimerAdded") != 0;
    });
    const auto told = steady_clock::now();
    seen->wait("dravel/m/event", "added");
    late.push_back(duration_cast<microseconds>(steady_clock::now() - told).count());
    usleep(30000); // the next signal is then sent at once
  }
  std::ranges::sort(late);
  sleep(2); // all documents are out
  const long before = switches();
  sleep(10);
  const long woken = switches() - before;
  const long resident = std::atol(of_process("status", "VmRSS:").c_str());
  std::printf("an event at the broker after its signal: median %.1f ms, longest %.1f ms\n",
              static_cast<double>(late[late.size() / 2]) / 1000,
              static_cast<double>(late.back()) / 1000);
  std::printf("wake-ups in 10 s while nothing happens: %ld\n", woken);
  const long own = std::atol(of_process("smaps_rollup", "\nPss:").c_str());
  std::printf("resident memory, VmRSS: %ld kB; Pss: %ld kB\n", resident, own);
  EXPECT_LT(late.back(), 50000);
  EXPECT_EQ(woken, 0);
  EXPECT_LT(own, 8 * 1024);
}

TEST_F(Reach, AHundredBridges_ShareABroker) {
  constexpr int kBridges = 100;
  start();
  start_broker();
  seen.emplace(port);
  std::vector<process> bridges;
  const auto began = steady_clock::now();
  for (int i = 0; i < kBridges; ++i) {
    const std::string own = std::string(kDirectory) + "/" + std::to_string(i);
    fs::create_directory(own);
    char id[33];
    std::snprintf(id, sizeof id, "%032x", i + 1);
    std::ofstream(own + "/id") << id << '\n';
    std::ofstream(own + "/conf") << "[broker]\nport=" << port
                                 << "\nreconnect-spread=2\n[machine]\nname=m" << i
                                 << "\ngroups=all\n";
    bridges.emplace_back(
        std::vector<std::string>{"/usr/bin/bwrap", "--dev-bind", "/", "/", "--ro-bind", own + "/id",
                                 "/etc/machine-id", "--setenv", "STATE_DIRECTORY", own, "--setenv",
                                 "RUNTIME_DIRECTORY", own, DRAVEL_MQTT, "-c", own + "/conf"});
  }
  const auto seconds = [&](auto since) {
    return static_cast<double>(duration_cast<microseconds>(steady_clock::now() - since).count()) /
           1e6;
  };
  const auto all_online = [&] {
    for (int i = 0; i < kBridges; ++i)
      seen->wait("dravel/m" + std::to_string(i) + "/availability", "online");
  };
  all_online();
  std::printf("100 bridges online after their start: %.1f s\n", seconds(began));
  const auto asked = steady_clock::now();
  seen->publish("dravel/group/all/set/halt", R"({"on":true})");
  for (int i = 0; i < kBridges; ++i)
    seen->wait("dravel/m" + std::to_string(i) + "/result", R"("done":true)");
  std::printf("a command to their group answered by all: %.1f s\n", seconds(asked));
  seen.reset();
  broker.reset();
  start_broker();
  const auto back = steady_clock::now();
  seen.emplace(port);
  all_online();
  std::printf("online again after a restart of the broker: %.1f s\n", seconds(back));
  for (process &wrapper : bridges) { // SIGTERM would end the wrapper, and not the bridge in it
    const std::string pid = std::to_string(wrapper.pid());
    const fs::path children = fs::path("/proc") / pid / "task" / pid / "children";
    const pid_t inner = std::atoi(read(children).c_str());
    ASSERT_GT(inner, 0);
    kill(inner, SIGTERM);
    EXPECT_EQ(wrapper.wait(), 0);
  }
}

} // namespace
