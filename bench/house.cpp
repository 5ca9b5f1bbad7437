#include "house.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <utility>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

static constexpr int reply_timeout_ms = 30000;

static message own(DBusMessage *owned) { return {owned, dbus_message_unref}; }

void fail(const std::string &what) {
  std::fprintf(stderr, "%s: %s\n", program_invocation_short_name, what.c_str());
  std::exit(1);
}

void prepare_house() {
  const char *run = std::getenv("XDG_RUNTIME_DIR");
  if (run == nullptr || std::strcmp(run, "/run/bench") != 0)
    fail("run through scripts/house");
  setenv("DRAVEL_LOG", "error", 1);
  unsetenv("DRAVEL_LOG_STDERR");
}

std::uint32_t wall_clock() { return static_cast<std::uint32_t>(std::time(nullptr)); }

double precise_wall_clock() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

double microseconds() {
  const auto now = std::chrono::steady_clock::now().time_since_epoch();
  return std::chrono::duration<double, std::micro>(now).count();
}

timer_arguments timer_at(std::uint32_t time, int type, int week_flag) {
  const std::time_t seconds = time;
  std::tm tm{};
  gmtime_r(&seconds, &tm);
  return {type,       week_flag,  0,          0,         tm.tm_year,
          tm.tm_mon,  tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec,
          tm.tm_wday, tm.tm_yday, 0,          0,         0};
}

timer_arguments household_timer(std::uint32_t from, int index, bool repeating) {
  constexpr int workdays = 0x3e;
  constexpr std::uint32_t minute = 60;
  const std::uint32_t time =
      from / minute * minute + static_cast<unsigned>(index + 4) * 15 * minute;
  const int type = index % 2 == 0 ? 2 : 1;
  return timer_at(time, type, repeating && index % 4 < 2 ? workdays : 0);
}

bus_client::bus_client(const char *address) {
  DBusError error = DBUS_ERROR_INIT;
  bus_ = address != nullptr ? dbus_connection_open_private(address, &error)
                            : dbus_bus_get_private(DBUS_BUS_SYSTEM, &error);
  if (bus_ == nullptr || !dbus_bus_register(bus_, &error))
    fail(std::string("no bus: ") + error.message);
  dbus_connection_set_exit_on_disconnect(bus_, FALSE);
  listen("type='signal',member='NameOwnerChanged'"); // for the services that are to come
}

bus_client::~bus_client() {
  dbus_connection_close(bus_);
  dbus_connection_unref(bus_);
}

message bus_client::send(message request) {
  DBusError error = DBUS_ERROR_INIT;
  message reply =
      own(dbus_connection_send_with_reply_and_block(bus_, request.get(), reply_timeout_ms, &error));
  if (!reply)
    fail(std::string(dbus_message_get_member(request.get())) + ": " + error.message);
  return reply;
}

static message request_with(const bus_target &target, const char *method,
                            std::span<const dbus_int32_t> arguments) {
  message request =
      own(dbus_message_new_method_call(target.name, target.path, target.interface, method));
  DBusMessageIter out;
  dbus_message_iter_init_append(request.get(), &out);
  for (const dbus_int32_t &argument : arguments)
    dbus_message_iter_append_basic(&out, DBUS_TYPE_INT32, &argument);
  return request;
}

message bus_client::call(const bus_target &target, const char *method,
                         std::span<const dbus_int32_t> arguments) {
  return send(request_with(target, method, arguments));
}

message bus_client::try_call(const bus_target &target, const char *method,
                             std::span<const dbus_int32_t> arguments, int timeout_ms) {
  return own(dbus_connection_send_with_reply_and_block(
      bus_, request_with(target, method, arguments).get(), timeout_ms, nullptr));
}

