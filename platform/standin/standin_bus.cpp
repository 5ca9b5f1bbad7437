#include "standin_private.h"

#include <E_DBus.h>

#include <Ecore.h>

#include <algorithm>
#include <memory>
#include <optional>

namespace {

constexpr const char *kPath = "/org/olvara/tv/standin";
constexpr const char *kInterface = "org.olvara.tv.standin";

struct set_event {
  const char *method;
  const char *signature; // up to two integers
  void (*deliver)(int first, int second);
};

constexpr set_event kEvents[] = {
    {"PowerOff", "i", [](int option, int) { standin_power_off(option); }},
    {"Standby", "i", [](int option, int) { standin_standby(option); }},
    {"Wakeup", "i", [](int reason, int) { standin_wakeup(reason); }},
    {"AmbientPowerOff", "", [](int, int) { standin_ambient_power_off(); }},
    {"StateChanged", "ii", standin_state_changed},
    {"TimeSet", "", [](int, int) { standin_announce_time_set(); }},
    {"MiddlewareSignal", "i", [](int type, int) { standin_middleware_signal(type); }},
};

using Signal = std::unique_ptr<DBusMessage, decltype(&dbus_message_unref)>;

bool exported = false;

DBusMessage *refuse(DBusMessage *message, const char *error, const char *subject) {
  return dbus_message_new_error(message, error, subject);
}

// --- properties ---

const standin_property *find_property(std::string_view name) {
  const auto properties = standin_properties();
  const auto found = std::ranges::find(properties, name, &standin_property::name);
  return found == properties.end() ? nullptr : &*found;
}

void append_variant(DBusMessageIter *out, const standin_property &property) {
  const standin_value value = property.get();
  DBusBasicValue basic = {};
  if (property.type == DBUS_TYPE_STRING)
    basic.str = const_cast<char *>(value.text.c_str());
  else
    basic.u32 = static_cast<std::uint32_t>(value.number);

  const char signature[] = {property.type, '\0'};
  DBusMessageIter variant;
  dbus_message_iter_open_container(out, DBUS_TYPE_VARIANT, signature, &variant);
  dbus_message_iter_append_basic(&variant, property.type, &basic);
  dbus_message_iter_close_container(out, &variant);
}

std::optional<standin_value> read_variant(DBusMessageIter *in, char type) {
  DBusMessageIter variant;
  dbus_message_iter_recurse(in, &variant);
  if (dbus_message_iter_get_arg_type(&variant) != type)
    return std::nullopt;
  DBusBasicValue basic;
  dbus_message_iter_get_basic(&variant, &basic);
  switch (type) {
  case DBUS_TYPE_STRING:
    return standin_value{0, basic.str};
  case DBUS_TYPE_INT32:
    return standin_value{basic.i32, {}};
  default:
    return standin_value{basic.u32, {}};
  }
}

// Reads the interface and the property that a call of this signature names. Null
// when there is no such property: `*refusal` is then the answer.
const standin_property *named_property(DBusMessage *message, const char *signature,
                                       DBusMessageIter *in, DBusMessage **refusal) {
  if (!dbus_message_has_signature(message, signature)) {
    *refusal = refuse(message, DBUS_ERROR_INVALID_ARGS, signature);
    return nullptr;
  }
  const char *interface = nullptr;
  const char *name = nullptr;
  dbus_message_iter_init(message, in);
  dbus_message_iter_get_basic(in, &interface);
  dbus_message_iter_next(in);
  dbus_message_iter_get_basic(in, &name);
  dbus_message_iter_next(in);
  const bool ours = interface == std::string_view{kInterface};
  const standin_property *property = ours ? find_property(name) : nullptr;
  if (!property)
    *refusal =
        refuse(message, ours ? DBUS_ERROR_UNKNOWN_PROPERTY : DBUS_ERROR_UNKNOWN_INTERFACE, name);
  return property;
}

DBusMessage *get_property(E_DBus_Object *, DBusMessage *message) {
  DBusMessageIter in;
  DBusMessage *refusal = nullptr;
  const standin_property *property = named_property(message, "ss", &in, &refusal);
  if (!property)
    return refusal;

  DBusMessage *reply = dbus_message_new_method_return(message);
  DBusMessageIter out;
  dbus_message_iter_init_append(reply, &out);
  append_variant(&out, *property);
  return reply;
}

DBusMessage *set_property(E_DBus_Object *, DBusMessage *message) {
  DBusMessageIter in;
  DBusMessage *refusal = nullptr;
  const standin_property *property = named_property(message, "ssv", &in, &refusal);
  if (!property)
    return refusal;
  if (!property->writable)
    return refuse(message, DBUS_ERROR_PROPERTY_READ_ONLY, property->name);

  const auto value = read_variant(&in, property->type);
  if (!value || !property->set(*value))
    return refuse(message, DBUS_ERROR_INVALID_ARGS, property->name);
  return dbus_message_new_method_return(message);
}

DBusMessage *get_all_properties(E_DBus_Object *, DBusMessage *message) {
  const char *interface = nullptr;
  if (!dbus_message_get_args(message, nullptr, DBUS_TYPE_STRING, &interface, DBUS_TYPE_INVALID))
    return refuse(message, DBUS_ERROR_INVALID_ARGS, "interface expected");
  if (interface != std::string_view{kInterface})
    return refuse(message, DBUS_ERROR_UNKNOWN_INTERFACE, interface);

  DBusMessage *reply = dbus_message_new_method_return(message);
  DBusMessageIter out;
  DBusMessageIter all;
  dbus_message_iter_init_append(reply, &out);
  dbus_message_iter_open_container(&out, DBUS_TYPE_ARRAY, "{sv}", &all);
  for (const standin_property &property : standin_properties()) {
    DBusMessageIter entry;
    dbus_message_iter_open_container(&all, DBUS_TYPE_DICT_ENTRY, nullptr, &entry);
    dbus_message_iter_append_basic(&entry, DBUS_TYPE_STRING, &property.name);
    append_variant(&entry, property);
    dbus_message_iter_close_container(&all, &entry);
  }
  dbus_message_iter_close_container(&out, &all);
  return reply;
}

// --- events ---

DBusMessage *deliver_event(E_DBus_Object *, DBusMessage *message) {
  const std::string_view method = dbus_message_get_member(message);
  const set_event &event = *std::ranges::find(kEvents, method, &set_event::method);
  if (!dbus_message_has_signature(message, event.signature))
    return refuse(message, DBUS_ERROR_INVALID_ARGS, event.signature);

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

Eina_Bool wall_clock_stepped(void *, int, void *) {
  standin_announce_time_set();
  return ECORE_CALLBACK_PASS_ON;
}

E_DBus_Interface *properties_interface() {
  E_DBus_Interface *interface = e_dbus_interface_new(DBUS_INTERFACE_PROPERTIES);
  e_dbus_interface_method_add(interface, "Get", "ss", "v", get_property);
  e_dbus_interface_method_add(interface, "Set", "ssv", "", set_property);
  e_dbus_interface_method_add(interface, "GetAll", "s", "a{sv}", get_all_properties);
  return interface;
}

E_DBus_Interface *set_interface() {
  E_DBus_Interface *interface = e_dbus_interface_new(kInterface);
  for (const set_event &event : kEvents)
    e_dbus_interface_method_add(interface, event.method, event.signature, "", deliver_event);
  e_dbus_interface_signal_add(interface, "Requested", "suu");
  for (const standin_property &property : standin_properties()) {
    const char type[] = {property.type, '\0'};
    e_dbus_interface_property_add(interface, property.name, type, property.writable);
  }
  return interface;
}

Signal requested_signal(const standin_request &request) {
  Signal signal{dbus_message_new_signal(kPath, kInterface, "Requested"), dbus_message_unref};
  const char *operation = request.operation.c_str();
  dbus_message_append_args(signal.get(), DBUS_TYPE_STRING, &operation, DBUS_TYPE_UINT32,
                           &request.first, DBUS_TYPE_UINT32, &request.second, DBUS_TYPE_INVALID);
  return signal;
}

} // namespace

void standin_export() {
  E_DBus_Connection *bus = e_dbus_bus_get(DBUS_BUS_SYSTEM);
  E_DBus_Object *object = e_dbus_object_add(bus, kPath, nullptr);
  if (!object) // no bus, or there already
    return;
  e_dbus_object_interface_attach(object, properties_interface());
  e_dbus_object_interface_attach(object, set_interface());
  ecore_event_handler_add(ECORE_EVENT_SYSTEM_TIMEDATE_CHANGED, wall_clock_stepped, nullptr);
  exported = true;
}

void standin_send_requested(const standin_request &request) {
  if (!exported)
    return;
  const Signal signal = requested_signal(request);
  e_dbus_message_send(e_dbus_bus_get(DBUS_BUS_SYSTEM), signal.get(), nullptr, 0, nullptr);
}
