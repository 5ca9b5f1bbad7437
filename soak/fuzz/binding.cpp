#include "binding.h"

#include <string_view>
#include <vector>

// Nothing stands behind these; the daemon only hands them back.
struct E_DBus_Connection {};
struct E_DBus_Object {};
struct E_DBus_Interface {};

static constexpr std::string_view kDaemonPath = "/org/olvara/tv/system/dravel";

static E_DBus_Connection the_connection;
static E_DBus_Object the_object;
static E_DBus_Interface the_interface;
static std::vector<bound_method> methods;

std::span<const bound_method> bound_methods() { return methods; }

int e_dbus_init() { return 1; }

int e_dbus_shutdown() { return 0; }

E_DBus_Connection *e_dbus_bus_get(DBusBusType) { return &the_connection; }

// Any address will do: the daemon only compares it with null.
DBusPendingCall *e_dbus_request_name(E_DBus_Connection *, const char *, unsigned int,
                                     E_DBus_Method_Return_Cb, const void *) {
  return reinterpret_cast<DBusPendingCall *>(&the_connection);
}

// The stand-in gets no object: it is driven directly.
E_DBus_Object *e_dbus_object_add(E_DBus_Connection *, const char *path, void *) {
  return path == kDaemonPath ? &the_object : nullptr;
}

void *e_dbus_object_data_get(E_DBus_Object *) { return nullptr; }

E_DBus_Interface *e_dbus_interface_new(const char *) { return &the_interface; }

int e_dbus_interface_method_add(E_DBus_Interface *, const char *member, const char *signature,
                                const char *reply_signature, E_DBus_Method_Cb handler) {
  methods.push_back({member, signature, reply_signature, handler});
  return 1;
}

int e_dbus_interface_signal_add(E_DBus_Interface *, const char *, const char *) { return 1; }

int e_dbus_interface_property_add(E_DBus_Interface *, const char *, const char *,
                                  E_DBus_Property_Change, E_DBus_Property_Get_Cb,
                                  E_DBus_Property_Set_Cb) {
  return 1;
}

void e_dbus_properties_changed(E_DBus_Object *, const E_DBus_Interface *, const char *const *) {}

void e_dbus_object_interface_attach(E_DBus_Object *, E_DBus_Interface *) {}

DBusPendingCall *e_dbus_message_send(E_DBus_Connection *, DBusMessage *, E_DBus_Method_Return_Cb,
                                     int, void *) {
  return nullptr;
}
