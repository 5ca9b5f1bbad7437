#include "daemon.h"

#include <glib.h>

#include <cstdlib>
#include <string_view>
#include <sys/wait.h>
#include <utility>

daemon_test::daemon_test(std::initializer_list<bus_target> heard) {
  empty_store();
  for (const bus_target &sender : heard)
    bus.listen((std::string("type='signal',path='") + sender.path + "'").c_str());
}

daemon_test::~daemon_test() {
  if (daemon_) {
    EXPECT_EQ(stop(), 0) << daemon_log();
  }
}

// A build for another processor runs through a script of its own.
static daemon_start start_with(const char *address, const std::string &set) {
  const char *other = std::getenv("DRAVEL_MANAGER");
  return {other != nullptr ? other : DRAVEL_MANAGER, set, "debug", address};
}

void daemon_test::launch(const char *bus_address, const std::string &set) {
  daemon_.emplace(launch_daemon(start_with(bus_address, set)));
}

void daemon_test::start(const std::string &set) {
  daemon_.emplace(start_daemon(start_with(kSandboxBus, set), bus));
}

int daemon_test::wait_exit() {
  const int status = daemon_->wait();
  daemon_.reset();
  return status;
}

int daemon_test::stop() {
  kill(daemon_->pid(), SIGTERM);
  return wait_exit();
}

int daemon_test::schedule(const new_timer &timer) {
  return bus.call_int(kDaemon, "schedule_timer", arguments_of(timer));
}

words daemon_test::image(const char *method, int argument) {
  return image_of(bus.call(kDaemon, method, {&argument, 1}));
}

words daemon_test::timer_ids() {
  const words list = bus.list(kDaemon);
  words ids;
  for (std::size_t i = 1; i < list.size(); i += TIMER_WORDS)
    ids.push_back(list[i]);
  EXPECT_EQ(list[0], static_cast<int>(ids.size()));
  return ids;
}

// True when it is the awaited one.
bool daemon_test::keep_event(DBusMessage *arrived, const std::string &awaited) {
  const char *path = dbus_message_get_path(arrived);
  if (path == nullptr || path == std::string_view(DBUS_PATH_DBUS))
    return false;
  events_.push_back(dbus_message_get_member(arrived) + body_text(arrived));
  return events_.back().find(awaited) != std::string::npos;
}

strings daemon_test::events() {
  get("SyncDb"); // what was sent before this answer has arrived
  bus.drain([this](DBusMessage *arrived) { keep_event(arrived, ""); });
  return std::exchange(events_, {});
}

void daemon_test::wait_event(const std::string &event) {
  bus.receive([&](DBusMessage *arrived) { return keep_event(arrived, event); });
}

outcome shell(const std::string &script) {
  const std::string whole = "PATH=$(dirname " DRAVELCTL "):$PATH TZ=UTC LC_ALL=C.UTF-8\n"
                            "export PATH TZ LC_ALL\ncd /tmp\nexec 2>&1\n" +
                            script;
  const char *command[] = {"/bin/sh", "-c", whole.c_str(), nullptr};
  g_autofree char *said = nullptr;
  int status = -1;
  g_spawn_sync(nullptr, const_cast<char **>(command), nullptr, G_SPAWN_DEFAULT, nullptr, nullptr,
               &said, nullptr, &status, nullptr);
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, said};
}
