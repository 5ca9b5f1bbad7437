// The platform's own connection to the system bus, run from the Ecore main loop. No function waits
// for a reply.
#pragma once

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

struct bus_service {
  const char *name;
  const char *path;
  const char *interface;
};

inline constexpr bus_service kLogind = {"org.freedesktop.login1", "/org/freedesktop/login1",
                                        "org.freedesktop.login1.Manager"};
inline constexpr bus_service kTimedated = {
    "org.freedesktop.timedate1", "/org/freedesktop/timedate1", "org.freedesktop.timedate1"};
inline constexpr bus_service kSystemd = {"org.freedesktop.systemd1", "/org/freedesktop/systemd1",
                                         "org.freedesktop.systemd1.Manager"};

void start_bus();

// The event loop behind the connection, for other files to be watched with.
sd_event *bus_events();

// `answered` gets the reply or the error, or null when the call cannot be sent, and `data`.
void bus_call(const bus_service &service, const char *member, sd_bus_message_handler_t answered,
              void *data, const char *types, ...);

// The reply is for bus_read_properties.
void bus_get_properties(const bus_service &service, sd_bus_message_handler_t answered,
                        void *data = nullptr);

void bus_watch_signal(const bus_service &service, const char *member,
                      sd_bus_message_handler_t received);
void bus_watch_properties(const bus_service &service, sd_bus_message_handler_t changed);

// Calls `appeared` now, and again each time the service gets a new owner.
void bus_watch_service(const bus_service &service, void (*appeared)());

// Calls `take` for each property in an array of names and values. `take` either reads the value as
// a variant and returns true, or reads nothing and returns false.
using property_reader = bool (*)(const char *name, sd_bus_message *value, void *data);
void bus_read_properties(sd_bus_message *message, property_reader take, void *data = nullptr);

// 0 for a reply, otherwise the errno of the error or of a call that was not sent.
int bus_error_of(sd_bus_message *reply);