bool bus_client::is_answered(message request) {
  DBusPendingCall *pending = nullptr;
  dbus_connection_send_with_reply(bus_, request.get(), &pending, reply_timeout_ms);
  const dbus_int32_t unused = 0;
  call(daemon_service, "request_get_timers_halt_effect", {&unused, 1});
  while (dbus_connection_dispatch(bus_) == DBUS_DISPATCH_DATA_REMAINS)
    continue;
  const bool answered = dbus_pending_call_get_completed(pending) != 0;
  dbus_pending_call_cancel(pending);
  dbus_pending_call_unref(pending);
  return answered;
}

dbus_int32_t bus_client::call_int(const bus_target &target, const char *method,
                                  std::span<const dbus_int32_t> arguments) {
  const message reply = call(target, method, arguments);
  dbus_int32_t value = 0;
  if (!dbus_message_get_args(reply.get(), nullptr, DBUS_TYPE_INT32, &value, DBUS_TYPE_INVALID))
    fail(std::string(method) + " answered no integer");
  return value;
}

std::vector<unsigned char> bus_client::list(const bus_target &target) {
  const dbus_int32_t unused = 0;
  const message reply = call(target, "request_timer_list", {&unused, 1});
  dbus_int32_t count = 0;
  const unsigned char *images = nullptr;
  int size = 0;
  if (!dbus_message_get_args(reply.get(), nullptr, DBUS_TYPE_INT32, &count, DBUS_TYPE_ARRAY,
                             DBUS_TYPE_BYTE, &images, &size, DBUS_TYPE_INVALID))
    fail("request_timer_list answered no list");
  return {images, images + size};
}

void bus_client::keep(const bus_target &target, const std::vector<unsigned char> &images) {
  message request =
      own(dbus_message_new_method_call(target.name, target.path, target.interface, "keep"));
  const unsigned char *data = images.data();
  dbus_message_append_args(request.get(), DBUS_TYPE_ARRAY, DBUS_TYPE_BYTE, &data,
                           static_cast<int>(images.size()), DBUS_TYPE_INVALID);
  send(std::move(request));
}

void bus_client::set(const char *name, int type, const void *value) {
  message request = own(dbus_message_new_method_call(daemon_set.name, daemon_set.path,
                                                     DBUS_INTERFACE_PROPERTIES, "Set"));
  const char signature[] = {static_cast<char>(type), '\0'};
  DBusMessageIter out;
  DBusMessageIter variant;
  dbus_message_iter_init_append(request.get(), &out);
  dbus_message_iter_append_basic(&out, DBUS_TYPE_STRING, &daemon_set.interface);
  dbus_message_iter_append_basic(&out, DBUS_TYPE_STRING, &name);
  dbus_message_iter_open_container(&out, DBUS_TYPE_VARIANT, signature, &variant);
  dbus_message_iter_append_basic(&variant, type, value);
  dbus_message_iter_close_container(&out, &variant);
  send(std::move(request));
}

void bus_client::set_property(const char *name, int type, std::uint32_t value) {
  set(name, type, &value);
}

void bus_client::set_text(const char *name, const char *value) {
  set(name, DBUS_TYPE_STRING, &value);
}

std::uint32_t bus_client::property(const char *name) {
  message request = own(dbus_message_new_method_call(daemon_set.name, daemon_set.path,
                                                     DBUS_INTERFACE_PROPERTIES, "Get"));
  dbus_message_append_args(request.get(), DBUS_TYPE_STRING, &daemon_set.interface, DBUS_TYPE_STRING,
                           &name, DBUS_TYPE_INVALID);
  const message reply = send(std::move(request));
  DBusMessageIter in;
  DBusMessageIter variant;
  dbus_message_iter_init(reply.get(), &in);
  dbus_message_iter_recurse(&in, &variant);
  std::uint32_t value = 0;
  if (dbus_message_iter_get_arg_type(&variant) != DBUS_TYPE_UINT32)
    fail(std::string(name) + " is no unsigned number");
  dbus_message_iter_get_basic(&variant, &value);
  return value;
}

int bus_client::schedule(const bus_target &target, const timer_arguments &timer) {
  const int id = call_int(target, "schedule_timer", timer);
  if (id == -1)
    fail("a timer was refused");
  return id;
}

