#include "standin_private.h"

#include <E_DBus.h>
#include <Ecore.h>

#include <algorithm>
#include <memory>

static constexpr const char *kPath = "/org/olvara/tv/standin";
static constexpr const char *kInterface = "org.olvara.tv.standin";

namespace {

struct set_event {
  const char *method;
  const char *signature; // up to two integers
  void (*deliver)(int first, int second);
};

} // namespace

static constexpr set_event kEvents[] = {
    {"PowerOff", "i", [](int option, int) { standin_power_off(option); }},
    {"Standby", "i", [](int option, int) { standin_standby(option); }},
    {"Wakeup", "i", [](int reason, int) { standin_wakeup(reason); }},
    {"AmbientPowerOff", "", [](int, int) { standin_ambient_power_off(); }},
    {"StateChanged", "ii", standin_state_changed},
    {"TimeSet", "", [](int, int) { standin_announce_time_set(); }},
    {"MiddlewareSignal", "i", [](int type, int) { standin_middleware_signal(type); }},
};

namespace {

using signal_ptr = std::unique_ptr<DBusMessage, decltype(&dbus_message_unref)>;

} // namespace

static bool exported = false;

// --- properties ---

static const standin_property *find_property(std::string_view name) {
  const auto properties = standin_properties();
  const auto found = std::ranges::find(properties, name, &standin_property::name);
  return found == properties.end() ? nullptr : &*found;
}

// The binding asks for no other names than those of the table.
static void get_property(E_DBus_Object *, const char *name, DBusMessageIter *out) {
  const standin_property &property = *find_property(name);
  const standin_value value = property.get();
  DBusBasicValue basic = {};
  if (property.type == DBUS_TYPE_STRING)
    basic.str = const_cast<char *>(value.text.c_str());
  else
    basic.u32 = static_cast<std::uint32_t>(value.number);
  dbus_message_iter_append_basic(out, property.type, &basic);
}

static standin_value read_value(DBusMessageIter *in, char type) {
  DBusBasicValue basic;
  dbus_message_iter_get_basic(in, &basic);
  switch (type) {
  case DBUS_TYPE_STRING:
    return {0, basic.str};
  case DBUS_TYPE_INT32:
    return {basic.i32, {}};
  default:
    return {basic.u32, {}};
  }
}

static int set_property(E_DBus_Object *, const char *name, DBusMessageIter *in) {
  const standin_property &property = *find_property(name);
  return property.set(read_value(in, property.type)) ? 1 : 0;
}

// --- events ---

static DBusMessage *deliver_event(E_DBus_Object *, DBusMessage *message) {
  const std::string_view method = dbus_message_get_member(message);
  const set_event &event = *std::ranges::find(kEvents, method, &set_event::method);
  if (!dbus_message_has_signature(message, event.signature))
    return dbus_message_new_error(message, DBUS_ERROR_INVALID_ARGS, event.signature);

  int arguments[2] = {};
  DBusMessageIter in;
  dbus_message_iter_init(message, &in);
  for (int &argument : arguments) {
    if (dbus_message_iter_get_arg_type(&in) == DBUS_TYPE_INT32)
      dbus_message_iter_get_basic(&in, &argument);
    dbus_message_iter_next(&in);
  }
  event.deliver(arguments[0], arguments[1]);
  return dbus_message_new_method_return(message);
}

static Eina_Bool wall_clock_stepped(void *, int, void *) {
  standin_follow_transitions();
  standin_announce_time_set();
  return ECORE_CALLBACK_PASS_ON;
}

static E_DBus_Interface *set_interface() {
  E_DBus_Interface *interface = e_dbus_interface_new(kInterface);
  for (const set_event &event : kEvents)
    e_dbus_interface_method_add(interface, event.method, event.signature, "", deliver_event);
  e_dbus_interface_signal_add(interface, "Requested", "suu");
  for (const standin_property &property : standin_properties()) {
    const char type[] = {property.type, '\0'};
    e_dbus_interface_property_add(interface, property.name, type, E_DBUS_PROPERTY_SILENT,
                                  get_property, property.writable ? set_property : nullptr);
  }
  return interface;
}

static signal_ptr requested_signal(const standin_request &request) {
  signal_ptr signal{dbus_message_new_signal(kPath, kInterface, "Requested"), dbus_message_unref};
  const char *operation = request.operation.c_str();
  dbus_message_append_args(signal.get(), DBUS_TYPE_STRING, &operation, DBUS_TYPE_UINT32,
                           &request.first, DBUS_TYPE_UINT32, &request.second, DBUS_TYPE_INVALID);
  return signal;
}

void standin_export() {
  E_DBus_Connection *bus = e_dbus_bus_get(DBUS_BUS_SYSTEM);
  E_DBus_Object *object = e_dbus_object_add(bus, kPath, nullptr);
  if (object == nullptr) // no bus, or there already
    return;
  e_dbus_object_interface_attach(object, set_interface());
  ecore_event_handler_add(ECORE_EVENT_SYSTEM_TIMEDATE_CHANGED, wall_clock_stepped, nullptr);
  standin_follow_transitions();
  exported = true;
}

void standin_send_requested(const standin_request &request) {
  if (!exported)
    return;
  // A change of the clock asks for the same time again with every timer. Copies of one signal make
  // such a change a sixth cheaper; each copy gets a serial number of its own.
  static standin_request last;
  static signal_ptr built{nullptr, dbus_message_unref};
  if (built == nullptr || request != last) {
    built = requested_signal(request);
    last = request;
  }
  const signal_ptr signal{dbus_message_copy(built.get()), dbus_message_unref};
  e_dbus_message_send(e_dbus_bus_get(DBUS_BUS_SYSTEM), signal.get(), nullptr, 0, nullptr);
}
