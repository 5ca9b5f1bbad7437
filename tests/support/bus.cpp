#include "bus.h"

#include <gio/gio.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <stdexcept>

message method_call(const bus_target &target, const char *method) {
  return message(dbus_message_new_method_call(target.name, target.path, target.interface, method));
}

message request_with(const bus_target &target, const char *method, std::span<const int> arguments) {
  message request = method_call(target, method);
  DBusMessageIter out;
  dbus_message_iter_init_append(request.get(), &out);
  for (const int argument : arguments)
    dbus_message_iter_append_basic(&out, DBUS_TYPE_INT32, &argument);
  return request;
}

// GLib reads and prints the text form; libdbus sends what GLib has marshalled.
message request_of(const bus_target &target, const char *method, const std::string &arguments) {
  g_autoptr(GError) error = nullptr;
  g_autoptr(GVariant) body = g_variant_parse(nullptr, arguments.c_str(), nullptr, nullptr, &error);
  if (body == nullptr)
    throw std::runtime_error(arguments + ": " + error->message);
  g_autoptr(GDBusMessage) built =
      g_dbus_message_new_method_call(target.name, target.path, target.interface, method);
  g_dbus_message_set_body(built, body);
  g_dbus_message_set_serial(built, 1);
  gsize size = 0;
  g_autofree guchar *bytes =
      g_dbus_message_to_blob(built, &size, G_DBUS_CAPABILITY_FLAGS_NONE, nullptr);
  const message read(
      dbus_message_demarshal(reinterpret_cast<char *>(bytes), static_cast<int>(size), nullptr));
  return message(dbus_message_copy(read.get())); // which gets a serial number of its own
}

std::string body_text(DBusMessage *sent) {
  char *bytes = nullptr;
  int size = 0;
  dbus_message_marshal(sent, &bytes, &size);
  g_autoptr(GDBusMessage) read =
      g_dbus_message_new_from_blob(reinterpret_cast<guchar *>(bytes), static_cast<gsize>(size),
                                   G_DBUS_CAPABILITY_FLAGS_NONE, nullptr);
  dbus_free(bytes);
  GVariant *body = read != nullptr ? g_dbus_message_get_body(read) : nullptr;
  if (body == nullptr)
    return "()";
  g_autofree char *text = g_variant_print(body, FALSE);
  return text;
}

bus_client::bus_client(const char *address) {
  DBusError error = DBUS_ERROR_INIT;
  bus_ = dbus_connection_open_private(address, &error);
  if (bus_ == nullptr || !dbus_bus_register(bus_, &error))
    throw std::runtime_error(std::string("no bus: ") + error.message);
  dbus_connection_set_exit_on_disconnect(bus_, FALSE);
  listen("type='signal',member='NameOwnerChanged'"); // for the services that are to come
}

bus_client::~bus_client() {
  dbus_connection_close(bus_);
  dbus_connection_unref(bus_);
}

static message roundtrip(DBusConnection *bus, const message &request, DBusError *error = nullptr) {
  return message(dbus_connection_send_with_reply_and_block(bus, request.get(), kDeadlineMs, error));
}

message bus_client::send(const message &request) {
  DBusError error = DBUS_ERROR_INIT;
  message reply = roundtrip(bus_, request, &error);
  if (reply == nullptr)
    throw std::runtime_error(std::string(dbus_message_get_member(request.get())) + ": " +
                             error.message);
  return reply;
}

void bus_client::post(const message &request) {
  dbus_connection_send(bus_, request.get(), nullptr);
}

message bus_client::call(const bus_target &target, const char *method,
                         std::span<const int> arguments) {
  return send(request_with(target, method, arguments));
}

message bus_client::try_call(const bus_target &target, const char *method,
                             std::span<const int> arguments) {
  return roundtrip(bus_, request_with(target, method, arguments));
}