void bus_client::cancel(const bus_target &target, int timer_id) {
  const dbus_int32_t id = timer_id;
  if (call_int(target, "cancel_timer", {&id, 1}) != 0)
    fail("a timer was not cancelled");
}

pid_t bus_client::pid_of(const char *connection) {
  const message request = own(dbus_message_new_method_call(
      DBUS_SERVICE_DBUS, DBUS_PATH_DBUS, DBUS_INTERFACE_DBUS, "GetConnectionUnixProcessID"));
  dbus_message_append_args(request.get(), DBUS_TYPE_STRING, &connection, DBUS_TYPE_INVALID);
  const message reply = own(
      dbus_connection_send_with_reply_and_block(bus_, request.get(), reply_timeout_ms, nullptr));
  std::uint32_t pid = 0;
  if (!reply ||
      !dbus_message_get_args(reply.get(), nullptr, DBUS_TYPE_UINT32, &pid, DBUS_TYPE_INVALID))
    return -1;
  return static_cast<pid_t>(pid);
}

void bus_client::listen(const char *rule) {
  DBusError error = DBUS_ERROR_INIT;
  dbus_bus_add_match(bus_, rule, &error);
  if (dbus_error_is_set(&error))
    fail(error.message);
}

void bus_client::receive(const std::function<bool(DBusMessage *)> &done) {
  for (;;) {
    while (const message arrived = own(dbus_connection_pop_message(bus_)))
      if (done(arrived.get()))
        return;
    const double before = microseconds();
    if (!dbus_connection_read_write(bus_, reply_timeout_ms))
      fail("the bus is gone");
    if (microseconds() - before > 1e3 * reply_timeout_ms)
      fail("nothing arrives any more");
  }
}

pid_t start(const std::vector<std::string> &command, const char *errors) {
  std::vector<char *> arguments;
  for (const std::string &argument : command)
    arguments.push_back(const_cast<char *>(argument.c_str()));
  arguments.push_back(nullptr);

  pid_t pid = -1;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, errors, O_WRONLY | O_CREAT | O_APPEND,
                                   0644);
  const int spawned = posix_spawn(&pid, arguments[0], &actions, nullptr, arguments.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (spawned != 0)
    fail(command[0] + ": " + std::strerror(spawned));
  return pid;
}

int end(pid_t pid) {
  int status = 0;
  const double begun = microseconds();
  while (waitpid(pid, &status, WNOHANG) == 0) {
    if (microseconds() - begun > 1e3 * reply_timeout_ms) {
      kill(pid, SIGKILL);
      fail("a process does not end");
    }
    usleep(500);
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

service::service(bus_client &bus, const bus_target &target, const std::vector<std::string> &command,
                 const char *errors) {
  pid_ = start(command, errors);
  bus.receive([&](DBusMessage *arrived) {
    const char *name = nullptr;
    const char *before = nullptr;
    const char *after = nullptr;
    return dbus_message_is_signal(arrived, DBUS_INTERFACE_DBUS, "NameOwnerChanged") &&
           dbus_message_get_args(arrived, nullptr, DBUS_TYPE_STRING, &name, DBUS_TYPE_STRING,
                                 &before, DBUS_TYPE_STRING, &after, DBUS_TYPE_INVALID) &&
           std::strcmp(name, target.name) == 0 && bus.pid_of(after) == pid_;
  });
}

service::~service() {
  if (pid_ < 0)
    return;
  kill(pid_, SIGTERM);
  if (wait() != 0)
    fail("a service did not end in order");
}

int service::wait() { return end(std::exchange(pid_, -1)); }

void empty_store() {
  for (const auto &entry : std::filesystem::directory_iterator("/opt/dbspace/"))
    std::filesystem::remove(entry);
  for (const char *marker : {"/tmp/dravel_init", "/tmp/dravel_finish"})
    std::filesystem::remove(marker);
}
