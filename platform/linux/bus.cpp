#include "bus.h"

#include "journal.h"

#include <Ecore.h>

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <string>

static sd_event *event_loop;
static Ecore_Fd_Handler *watch; // of `event_loop`, for the whole run
static sd_bus *bus;

// True when there was any.
static bool run_events() {
  bool is_any = false;
  while (sd_event_run(event_loop, 0) > 0)
    is_any = true;
  return is_any;
}

static Eina_Bool events_pending(void *, Ecore_Fd_Handler *) {
  run_events();
  return ECORE_CALLBACK_RENEW;
}

// Messages that other callbacks have queued are written before the main loop sleeps. What one that
// is read here changes is announced at the end of another pass, which an empty job brings about.
static Eina_Bool main_loop_idles(void *) {
  if (run_events())
    ecore_job_add([](void *) {}, nullptr);
  return ECORE_CALLBACK_RENEW;
}

// Nobody would tell of a sleep any longer. The service manager starts the process again.
static int bus_is_lost(sd_bus_message *, void *, sd_bus_error *) {
  report("the connection to the system bus is lost, this daemon ends");
  ecore_main_loop_quit();
  return 0;
}

static int watch_for_loss() {
  return sd_bus_match_signal(bus, nullptr, "org.freedesktop.DBus.Local",
                             "/org/freedesktop/DBus/Local", "org.freedesktop.DBus.Local",
                             "Disconnected", bus_is_lost, nullptr);
}

// The bus lets any user send a signal to one connection, whatever the matches say. The services
// send theirs to everybody.
static int drop_addressed(sd_bus_message *message, void *, sd_bus_error *) {
  return sd_bus_message_is_signal(message, nullptr, nullptr) > 0 &&
                 sd_bus_message_get_destination(message) != nullptr
             ? 1
             : 0;
}

sd_event *bus_events() { return event_loop; }

static int open_bus() {
  int result = sd_event_new(&event_loop);
  if (result < 0)
    return result;
  watch = ecore_main_fd_handler_add(sd_event_get_fd(event_loop), ECORE_FD_READ, events_pending,
                                    nullptr, nullptr, nullptr);
  if (watch == nullptr)
    return -ENOMEM;
  ecore_idle_enterer_add(main_loop_idles, nullptr);
  result = sd_bus_open_system(&bus);
  if (result >= 0)
    result = sd_bus_attach_event(bus, event_loop, SD_EVENT_PRIORITY_NORMAL);
  if (result >= 0)
    result = sd_bus_add_filter(bus, nullptr, drop_addressed, nullptr);
  return result < 0 ? result : watch_for_loss();
}

void start_bus() {
  const int result = open_bus();
  if (result >= 0)
    return;
  report("no system bus: %s; the machine is not sent to sleep, and nothing runs before its sleep",
         std::strerror(-result));
  bus = sd_bus_unref(bus);
}

void bus_call(const bus_service &service, const char *member, sd_bus_message_handler_t answered,
              void *data, const char *types, ...) {
  int result = -ENOTCONN;
  if (bus != nullptr) {
    va_list arguments;
    va_start(arguments, types);
    result = sd_bus_call_method_asyncv(bus, nullptr, service.name, service.path, service.interface,
                                       member, answered, data, types, arguments);
    va_end(arguments);
  }
  if (result < 0)
    answered(nullptr, data, nullptr);
}

static bus_service properties_of(const bus_service &service) {
  return {service.name, service.path, "org.freedesktop.DBus.Properties"};
}

void bus_get_properties(const bus_service &service, sd_bus_message_handler_t answered, void *data) {
  bus_call(properties_of(service), "GetAll", answered, data, "s", service.interface);
}

static void check_watch(const bus_service &service, int result) {
  if (result < 0)
    report("%s: %s; its signals are not received", service.name, std::strerror(-result));
}

void bus_watch_signal(const bus_service &service, const char *member,
                      sd_bus_message_handler_t received) {
  if (bus != nullptr)
    check_watch(service,
                sd_bus_match_signal_async(bus, nullptr, service.name, service.path,
                                          service.interface, member, received, nullptr, nullptr));
}

void bus_watch_properties(const bus_service &service, sd_bus_message_handler_t changed) {
  bus_watch_signal(properties_of(service), "PropertiesChanged", changed);
}

static int owner_changed(sd_bus_message *message, void *data, sd_bus_error *) {
  const char *new_owner = "";
  sd_bus_message_read(message, "sss", nullptr, nullptr, &new_owner);
  if (*new_owner != '\0')
    reinterpret_cast<void (*)()>(data)();
  return 0;
}

void bus_watch_service(const bus_service &service, void (*appeared)()) {
  if (bus == nullptr)
    return;
  const std::string match = "type='signal',sender='org.freedesktop.DBus',"
                            "path='/org/freedesktop/DBus',interface='org.freedesktop.DBus',"
                            "member='NameOwnerChanged',arg0='" +
                            std::string(service.name) + "'";
  check_watch(service, sd_bus_add_match_async(bus, nullptr, match.c_str(), owner_changed, nullptr,
                                              reinterpret_cast<void *>(appeared)));
  appeared();
}

void bus_read_properties(sd_bus_message *message, property_reader take, void *data) {
  if (sd_bus_message_enter_container(message, 'a', "{sv}") <= 0)
    return;
  while (sd_bus_message_enter_container(message, 'e', "sv") > 0) {
    const char *name = "";
    sd_bus_message_read(message, "s", &name);
    if (!take(name, message, data))
      sd_bus_message_skip(message, "v");
    sd_bus_message_exit_container(message);
  }
  sd_bus_message_exit_container(message);
}

int bus_error_of(sd_bus_message *reply) {
  if (reply == nullptr)
    return ENOTCONN;
  return sd_bus_message_is_method_error(reply, nullptr) > 0 ? sd_bus_message_get_errno(reply) : 0;
}
