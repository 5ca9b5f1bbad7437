#include "process.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <functional>
#include <iterator>
#include <spawn.h>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

static constexpr useconds_t kPollUs = 500;

static void poll_until(const std::function<bool()> &condition, const std::string &what) {
  using std::chrono::steady_clock;
  const auto deadline = steady_clock::now() + std::chrono::milliseconds(kDeadlineMs);
  while (!condition()) {
    if (steady_clock::now() > deadline)
      throw std::runtime_error(what + " does not come");
    usleep(kPollUs);
  }
}

process::process(const std::vector<std::string> &command, const char *errors) {
  std::vector<char *> arguments;
  arguments.reserve(command.size() + 1);
  for (const std::string &argument : command)
    arguments.push_back(const_cast<char *>(argument.c_str()));
  arguments.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, errors, O_WRONLY | O_CREAT | O_TRUNC,
                                   0644);
  const int failure =
      posix_spawn(&pid_, arguments[0], &actions, nullptr, arguments.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (failure != 0)
    throw std::runtime_error(command[0] + ": " + std::strerror(failure));
}

process::~process() {
  if (pid_ < 0)
    return;
  try {
    const int status = stop();
    if (status == 0 || std::uncaught_exceptions() > 0)
      return;
    std::fprintf(stderr, "a process ended with %d\n%s", status, daemon_log().c_str());
  } catch (const std::exception &failure) {
    std::fprintf(stderr, "%s\n", failure.what());
  }
  std::_Exit(1);
}

void process::wait_name(bus_client &bus, const bus_target &target) {
  bus.receive([&](DBusMessage *arrived) {
    const char *name = nullptr;
    const char *before = nullptr;
    const char *after = nullptr;
    return dbus_message_is_signal(arrived, DBUS_INTERFACE_DBUS, "NameOwnerChanged") != 0 &&
           dbus_message_get_args(arrived, nullptr, DBUS_TYPE_STRING, &name, DBUS_TYPE_STRING,
                                 &before, DBUS_TYPE_STRING, &after, DBUS_TYPE_INVALID) != 0 &&
           std::strcmp(name, target.name) == 0 && bus.pid_of(after) == pid_;
  });
}

int process::wait() {
  int status = 0;
  const pid_t pid = std::exchange(pid_, -1);
  try {
    poll_until([&] { return waitpid(pid, &status, WNOHANG) != 0; }, "the end of a process");
  } catch (...) {
    kill(pid, SIGKILL);
    throw;
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

int process::stop() {
  kill(pid_, SIGTERM);
  return wait();
}

process launch_daemon(const daemon_start &start) {
  const std::uint32_t noon = time_of(kNoon);
  std::ofstream(kKeyFile) << "[set]\nTimeZone=UTC\nClocksRunning=false\nRtc=" << noon
                          << "\nTvClock=" << noon << '\n'
                          << start.keys << '\n';
  return process({"/usr/bin/env", std::string("DBUS_SYSTEM_BUS_ADDRESS=") + start.address,
                  std::string("DRAVEL_STANDIN=") + kKeyFile, std::string("DRAVEL_LOG=") + start.log,
                  "DRAVEL_LOG_STDERR=1", start.program},
                 kDaemonLog);
}

process start_daemon(const daemon_start &start, bus_client &bus) {
  process started = launch_daemon(start);
  started.wait_name(bus, kDaemon);
  wait_log("end scheduling...");
  return started;
}

std::string daemon_log() {
  std::ifstream in(kDaemonLog);
  return {std::istreambuf_iterator<char>(in), {}};
}

void wait_log(const std::string &text) {
  poll_until([&] { return daemon_log().find(text) != std::string::npos; }, text);
}
