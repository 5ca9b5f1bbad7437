#include "daemon.h"

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>

#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr char service_name[] = "org.olvara.tv.system.dravel";
constexpr char service_path[] = "/org/olvara/tv/system/dravel";
constexpr char state_name[] = "org.olvara.tv.system.dravel.state";
constexpr char state_path[] = "/org/olvara/tv/system/dravel/state";
constexpr char standin_name[] = "org.olvara.tv.standin";
constexpr char standin_path[] = "/org/olvara/tv/standin";
constexpr char properties[] = "org.freedesktop.DBus.Properties";
constexpr char house_bus[] = "unix:path=/run/bench/bus";
constexpr char key_file[] = "/tmp/standin.ini";
constexpr int deadline_ms = 10000; // only ever reached by a failing test

std::string text_of(GVariant *value) {
  g_autofree char *text = g_variant_print(value, FALSE);
  return text;
}

} // namespace

daemon_test::daemon_test() {
  if (g_strcmp0(g_getenv("DBUS_SYSTEM_BUS_ADDRESS"), house_bus) != 0)
    throw std::runtime_error("to be run through scripts/sandbox: it removes the daemon's files");
  for (const auto &file : {kMainDb, kWakeupDb, "/tmp/dravel_init", "/tmp/dravel_finish"})
    std::filesystem::remove_all(file);
  bus_ = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
  filter_ = g_dbus_connection_add_filter(bus_, &hear, this, nullptr);
  g_variant_unref(g_dbus_connection_call_sync(bus_, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                              "org.freedesktop.DBus", "AddMatch",
                                              g_variant_new("(s)", "type='signal'"), nullptr,
                                              G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr));
}

daemon_test::~daemon_test() {
  if (pid_ > 0) {
    EXPECT_EQ(stop(), 0) << log_;
  }
  g_dbus_connection_remove_filter(bus_, filter_);
  g_object_unref(bus_);
}

// Runs on the bus's own thread, in the order of the messages.
GDBusMessage *daemon_test::hear(GDBusConnection *, GDBusMessage *message, gboolean incoming,
                                void *self) {
  auto *test = static_cast<daemon_test *>(self);
  if (!incoming)
    return message;
  const std::lock_guard guard(test->mutex_);
  const std::string path = g_dbus_message_get_path(message) ? g_dbus_message_get_path(message) : "";
  GVariant *body = g_dbus_message_get_body(message);
  if (const auto serial = g_dbus_message_get_reply_serial(message); serial != 0) {
    test->answered_.push_back(serial);
  } else if (path == service_path || path == standin_path) {
    test->events_.push_back(g_dbus_message_get_member(message) + text_of(body));
  } else if (path == state_path) {
    test->state_signals_.push_back(g_dbus_message_get_member(message) + text_of(body));
  } else if (const std::string what = text_of(body); what.starts_with("('org.olvara")) {
    test->owned_ = !what.ends_with(", '')");
  }
  test->changed_.notify_all();
  return message;
}

void daemon_test::wait(const std::function<bool()> &condition, const std::string &what) {
  std::unique_lock guard(mutex_);
  if (!changed_.wait_for(guard, std::chrono::milliseconds(deadline_ms), condition))
    ADD_FAILURE() << "waited in vain for " << what << "\n" << log_;
}

void daemon_test::launch(const std::string &bus_address, const std::string &set) {
  const std::string clock = std::to_string(noon);
  std::ofstream(key_file) << "[set]\nTimeZone=UTC\nClocksRunning=false\nRtc=" << clock
                          << "\nTvClock=" << clock << "\n"
                          << set;
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  ended_ = false;
  log_.clear();
  pid_ = fork();
  if (pid_ == 0) {
    dup2(ends[1], STDERR_FILENO);
    close(ends[0]);
    setenv("DBUS_SYSTEM_BUS_ADDRESS", bus_address.c_str(), 1);
    setenv("DRAVEL_STANDIN", key_file, 1);
    setenv("DRAVEL_LOG", "debug", 1);
    setenv("DRAVEL_LOG_STDERR", "1", 1);
    // A build for another processor runs through a script of its own.
    const char *other = g_getenv("DRAVEL_MANAGER");
    const char *program = other != nullptr ? other : DRAVEL_MANAGER;
    execl(program, program, nullptr);
    _exit(127);
  }
  close(ends[1]);
  reader_ = std::thread([this, end = ends[0]] {
    char piece[4096];
    ssize_t size = 0;
    do {
      size = read(end, piece, sizeof piece);
      const std::lock_guard guard(mutex_);
      if (size > 0)
        log_.append(piece, static_cast<std::size_t>(size));
      ended_ = size <= 0;
      changed_.notify_all();
    } while (size > 0);
    close(end);
  });
}

void daemon_test::start(const std::string &set) {
  launch(house_bus, set);
  wait([this] { return owned_ || ended_; }, "the name");
  wait_log("end scheduling...");
}

int daemon_test::stop() {
  kill(pid_, SIGTERM);
  return wait_exit();
}

