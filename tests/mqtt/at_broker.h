// The daemon, a broker on loopback and bridges between them, and somebody who listens.
#pragma once

#include "../system/daemon.h"
#include "observer.h"

#include <glib.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <netinet/in.h>
#include <sstream>
#include <sys/socket.h>
#include <unistd.h>

namespace fs = std::filesystem;

inline constexpr const char *kDirectory = "/run/bench/mqtt";
inline constexpr const char *kLog = "/run/bench/mqtt/log";

inline void write(const std::string &name, const std::string &text) {
  std::ofstream(std::string(kDirectory) + "/" + name) << text;
}

inline std::string read(const std::string &file) {
  std::ifstream stream(file);
  return {std::istreambuf_iterator<char>(stream), {}};
}

inline sockaddr_in loopback(int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  return address;
}

inline void wait_listening(int port) {
  const sockaddr_in address = loopback(port);
  for (int result = -1; result != 0; usleep(500)) {
    const int descriptor = socket(AF_INET, SOCK_STREAM, 0);
    result = connect(descriptor, reinterpret_cast<const sockaddr *>(&address), sizeof address);
    close(descriptor);
  }
}

inline int free_port() {
  const int descriptor = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address = loopback(0);
  socklen_t size = sizeof address;
  auto *any = reinterpret_cast<sockaddr *>(&address);
  const bool is_bound =
      bind(descriptor, any, size) == 0 && getsockname(descriptor, any, &size) == 0;
  close(descriptor);
  return is_bound ? ntohs(address.sin_port) : 0;
}

class Mqtt : public daemon_test {
protected:
  Mqtt() {
    fs::remove_all(kDirectory); // of the case before
    fs::create_directory(kDirectory);
    for (const char *name : {"STATE_DIRECTORY", "RUNTIME_DIRECTORY", "CREDENTIALS_DIRECTORY"})
      setenv(name, kDirectory, 1);
    setenv("TZ", "UTC", 1);
  }
  void start_broker(const std::string &more = "allow_anonymous true\n") {
    write("broker.conf", "listener " + std::to_string(port) + " 127.0.0.1\npersistence false\n" +
                             "log_dest none\nmax_queued_messages 0\nuser root\n" + more);
    broker.emplace(
        std::vector<std::string>{MOSQUITTO, "-c", std::string(kDirectory) + "/broker.conf"});
    wait_listening(port);
  }
  void launch_bridge() {
    const std::string commands = may.empty() ? "" : "commands=" + may + "\n";
    write("conf", "[broker]\nport=" + std::to_string(port) +
                      "\nreconnect-spread=0\nsettle-milliseconds=50\n" + of_broker +
                      "[machine]\nname=m\ngroups=a,b\n" + commands + of_machine);
    bridge.emplace(std::vector<std::string>{DRAVEL_MQTT, "-c", std::string(kDirectory) + "/conf"},
                   kLog);
  }
  // The daemon, the broker, somebody who listens, and the bridge, online.
  void start_all() {
    start();
    start_broker();
    seen.emplace(port);
    launch_bridge();
    seen->wait("dravel/m/state", "next_on");
    seen->wait("homeassistant/device/dravel_m/config");
  }
  void kill_bridge() {
    kill(bridge->pid(), SIGKILL);
    EXPECT_EQ(bridge->wait(), -SIGKILL);
  }
  void restart_bridge() {
    launch_bridge();
    seen->wait("dravel/m/availability", "online");
  }
  void wait_bridge_log(const std::string &text) {
    for (int i = 0; i < 30000 && read(kLog).find(text) == std::string::npos; ++i)
      usleep(1000);
    EXPECT_THAT(read(kLog), HasSubstr(text));
  }
  std::string ask(const std::string &command, const std::string &payload, bool retained = false) {
    seen->publish("dravel/" + command, payload, retained);
    return seen->wait("dravel/m/result");
  }
  // Each line is a command, what is sent, and what is in the answer: "topic payload => answer",
  // with
  // "!" before a topic that gets it retained.
  void check(const std::string &steps) {
    std::istringstream lines(steps);
    for (std::string line; std::getline(lines >> std::ws, line);) {
      SCOPED_TRACE(line);
      g_auto(GStrv) step = g_regex_split_simple("^(!?)(\\S+) (.*) => (.*)$", line.c_str(), {}, {});
      ASSERT_GE(g_strv_length(step), 5U);
      EXPECT_THAT(ask(std::string("m/set/") + step[2], step[3], *step[1] != '\0'),
                  HasSubstr(step[4]));
    }
  }

  const int port = free_port();
  std::string of_broker, of_machine, may;
  std::optional<process> broker;
  std::optional<observer> seen;
  std::optional<process> bridge;
};
