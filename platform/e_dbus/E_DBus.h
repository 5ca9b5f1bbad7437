// The bus binding: libdbus driven from the Ecore main loop, in the form in
// which the daemon calls it. Everything runs on the main-loop thread.
#pragma once

#include <dbus/dbus.h>

extern "C" {

struct E_DBus_Connection;
struct E_DBus_Object;
struct E_DBus_Interface;

// Handles one method call. The result is sent and released by the binding; null
// sends nothing. The message's signature has not been checked.
typedef DBusMessage *(*E_DBus_Method_Cb)(E_DBus_Object *object, DBusMessage *message);

// Receives the reply to a message, or the error that came instead of it.
typedef void (*E_DBus_Method_Return_Cb)(void *data, DBusMessage *message, DBusError *error);

// Counted: returns how often the library has been initialised, 0 on failure.
// The last e_dbus_shutdown releases every connection and returns 0.
int e_dbus_init(void);
int e_dbus_shutdown(void);

// The one connection to that bus, made on first use, or null. The library owns
// it.
E_DBus_Connection *e_dbus_bus_get(DBusBusType type);

// Asks for a well-known name; `callback` gets the answer from the main loop. Null
// when the request could not be sent.
DBusPendingCall *e_dbus_request_name(E_DBus_Connection *connection, const char *name,
                                     unsigned int flags, E_DBus_Method_Return_Cb callback,
                                     const void *data);

// Exports an object for which the binding answers Introspectable. Null on failure.
// The connection owns it.
E_DBus_Object *e_dbus_object_add(E_DBus_Connection *connection, const char *path, void *data);

// A new interface, filled with members and then attached to objects; the
// strings are copied. Null on failure. The library owns it.
E_DBus_Interface *e_dbus_interface_new(const char *name);

// Add a member with its D-Bus signatures. Return 1, or 0 on failure.
int e_dbus_interface_method_add(E_DBus_Interface *interface, const char *member,
                                const char *signature, const char *reply_signature,
                                E_DBus_Method_Cb handler);
int e_dbus_interface_signal_add(E_DBus_Interface *interface, const char *member,
                                const char *signature);

// Appends the value of the property `name`, of the type that it was added with, to `value`.
typedef void (*E_DBus_Property_Get_Cb)(E_DBus_Object *object, const char *name,
                                       DBusMessageIter *value);

// Takes a new value, which has the property's type. Returns 1, or 0 to refuse it.
typedef int (*E_DBus_Property_Set_Cb)(E_DBus_Object *object, const char *name,
                                      DBusMessageIter *value);

// What PropertiesChanged tells of a property that has changed.
typedef enum {
  E_DBUS_PROPERTY_CONST,  // it never changes
  E_DBUS_PROPERTY_SILENT, // nothing
  E_DBUS_PROPERTY_NAMED,  // its name, without the value
  E_DBUS_PROPERTY_SENT    // its new value
} E_DBus_Property_Change;

// Adds a property of one complete D-Bus type, read-only with a null `set`. Returns 1, or 0 on
// failure. Objects with such an interface answer org.freedesktop.DBus.Properties by themselves.
int e_dbus_interface_property_add(E_DBus_Interface *interface, const char *name, const char *type,
                                  E_DBus_Property_Change change, E_DBus_Property_Get_Cb get,
                                  E_DBus_Property_Set_Cb set);

// The members must have been added before.
void e_dbus_object_interface_attach(E_DBus_Object *object, E_DBus_Interface *interface);

// Sends one PropertiesChanged for the properties of `interface` that `names` lists up to its null.
void e_dbus_properties_changed(E_DBus_Object *object, const E_DBus_Interface *interface,
                               const char *const *names);

// Sends `message`, which stays the caller's. With a null `callback` no reply is
// waited for and the result is null; otherwise the callback gets the reply
// within `timeout` milliseconds (-1: libdbus's default).
DBusPendingCall *e_dbus_message_send(E_DBus_Connection *connection, DBusMessage *message,
                                     E_DBus_Method_Return_Cb callback, int timeout, void *data);
}
