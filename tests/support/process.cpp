#include "process.h"

#include <gio/gio.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <functional>
#include <iterator>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>

static constexpr useconds_t kPollUs = 500;

// False when it does not become true in time.
static bool poll_until(const std::function<bool()> &condition) {
  using std::chrono::steady_clock;
  const auto deadline = steady_clock::now() + std::chrono::milliseconds(kDeadlineMs);
  while (!condition()) {
    if (steady_clock::now() > deadline)
      return false;
    usleep(kPollUs);
  }
  return true;
}

process::process(std::vector<std::string> command, const char *errors) {
  std::vector<char *> arguments;
  arguments.reserve(command.size() + 1);
  for (std::string &argument : command)
    arguments.push_back(argument.data());
  arguments.push_back(nullptr);
  const int out = creat(errors, 0644);
  g_autoptr(GError) failure = nullptr;
  g_spawn_async_with_fds(nullptr, arguments.data(), nullptr, G_SPAWN_DO_NOT_REAP_CHILD, nullptr,
                         nullptr, &pid_, -1, -1, out, &failure);
  close(out);
  if (failure != nullptr)
    throw std::runtime_error(failure->message);
}

process::~process() {
  const int status = pid_ < 0 ? 0 : stop();
  if (status == 0 || std::uncaught_exceptions() > 0)
    return;
  std::fprintf(stderr, "a process ended with %d\n%s", status, daemon_log().c_str());
  std::_Exit(1);
}

void process::wait_name(bus_client &bus, const bus_target &target) {
  bus.receive([&](DBusMessage *) { return bus.pid_of(target.name) == pid_; });
}

int process::wait() {
  int status = 0;
  const pid_t pid = std::exchange(pid_, -1);
  if (!poll_until([&] { return waitpid(pid, &status, WNOHANG) != 0; })) {
    kill(pid, SIGKILL);
    waitpid(pid, &status, 0);
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

int process::stop() {
  kill(pid_, SIGTERM);
  return wait();
}

std::string daemon_log() {
  std::ifstream in(kDaemonLog);
  return {std::istreambuf_iterator<char>(in), {}};
}

void wait_log(const std::string &text) {
  if (!poll_until([&] { return daemon_log().find(text) != std::string::npos; }))
    throw std::runtime_error(text + " does not come");
}
