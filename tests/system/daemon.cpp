#include "daemon.h"

#include <algorithm>
#include <cstdlib>
#include <string_view>
#include <utility>

daemon_test::daemon_test() {
  empty_store();
  for (const bus_target &sender : {kDaemon, kStandin, kState})
    bus_.listen((std::string("type='signal',path='") + sender.path + "'").c_str());
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
  daemon_.emplace(start_daemon(start_with(kSandboxBus, set), bus_));
}

int daemon_test::wait_exit() {
  const int status = daemon_->wait();
  daemon_.reset();
  return status;
}

int daemon_test::stop() {
  const int status = daemon_->stop();
  daemon_.reset();
  return status;
}

std::string daemon_test::call(const char *method, const std::string &arguments) {
  return bus_.ask(kDaemon, method, arguments);
}

std::string daemon_test::standin(const char *method, const std::string &arguments) {
  return bus_.ask(kStandin, method, arguments);
}

bool daemon_test::is_answered(const char *method, const std::string &arguments) {
  return bus_.is_answered(kDaemon, method, arguments);
}

int daemon_test::schedule(const new_timer &timer) {
  return bus_.call_int(kDaemon, "schedule_timer", arguments_of(timer));
}

words daemon_test::image(const char *method, int argument) {
  return image_of(bus_.call(kDaemon, method, {&argument, 1}));
}

words daemon_test::timer_ids() {
  const words list = bus_.list(kDaemon);
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
  strings &kept = path == std::string_view(kState.path) ? state_signals_ : events_;
  kept.push_back(dbus_message_get_member(arrived) + body_text(arrived));
  return kept.back().find(awaited) != std::string::npos;
}

strings daemon_test::events() {
  get("SyncDb"); // what was sent before this answer has arrived
  bus_.drain([this](DBusMessage *arrived) { keep_event(arrived, ""); });
  return std::exchange(events_, {});
}

strings daemon_test::state_signals(const std::string &last) {
  const auto is_last = [&](const std::string &signal) {
    return signal.find(last) != std::string::npos;
  };
  if (std::ranges::none_of(state_signals_, is_last))
    wait_event(last);
  return std::exchange(state_signals_, {});
}

void daemon_test::wait_event(const std::string &event) {
  bus_.receive([&](DBusMessage *arrived) { return keep_event(arrived, event); });
}

int times_logged(const std::string &text) {
  const std::string log = daemon_log();
  int times = 0;
  for (auto at = log.find(text); at != std::string::npos; at = log.find(text, at + 1))
    ++times;
  return times;
}