int int_of(const message &reply) {
  dbus_int32_t value = 0;
  if (!dbus_message_get_args(reply.get(), nullptr, DBUS_TYPE_INT32, &value, DBUS_TYPE_INVALID))
    throw std::runtime_error("a reply holds no integer");
  return value;
}

int bus_client::call_int(const bus_target &target, const char *method,
                         std::span<const int> arguments) {
  return int_of(call(target, method, arguments));
}

int bus_client::schedule(const bus_target &target, const timer_arguments &timer) {
  const int id = call_int(target, "schedule_timer", timer);
  if (id == -1)
    throw std::runtime_error("a timer was refused");
  return id;
}

void bus_client::cancel(const bus_target &target, int timer_id) {
  if (call_int(target, "cancel_timer", {&timer_id, 1}) != 0)
    throw std::runtime_error("a timer was not cancelled");
}

words image_of(const message &reply) {
  words result(1);
  const unsigned char *bytes = nullptr;
  int size = 0;
  if (!dbus_message_get_args(reply.get(), nullptr, DBUS_TYPE_INT32, result.data(), DBUS_TYPE_ARRAY,
                             DBUS_TYPE_BYTE, &bytes, &size, DBUS_TYPE_INVALID))
    throw std::runtime_error("a reply holds no image");
  result.resize(1 + static_cast<std::size_t>(size) / sizeof(int));
  std::copy_n(bytes, size, reinterpret_cast<unsigned char *>(result.data() + 1));
  return result;
}

words bus_client::list(const bus_target &target) {
  const int unused = 0;
  return image_of(call(target, "request_timer_list", {&unused, 1}));
}

std::string bus_client::ask(const bus_target &target, const char *method,
                            const std::string &arguments) {
  DBusError error = DBUS_ERROR_INIT;
  const message reply = roundtrip(bus_, request_of(target, method, arguments), &error);
  if (reply != nullptr)
    return body_text(reply.get());
  std::string name = error.name;
  dbus_error_free(&error);
  return name;
}

std::string bus_client::property(const char *name, const bus_target &object) {
  const std::string text = ask({object.name, object.path, DBUS_INTERFACE_PROPERTIES}, "Get",
                               std::string("('") + object.interface + "', '" + name + "')");
  return text.starts_with("(<") ? text.substr(2, text.size() - 5) : text; // of "(<...>,)"
}

bool bus_client::is_answered(const bus_target &target, const char *method,
                             const std::string &arguments) {
  dbus_uint32_t serial = 0;
  dbus_connection_send(bus_, request_of(target, method, arguments).get(), &serial);
  property("SyncDb");
  bool answered = false;
  drain([&](DBusMessage *sent) { answered |= dbus_message_get_reply_serial(sent) == serial; });
  return answered;
}

void bus_client::listen(const char *rule) { dbus_bus_add_match(bus_, rule, nullptr); }

void bus_client::receive(const std::function<bool(DBusMessage *)> &done) {
  using std::chrono::steady_clock;
  for (;;) {
    while (const auto arrived = message(dbus_connection_pop_message(bus_)))
      if (done(arrived.get()))
        return;
    const auto begun = steady_clock::now();
    if (!dbus_connection_read_write(bus_, kDeadlineMs))
      throw std::runtime_error("the bus is gone");
    if (steady_clock::now() - begun >= std::chrono::milliseconds(kDeadlineMs))
      throw std::runtime_error("what is waited for does not arrive");
  }
}

void bus_client::drain(const std::function<void(DBusMessage *)> &each) {
  while (const auto arrived = message(dbus_connection_pop_message(bus_)))
    each(arrived.get());
}

pid_t bus_client::pid_of(const char *connection) {
  const std::string pid = ask({DBUS_SERVICE_DBUS, DBUS_PATH_DBUS, DBUS_INTERFACE_DBUS},
                              "GetConnectionUnixProcessID", std::string("('") + connection + "',)");
  return pid.starts_with('(') ? std::atoi(pid.c_str() + 1) : -1;
}