int daemon_test::wait_exit() {
  wait([this] { return ended_ && !owned_; }, "the end of the process");
  kill(pid_, SIGKILL); // of use only when that wait was in vain
  int status = 0;
  waitpid(pid_, &status, 0);
  reader_.join();
  pid_ = -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::string daemon_test::ask(const char *path, const char *interface, const char *method,
                             const std::string &arguments) {
  g_autoptr(GError) error = nullptr;
  g_autoptr(GVariant) reply = g_dbus_connection_call_sync(
      bus_, service_name, path, interface, method, g_variant_new_parsed(arguments.c_str()), nullptr,
      G_DBUS_CALL_FLAGS_NONE, deadline_ms, nullptr, &error);
  if (reply != nullptr)
    return text_of(reply);
  g_autofree char *name = g_dbus_error_get_remote_error(error);
  return name != nullptr ? name : error->message;
}

std::string daemon_test::call(const char *method, const std::string &arguments) {
  return ask(service_path, service_name, method, arguments);
}

std::string daemon_test::standin(const char *method, const std::string &arguments) {
  return ask(standin_path, standin_name, method, arguments);
}

static std::string value_of(const std::string &text) {
  return text.starts_with("(<") ? text.substr(2, text.size() - 5) : text; // of "(<...>,)"
}

std::string daemon_test::get(const std::string &property) {
  return value_of(
      ask(standin_path, properties, "Get", "('org.olvara.tv.standin', '" + property + "')"));
}

std::string daemon_test::state(const std::string &property) {
  return value_of(ask(state_path, properties, "Get",
                      std::string("('") + state_name + "', '" + property + "')"));
}

void daemon_test::set(const std::string &property, const std::string &value) {
  EXPECT_EQ(ask(standin_path, properties, "Set",
                "('org.olvara.tv.standin', '" + property + "', <" + value + ">)"),
            "()")
      << property;
}

bool daemon_test::is_answered(const char *method, const std::string &arguments) {
  g_autoptr(GDBusMessage) message =
      g_dbus_message_new_method_call(service_name, service_path, service_name, method);
  g_dbus_message_set_body(message, g_variant_new_parsed(arguments.c_str()));
  std::uint32_t serial = 0;
  g_dbus_connection_send_message(bus_, message, G_DBUS_SEND_MESSAGE_FLAGS_NONE, &serial, nullptr);
  EXPECT_EQ(get("SyncDb"), "0");
  const std::lock_guard guard(mutex_);
  return std::find(answered_.begin(), answered_.end(), serial) != answered_.end();
}

int daemon_test::schedule(const timer &timer) {
  const std::time_t at = timer.at;
  std::tm tm = {};
  gmtime_r(&at, &tm);
  std::string arguments;
  for (const int value : {timer.type, timer.week_flag, timer.priority, 0, tm.tm_year, tm.tm_mon,
                          tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, tm.tm_wday, tm.tm_yday, 0,
                          timer.disable_period_effect, timer.time_type})
    arguments += (arguments.empty() ? "(" : ", ") + std::to_string(value);
  const std::string reply = call("schedule_timer", arguments + ")");
  return std::atoi(reply.c_str() + 1);
}

words daemon_test::image(const char *method, const std::string &arguments) {
  const std::string text = call(method, arguments);
  words result(1, -1);
  g_autoptr(GVariant) reply =
      g_variant_parse(G_VARIANT_TYPE("(iay)"), text.c_str(), nullptr, nullptr, nullptr);
  if (reply == nullptr)
    throw std::runtime_error(text);
  g_autoptr(GVariant) bytes = nullptr;
  g_variant_get(reply, "(i@ay)", result.data(), &bytes);
  gsize size = 0;
  const void *data = g_variant_get_fixed_array(bytes, &size, 1);
  result.resize(1 + size / 4);
  std::copy_n(static_cast<const std::uint8_t *>(data), size,
              reinterpret_cast<std::uint8_t *>(&result[1]));
  return result;
}

words daemon_test::timer_ids() {
  const words list = image("request_timer_list", "(0,)");
  words ids;
  for (std::size_t i = 1; i < list.size(); i += 19)
    ids.push_back(list[i]);
  EXPECT_EQ(list[0], static_cast<int>(ids.size()));
  return ids;
}

strings daemon_test::events() {
  get("SyncDb"); // what was sent before this answer has been heard
  const std::lock_guard guard(mutex_);
  return std::exchange(events_, {});
}

strings daemon_test::state_signals(const std::string &last) {
  const auto is_last = [&](const std::string &signal) {
    return signal.find(last) != std::string::npos;
  };
  wait([&] { return std::ranges::any_of(state_signals_, is_last); }, last);
  const std::lock_guard guard(mutex_);
  return std::exchange(state_signals_, {});
}

void daemon_test::wait_event(const std::string &event) {
  wait([&] { return std::find(events_.begin(), events_.end(), event) != events_.end(); }, event);
}

void daemon_test::wait_log(const std::string &text) {
  wait([&] { return log_.find(text) != std::string::npos; }, text);
}

int daemon_test::times_logged(const std::string &text) {
  const std::lock_guard guard(mutex_);
  int times = 0;
  for (auto at = log_.find(text); at != std::string::npos; at = log_.find(text, at + 1))
    ++times;
  return times;
}
