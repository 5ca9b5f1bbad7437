#include "daemon.h"

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>

#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr char service_name[] = "org.olvara.tv.system.dravel";
constexpr char service_path[] = "/org/olvara/tv/system/dravel";
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
    throw std::runtime_error("to be run through scripts/house: it removes the daemon's files");
  for (const auto &file :
       {main_db, wakeup_db, std::string("/tmp/dravel_init"), std::string("/tmp/dravel_finish")})
    std::filesystem::remove_all(file);
  bus_ = g_dbus_connection_new_for_address_sync(
      house_bus,
      static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                        G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
      nullptr, nullptr, nullptr);
  g_dbus_connection_add_filter(bus_, &hear, this, nullptr);
  for (const auto *rule : {"path_namespace='/org/olvara/tv'", "member='NameOwnerChanged'"})
    g_variant_unref(g_dbus_connection_call_sync(
        bus_, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "AddMatch",
        g_variant_new("(s)", rule), nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr));
}

daemon_test::~daemon_test() {
  if (pid_ > 0) {
    EXPECT_EQ(stop(), 0) << log_;
  }
  g_dbus_connection_close_sync(bus_, nullptr, nullptr);
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
    execl(DRAVEL_MANAGER, DRAVEL_MANAGER, nullptr);
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

GVariant *daemon_test::ask(const char *path, const char *interface, const char *method,
                           const std::string &arguments, std::string &text) {
  g_autoptr(GError) error = nullptr;
  GVariant *reply = g_dbus_connection_call_sync(
      bus_, service_name, path, interface, method, g_variant_new_parsed(arguments.c_str()), nullptr,
      G_DBUS_CALL_FLAGS_NONE, deadline_ms, nullptr, &error);
  g_autofree char *name = reply == nullptr ? g_dbus_error_get_remote_error(error) : nullptr;
  text = reply != nullptr ? text_of(reply) : name != nullptr ? name : error->message;
  return reply;
}

std::string daemon_test::call(const char *method, const std::string &arguments) {
  std::string text;
  g_autoptr(GVariant) reply = ask(service_path, service_name, method, arguments, text);
  return text;
}

std::string daemon_test::standin(const char *method, const std::string &arguments) {
  std::string text;
  g_autoptr(GVariant) reply = ask(standin_path, standin_name, method, arguments, text);
  return text;
}

std::string daemon_test::get(const std::string &property) {
  std::string text;
  g_autoptr(GVariant) reply =
      ask(standin_path, properties, "Get",
          std::string("('") + standin_name + "', '" + property + "')", text);
  return reply != nullptr ? text.substr(2, text.size() - 5) : text; // of "(<...>,)"
}

void daemon_test::set(const std::string &property, const std::string &value) {
  std::string text;
  g_autoptr(GVariant) reply =
      ask(standin_path, properties, "Set",
          std::string("('") + standin_name + "', '" + property + "', <" + value + ">)", text);
  EXPECT_EQ(text, "()") << property;
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

strings daemon_test::members() {
  std::string text;
  g_autoptr(GVariant) reply =
      ask(service_path, "org.freedesktop.DBus.Introspectable", "Introspect", "()", text);
  const char *xml = "";
  if (reply != nullptr)
    g_variant_get(reply, "(&s)", &xml);
  g_autoptr(GDBusNodeInfo) node = g_dbus_node_info_new_for_xml(xml, nullptr);
  auto *interface =
      node != nullptr ? g_dbus_node_info_lookup_interface(node, service_name) : nullptr;
  if (interface == nullptr)
    return {text};
  const auto signature = [](GDBusArgInfo **arguments) {
    std::string types;
    for (; arguments != nullptr && *arguments != nullptr; ++arguments)
      types += (*arguments)->signature;
    return types;
  };
  strings result;
  for (auto **method = interface->methods; method != nullptr && *method != nullptr; ++method)
    result.push_back((*method)->name + ("(" + signature((*method)->in_args)) + ")" +
                     signature((*method)->out_args));
  for (auto **signal = interface->signals; signal != nullptr && *signal != nullptr; ++signal)
    result.push_back((*signal)->name + (":" + signature((*signal)->args)));
  return result;
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

std::vector<words> daemon_test::records(const char *method, const std::string &arguments,
                                        std::size_t size) {
  std::string text;
  g_autoptr(GVariant) reply = ask(service_path, service_name, method, arguments, text);
  std::vector<words> result(1, words(1, -1));
  if (reply == nullptr || !g_variant_is_of_type(reply, G_VARIANT_TYPE("(iay)"))) {
    ADD_FAILURE() << method << " answered " << text;
    return result;
  }
  g_autoptr(GVariant) bytes = nullptr;
  g_variant_get(reply, "(i@ay)", result[0].data(), &bytes);
  gsize count = 0;
  const auto *data = static_cast<const std::uint8_t *>(g_variant_get_fixed_array(bytes, &count, 1));
  EXPECT_EQ(count % size, 0U);
  for (gsize at = 0; at + 4 <= count; at += 4) {
    if (at % size == 0)
      result.emplace_back();
    result.back().push_back(static_cast<std::int32_t>(
        data[at] | data[at + 1] << 8 | data[at + 2] << 16 | std::uint32_t{data[at + 3]} << 24));
  }
  return result;
}

words daemon_test::timer_ids() {
  words ids;
  for (const auto &record : records("request_timer_list", "(0,)", 76))
    ids.push_back(record.front());
  EXPECT_EQ(ids.front(), static_cast<int>(ids.size()) - 1);
  ids.erase(ids.begin());
  return ids;
}

strings daemon_test::events() {
  get("SyncDb"); // what was sent before this answer has been heard
  const std::lock_guard guard(mutex_);
  return std::exchange(events_, {});
}

void daemon_test::wait_event(const std::string &event) {
  wait([&] { return std::find(events_.begin(), events_.end(), event) != events_.end(); }, event);
}

void daemon_test::wait_log(const std::string &text) {
  wait([&] { return log_.find(text) != std::string::npos; }, text);
}

strings rows(const std::string &database, const std::string &statements) {
  const auto add = [](void *out, int count, char **values, char **) {
    std::string row;
    for (int i = 0; i < count; ++i)
      row += (i > 0 ? "|" : "") + std::string(values[i] != nullptr ? values[i] : "NULL");
    static_cast<strings *>(out)->push_back(row);
    return 0;
  };
  sqlite3 *db = nullptr;
  strings result;
  sqlite3_open(database.c_str(), &db);
  if (sqlite3_exec(db, statements.c_str(), add, &result, nullptr) != SQLITE_OK)
    result = {sqlite3_errmsg(db)};
  sqlite3_close(db);
  return result;
}
