#include "E_DBus.h"

#include <Ecore.h>
#include <system_log.h>

#include <algorithm>
#include <array>
#include <list>
#include <map>
#include <memory>
#include <queue>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

struct E_DBus_Interface {
  struct method_entry {
    std::string name;
    std::string signature;
    std::string reply_signature;
    E_DBus_Method_Cb handler;
  };
  struct signal_entry {
    std::string name;
    std::string signature;
  };
  struct property_entry {
    std::string name;
    std::string type;
    E_DBus_Property_Change change;
    E_DBus_Property_Get_Cb get;
    E_DBus_Property_Set_Cb set; // null: read-only
  };

  std::string name;
  std::vector<method_entry> methods; // in the order in which they were added
  std::vector<signal_entry> signals;
  std::vector<property_entry> properties;
};

struct E_DBus_Object {
  E_DBus_Connection *connection;
  std::string path;
  std::vector<const E_DBus_Interface *> interfaces;
};

namespace {

struct unref_message {
  void operator()(DBusMessage *message) const { dbus_message_unref(message); }
};
using message_ptr = std::unique_ptr<DBusMessage, unref_message>;

struct waiting_call {
  E_DBus_Object *object;
  message_ptr message;
};

struct waiting_client {
  std::string name;
  std::queue<waiting_call> calls;
  bool refused_any = false;
};

} // namespace

struct E_DBus_Connection {
  struct pending_reply {
    E_DBus_Method_Return_Cb callback;
    void *data;
  };

  explicit E_DBus_Connection(DBusConnection *opened) : bus(opened) {}
  E_DBus_Connection(const E_DBus_Connection &) = delete;
  E_DBus_Connection &operator=(const E_DBus_Connection &) = delete;
  ~E_DBus_Connection();

  DBusConnection *bus;
  Ecore_Fd_Handler *socket = nullptr;
  Ecore_Job *next_pass = nullptr;
  bool in_pass = false;
  std::list<waiting_client> turns;  // the client whose turn it is first
  std::vector<DBusWatch *> watches; // all on the one socket
  std::map<DBusPendingCall *, pending_reply> waiting;
  std::vector<std::unique_ptr<E_DBus_Object>> objects;
};

static constexpr double kMillisecondsPerSecond = 1000.0;
static constexpr const char *kTag = "E_DBUS";
// Of one client; its further calls are refused. A system bus lets a client await as many answers:
// there, one that awaits each answer is never refused.
static constexpr std::size_t kMostWaitingCalls = 128;
// Of all clients: the socket is read again once less waits.
static constexpr long kMostWaitingBytes = 32L * 1024 * 1024;
// Likewise. A process may have 1,024 descriptors, and the connection is closed when those of a
// message do not fit, in the process or in what one message may have: the kernel's 253.
static constexpr long kMostWaitingDescriptors = 64;
static constexpr long kMostDescriptorsOfAMessage = 253;
// Between two answers, so that timers are not late.
static constexpr int kMostMessagesInAPass = 250;
// By E_DBus_Property_Change.
static constexpr const char *kChangeWords[] = {"const", "false", "invalidates", "true"};

namespace {

struct bus_library {
  int users = 0;
  E_DBus_Interface introspectable;
  E_DBus_Interface properties;
  std::vector<std::unique_ptr<E_DBus_Interface>> interfaces;
  std::array<std::unique_ptr<E_DBus_Connection>, 3> connections; // by DBusBusType
};

} // namespace

// A plain pointer: when the process ends without e_dbus_shutdown no destructor
// runs, which would use Ecore after its shutdown.
static bus_library *library = nullptr;

static void send_reply(DBusConnection *bus, DBusMessage *call, DBusMessage *reply) {
  if (reply != nullptr && !dbus_message_get_no_reply(call))
    dbus_connection_send(bus, reply, nullptr);
}

// --- introspection ---

static void append_arguments(Eina_Strbuf *xml, const std::string &signature,
                             const char *attributes) {
  if (signature.empty())
    return;
  DBusSignatureIter type;
  dbus_signature_iter_init(&type, signature.c_str());
  do {
    char *complete = dbus_signature_iter_get_signature(&type);
    eina_strbuf_append_printf(xml, "   <arg type=\"%s\"%s/>\n", complete, attributes);
    dbus_free(complete);
  } while (dbus_signature_iter_next(&type) != 0);
}

static void append_members(Eina_Strbuf *xml, const E_DBus_Interface &interface) {
  for (const auto &method : interface.methods) {
    eina_strbuf_append_printf(xml, "  <method name=\"%s\">\n", method.name.c_str());
    append_arguments(xml, method.signature, " direction=\"in\"");
    append_arguments(xml, method.reply_signature, " direction=\"out\"");
    eina_strbuf_append(xml, "  </method>\n");
  }
  for (const auto &signal : interface.signals) {
    eina_strbuf_append_printf(xml, "  <signal name=\"%s\">\n", signal.name.c_str());
    append_arguments(xml, signal.signature, "");
    eina_strbuf_append(xml, "  </signal>\n");
  }
  for (const auto &property : interface.properties)
    eina_strbuf_append_printf(
        xml,
        "  <property name=\"%s\" type=\"%s\" access=\"%s\">\n"
        "   <annotation name=\"org.freedesktop.DBus.Property.EmitsChangedSignal\" value=\"%s\"/>\n"
        "  </property>\n",
        property.name.c_str(), property.type.c_str(),
        property.set != nullptr ? "readwrite" : "read", kChangeWords[property.change]);
}

// The objects below `object`, so that a client can find them.
static void append_children(Eina_Strbuf *xml, const E_DBus_Object &object) {
  char **children = nullptr;
  if (!dbus_connection_list_registered(object.connection->bus, object.path.c_str(), &children))
    return;
  for (char **child = children; *child != nullptr; ++child)
    eina_strbuf_append_printf(xml, " <node name=\"%s\"/>\n", *child);
  dbus_free_string_array(children);
}

static DBusMessage *introspect(E_DBus_Object *object, DBusMessage *message) {
  Eina_Strbuf *xml = eina_strbuf_new();
  eina_strbuf_append(xml, DBUS_INTROSPECT_1_0_XML_DOCTYPE_DECL_NODE "<node>\n");
  for (const E_DBus_Interface *interface : object->interfaces) {
    eina_strbuf_append_printf(xml, " <interface name=\"%s\">\n", interface->name.c_str());
    append_members(xml, *interface);
    eina_strbuf_append(xml, " </interface>\n");
  }
  append_children(xml, *object);
  eina_strbuf_append(xml, "</node>\n");

  const char *text = eina_strbuf_string_get(xml);
  DBusMessage *reply = dbus_message_new_method_return(message);
  if (reply != nullptr)
    dbus_message_append_args(reply, DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID);
  eina_strbuf_free(xml);
  return reply;
}

// --- properties ---

static DBusMessage *no_interface(DBusMessage *message, const char *wanted) {
  return dbus_message_new_error_printf(message, DBUS_ERROR_UNKNOWN_INTERFACE,
                                       "No interface \"%s\" at %s", wanted,
                                       dbus_message_get_path(message));
}

using property_entry = E_DBus_Interface::property_entry;

static void append_value(DBusMessageIter *out, E_DBus_Object *object,
                         const property_entry &property) {
  DBusMessageIter variant;
  dbus_message_iter_open_container(out, DBUS_TYPE_VARIANT, property.type.c_str(), &variant);
  property.get(object, property.name.c_str(), &variant);
  dbus_message_iter_close_container(out, &variant);
}

static void append_entry(DBusMessageIter *values, E_DBus_Object *object,
                         const property_entry &property) {
  const char *name = property.name.c_str();
  DBusMessageIter entry;
  dbus_message_iter_open_container(values, DBUS_TYPE_DICT_ENTRY, nullptr, &entry);
  dbus_message_iter_append_basic(&entry, DBUS_TYPE_STRING, &name);
  append_value(&entry, object, property);
  dbus_message_iter_close_container(values, &entry);
}

// An empty name stands for every interface.
static bool is_wanted(const E_DBus_Interface *interface, const std::string &wanted) {
  return wanted.empty() || interface->name == wanted;
}

static bool has_interface(const E_DBus_Object *object, const std::string &wanted) {
  return std::ranges::any_of(object->interfaces,
                             [&](const auto *interface) { return is_wanted(interface, wanted); });
}

static const property_entry *find_property(const E_DBus_Interface *interface,
                                           std::string_view name) {
  const auto found = std::ranges::find(interface->properties, name, &property_entry::name);
  return found == interface->properties.end() ? nullptr : &*found;
}

static std::string read_text(DBusMessageIter *in) {
  const char *text = nullptr;
  dbus_message_iter_get_basic(in, &text);
  dbus_message_iter_next(in);
  return text;
}

// Reads the interface and the property that a call of this signature names. Null when there is no
// such property: `*refusal` is then the answer.
static const property_entry *named_property(E_DBus_Object *object, DBusMessage *message,
                                            const char *signature, DBusMessageIter *in,
                                            DBusMessage **refusal) {
  if (!dbus_message_has_signature(message, signature)) {
    *refusal = dbus_message_new_error_printf(message, DBUS_ERROR_INVALID_ARGS,
                                             "Arguments \"%s\" expected", signature);
    return nullptr;
  }
  dbus_message_iter_init(message, in);
  const std::string wanted = read_text(in);
  const std::string name = read_text(in);
  for (const E_DBus_Interface *interface : object->interfaces) {
    const property_entry *property =
        is_wanted(interface, wanted) ? find_property(interface, name) : nullptr;
    if (property != nullptr)
      return property;
  }
  *refusal = has_interface(object, wanted)
                 ? dbus_message_new_error_printf(message, DBUS_ERROR_UNKNOWN_PROPERTY,
                                                 "No property \"%s\" at %s", name.c_str(),
                                                 dbus_message_get_path(message))
                 : no_interface(message, wanted.c_str());
  return nullptr;
}

static DBusMessage *get_property(E_DBus_Object *object, DBusMessage *message) {
  DBusMessageIter in;
  DBusMessage *reply = nullptr;
  const property_entry *property = named_property(object, message, "ss", &in, &reply);
  if (property == nullptr)
    return reply;
  reply = dbus_message_new_method_return(message);
  if (reply == nullptr)
    return nullptr;
  DBusMessageIter out;
  dbus_message_iter_init_append(reply, &out);
  append_value(&out, object, *property);
  return reply;
}

static DBusMessage *set_property(E_DBus_Object *object, DBusMessage *message) {
  DBusMessageIter in;
  DBusMessage *reply = nullptr;
  const property_entry *property = named_property(object, message, "ssv", &in, &reply);
  if (property == nullptr)
    return reply;
  const char *name = property->name.c_str();
  if (property->set == nullptr)
    return dbus_message_new_error_printf(message, DBUS_ERROR_PROPERTY_READ_ONLY,
                                         "Property \"%s\" is read-only", name);

  DBusMessageIter value;
  dbus_message_iter_recurse(&in, &value);
  char *type = dbus_message_iter_get_signature(&value);
  const bool taken = property->type == type && property->set(object, name, &value) != 0;
  dbus_free(type);
  return taken ? dbus_message_new_method_return(message)
               : dbus_message_new_error_printf(message, DBUS_ERROR_INVALID_ARGS,
                                               "No value for property \"%s\"", name);
}

static DBusMessage *get_all_properties(E_DBus_Object *object, DBusMessage *message) {
  const char *wanted = nullptr;
  if (!dbus_message_get_args(message, nullptr, DBUS_TYPE_STRING, &wanted, DBUS_TYPE_INVALID))
    return dbus_message_new_error(message, DBUS_ERROR_INVALID_ARGS, "Interface expected");
  if (!has_interface(object, wanted))
    return no_interface(message, wanted);

  DBusMessage *reply = dbus_message_new_method_return(message);
  if (reply == nullptr)
    return nullptr;
  DBusMessageIter out;
  DBusMessageIter values;
  dbus_message_iter_init_append(reply, &out);
  dbus_message_iter_open_container(&out, DBUS_TYPE_ARRAY, "{sv}", &values);
  for (const E_DBus_Interface *interface : object->interfaces) {
    for (const property_entry &property : interface->properties)
      if (is_wanted(interface, wanted))
        append_entry(&values, object, property);
  }
  dbus_message_iter_close_container(&out, &values);
  return reply;
}

// --- method calls ---

static DBusMessage *answer(E_DBus_Object *object, DBusMessage *message) {
  const char *wanted = dbus_message_get_interface(message); // may be left out
  const char *member = dbus_message_get_member(message);
  bool interface_known = wanted == nullptr;

  for (const E_DBus_Interface *interface : object->interfaces) {
    if (wanted != nullptr && interface->name != wanted)
      continue;
    interface_known = true;
    const auto method =
        std::ranges::find(interface->methods, member, &E_DBus_Interface::method_entry::name);
    if (method != interface->methods.end())
      return method->handler(object, message);
  }
  if (!interface_known)
    return no_interface(message, wanted);
  return dbus_message_new_error_printf(message, DBUS_ERROR_UNKNOWN_METHOD, "No method \"%s\" at %s",
                                       member, dbus_message_get_path(message));
}

static bool leads_to_object(DBusConnection *bus, const char *path) {
  void *object = nullptr;
  dbus_connection_get_object_path_data(bus, path, &object);
  char **children = nullptr;
  if (object != nullptr || !dbus_connection_list_registered(bus, path, &children))
    return true;
  const bool leads = children[0] != nullptr;
  dbus_free_string_array(children);
  return leads;
}

// Takes the calls that no object takes. libdbus alone would report an unknown method: it takes a
// path for an object when some other object lies beside it.
static DBusHandlerResult refuse_unknown_object(DBusConnection *bus, DBusMessage *message, void *) {
  const char *path = dbus_message_get_path(message);
  if (dbus_message_get_type(message) != DBUS_MESSAGE_TYPE_METHOD_CALL || leads_to_object(bus, path))
    return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
  const message_ptr error{
      dbus_message_new_error_printf(message, DBUS_ERROR_UNKNOWN_OBJECT, "No object %s", path)};
  send_reply(bus, message, error.get());
  return DBUS_HANDLER_RESULT_HANDLED;
}

static constexpr DBusObjectPathVTable kUnknownObjects = {
    nullptr, refuse_unknown_object, nullptr, nullptr, nullptr, nullptr};

// --- whose turn it is ---

// A client that waits for each answer has one call at a time. One that does not must not make the
// others wait for all of its calls.
static void let_wait(E_DBus_Object *object, DBusMessage *call) {
  auto &turns = object->connection->turns;
  const char *name = dbus_message_get_sender(call);
  auto client = std::ranges::find(turns, name, &waiting_client::name);
  if (client == turns.end())
    client = turns.insert(client, {name, {}});
  if (client->calls.size() < kMostWaitingCalls) {
    client->calls.push({object, message_ptr(dbus_message_ref(call))});
    return;
  }
  if (!std::exchange(client->refused_any, true))
    system_log_print(SYSTEM_LOG_ERROR, kTag, "%zu calls of %s wait, further ones are refused",
                     kMostWaitingCalls, name);
  const message_ptr refusal{dbus_message_new_error_printf(
      call, DBUS_ERROR_LIMITS_EXCEEDED, "%zu of your calls wait already", kMostWaitingCalls)};
  send_reply(object->connection->bus, call, refusal.get());
}

static DBusHandlerResult take_call(DBusConnection *, DBusMessage *message, void *object) {
  if (dbus_message_get_type(message) != DBUS_MESSAGE_TYPE_METHOD_CALL)
    return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
  let_wait(static_cast<E_DBus_Object *>(object), message);
  return DBUS_HANDLER_RESULT_HANDLED;
}

// A client with further calls has its next turn after all others.
static void answer_next(E_DBus_Connection *connection) {
  auto &turns = connection->turns;
  auto &calls = turns.front().calls;
  const waiting_call call = std::move(calls.front());
  calls.pop();
  if (calls.empty())
    turns.pop_front();
  else
    turns.splice(turns.end(), turns, turns.begin());
  const message_ptr reply{answer(call.object, call.message.get())};
  send_reply(connection->bus, call.message.get(), reply.get());
}

// --- libdbus on the Ecore main loop ---

static void begin_pass(void *data);

static void schedule_pass(E_DBus_Connection *connection) {
  if (connection->next_pass == nullptr && !connection->in_pass)
    connection->next_pass = ecore_job_add(begin_pass, connection);
}

static void dispatch_status_changed(DBusConnection *, DBusDispatchStatus status, void *data) {
  if (status != DBUS_DISPATCH_COMPLETE)
    schedule_pass(static_cast<E_DBus_Connection *>(data));
}

static void wakeup_main(void *data) { schedule_pass(static_cast<E_DBus_Connection *>(data)); }

// Returns how often it dispatched, at least 1: more than 1 means that messages had come. The calls
// among them wait for their turn.
static int take_messages(E_DBus_Connection *connection) {
  int count = 1;
  while (dbus_connection_dispatch(connection->bus) == DBUS_DISPATCH_DATA_REMAINS &&
         count < kMostMessagesInAPass)
    ++count;
  return count;
}

// Answers one call in each pass of the main loop, so that busy clients do not delay the timers.
static void end_pass(E_DBus_Connection *connection) {
  if (!connection->turns.empty() && connection->next_pass == nullptr)
    answer_next(connection);
  connection->in_pass = false;
  if (!connection->turns.empty() ||
      dbus_connection_get_dispatch_status(connection->bus) != DBUS_DISPATCH_COMPLETE)
    schedule_pass(connection);
}

static void begin_pass(void *data) {
  auto *connection = static_cast<E_DBus_Connection *>(data);
  connection->next_pass = nullptr;
  connection->in_pass = true;
  take_messages(connection);
  end_pass(connection);
}

static unsigned int ready_conditions(Ecore_Fd_Handler *handler) {
  unsigned int ready = 0;
  if (ecore_main_fd_handler_active_get(handler, ECORE_FD_READ))
    ready |= DBUS_WATCH_READABLE;
  if (ecore_main_fd_handler_active_get(handler, ECORE_FD_WRITE))
    ready |= DBUS_WATCH_WRITABLE;
  if (ecore_main_fd_handler_active_get(handler, ECORE_FD_ERROR))
    ready |= DBUS_WATCH_ERROR | DBUS_WATCH_HANGUP;
  return ready;
}

static void handle_watches(E_DBus_Connection *connection, unsigned int ready) {
  // When the connection is lost, libdbus removes watches while they are handled.
  for (std::size_t i = 0; i < connection->watches.size(); ++i) { // NOLINT(modernize-loop-convert)
    DBusWatch *watch = connection->watches[i];
    const unsigned int conditions =
        ready & (dbus_watch_get_flags(watch) | DBUS_WATCH_ERROR | DBUS_WATCH_HANGUP);
    if (dbus_watch_get_enabled(watch) && conditions)
      dbus_watch_handle(watch, conditions);
  }
}

// libdbus reads few messages at a time. All that have come are taken: the call of a client that has
// its turn next may be behind many of another client.
static Eina_Bool socket_ready(void *data, Ecore_Fd_Handler *handler) {
  auto *connection = static_cast<E_DBus_Connection *>(data);
  const unsigned int ready = ready_conditions(handler);
  connection->in_pass = true;
  int all = 0;
  int taken = 0;
  do {
    handle_watches(connection, ready);
    taken = take_messages(connection);
    all += taken;
  } while (taken > 1 && all < kMostMessagesInAPass);
  // One call is answered at once. Of several, the first waits for the pass that this turn of the
  // main loop still makes: it answers no two.
  const auto &turns = connection->turns;
  if (turns.size() > 1 || (turns.size() == 1 && turns.front().calls.size() > 1)) {
    connection->in_pass = false;
    schedule_pass(connection);
  } else {
    end_pass(connection);
  }
  return ECORE_CALLBACK_RENEW;
}

// libdbus has one watch for reading and one for writing; Ecore takes a descriptor
// only once, so one handler serves both.
static void update_socket_handler(E_DBus_Connection *connection) {
  unsigned int wanted = 0;
  for (DBusWatch *watch : connection->watches)
    if (dbus_watch_get_enabled(watch))
      wanted |= dbus_watch_get_flags(watch);

  if (!wanted) {
    if (connection->socket != nullptr)
      ecore_main_fd_handler_del(connection->socket);
    connection->socket = nullptr;
    return;
  }
  const int flags = ECORE_FD_ERROR | ((wanted & DBUS_WATCH_READABLE) ? ECORE_FD_READ : 0) |
                    ((wanted & DBUS_WATCH_WRITABLE) ? ECORE_FD_WRITE : 0);
  const auto conditions = static_cast<Ecore_Fd_Handler_Flags>(flags);
  if (connection->socket != nullptr)
    ecore_main_fd_handler_active_set(connection->socket, conditions);
  else
    connection->socket =
        ecore_main_fd_handler_add(dbus_watch_get_unix_fd(connection->watches.front()), conditions,
                                  socket_ready, connection, nullptr, nullptr);
}

static dbus_bool_t add_watch(DBusWatch *watch, void *data) {
  auto *connection = static_cast<E_DBus_Connection *>(data);
  connection->watches.push_back(watch);
  update_socket_handler(connection);
  return TRUE;
}

static void remove_watch(DBusWatch *watch, void *data) {
  auto *connection = static_cast<E_DBus_Connection *>(data);
  std::erase(connection->watches, watch);
  update_socket_handler(connection);
}

static void toggle_watch(DBusWatch *, void *data) {
  update_socket_handler(static_cast<E_DBus_Connection *>(data));
}

// libdbus adds one timeout for each reply that it waits for: the timeout elapses
// once. Handling it may release the timeout.
static Eina_Bool timeout_elapsed(void *data) {
  auto *timeout = static_cast<DBusTimeout *>(data);
  dbus_timeout_set_data(timeout, nullptr, nullptr);
  dbus_timeout_handle(timeout);
  return ECORE_CALLBACK_CANCEL;
}

static dbus_bool_t add_timeout(DBusTimeout *timeout, void *) {
  if (!dbus_timeout_get_enabled(timeout))
    return TRUE;
  Ecore_Timer *timer = ecore_timer_add(dbus_timeout_get_interval(timeout) / kMillisecondsPerSecond,
                                       timeout_elapsed, timeout);
  dbus_timeout_set_data(timeout, timer, nullptr);
  return static_cast<dbus_bool_t>(timer != nullptr);
}

static void remove_timeout(DBusTimeout *timeout, void *) {
  if (auto *timer = static_cast<Ecore_Timer *>(dbus_timeout_get_data(timeout)))
    ecore_timer_del(timer);
  dbus_timeout_set_data(timeout, nullptr, nullptr);
}

static void toggle_timeout(DBusTimeout *timeout, void *data) {
  remove_timeout(timeout, data);
  add_timeout(timeout, data);
}

// Without the bus no client can set or cancel a timer. The main loop ends, and the
// service manager starts the process again.
static DBusHandlerResult watch_for_loss(DBusConnection *, DBusMessage *message, void *) {
  if (dbus_message_is_signal(message, DBUS_INTERFACE_LOCAL, "Disconnected")) {
    system_log_print(SYSTEM_LOG_ERROR, kTag, "bus connection lost, leaving the main loop");
    ecore_main_loop_quit();
  }
  return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
}

static void reply_arrived(DBusPendingCall *pending, void *data) {
  const auto entry = static_cast<E_DBus_Connection *>(data)->waiting.extract(pending);
  const message_ptr reply{dbus_pending_call_steal_reply(pending)};
  dbus_pending_call_unref(pending);

  DBusError error = DBUS_ERROR_INIT;
  const bool failed = dbus_set_error_from_message(&error, reply.get()) != 0;
  entry.mapped().callback(entry.mapped().data, failed ? nullptr : reply.get(), &error);
  dbus_error_free(&error);
}

static void ignore_reply(void *, DBusMessage *, DBusError *) {}

static bool drive_from_main_loop(E_DBus_Connection *connection) {
  DBusConnection *bus = connection->bus;
  dbus_connection_set_exit_on_disconnect(bus, FALSE);
  dbus_connection_set_max_received_size(bus, kMostWaitingBytes);
  dbus_connection_set_max_received_unix_fds(bus, kMostWaitingDescriptors);
  dbus_connection_set_max_message_unix_fds(bus, kMostDescriptorsOfAMessage);
  dbus_connection_set_dispatch_status_function(bus, dispatch_status_changed, connection, nullptr);
  dbus_connection_set_wakeup_main_function(bus, wakeup_main, connection, nullptr);
  if (!dbus_connection_set_watch_functions(bus, add_watch, remove_watch, toggle_watch, connection,
                                           nullptr) ||
      !dbus_connection_set_timeout_functions(bus, add_timeout, remove_timeout, toggle_timeout,
                                             connection, nullptr) ||
      !dbus_connection_add_filter(bus, watch_for_loss, nullptr, nullptr) ||
      !dbus_connection_register_fallback(bus, "/", &kUnknownObjects, nullptr))
    return false;
  // Messages may have arrived before the status function was set.
  dispatch_status_changed(bus, dbus_connection_get_dispatch_status(bus), connection);
  return true;
}

E_DBus_Connection::~E_DBus_Connection() {
  for (const auto &[pending, unused] : waiting) {
    dbus_pending_call_cancel(pending);
    dbus_pending_call_unref(pending);
  }
  dbus_connection_set_dispatch_status_function(bus, nullptr, nullptr, nullptr);
  dbus_connection_set_wakeup_main_function(bus, nullptr, nullptr, nullptr);
  dbus_connection_set_timeout_functions(bus, nullptr, nullptr, nullptr, nullptr, nullptr);
  dbus_connection_set_watch_functions(bus, nullptr, nullptr, nullptr, nullptr, nullptr);
  dbus_connection_close(bus);
  dbus_connection_unref(bus);
  if (next_pass != nullptr)
    ecore_job_del(next_pass);
}

int e_dbus_init() {
  if (library == nullptr) {
    library = new bus_library;
    library->introspectable.name = DBUS_INTERFACE_INTROSPECTABLE;
    e_dbus_interface_method_add(&library->introspectable, "Introspect", "", "s", introspect);
    E_DBus_Interface *properties = &library->properties;
    properties->name = DBUS_INTERFACE_PROPERTIES;
    e_dbus_interface_method_add(properties, "Get", "ss", "v", get_property);
    e_dbus_interface_method_add(properties, "Set", "ssv", "", set_property);
    e_dbus_interface_method_add(properties, "GetAll", "s", "a{sv}", get_all_properties);
    e_dbus_interface_signal_add(properties, "PropertiesChanged", "sa{sv}as");
  }
  return ++library->users;
}

int e_dbus_shutdown() {
  if (library == nullptr)
    return 0;
  if (--library->users > 0)
    return library->users;
  delete library;
  library = nullptr;
  return 0;
}

E_DBus_Connection *e_dbus_bus_get(DBusBusType type) {
  if (library == nullptr || type < 0 || type >= static_cast<int>(library->connections.size()))
    return nullptr;
  auto &connection = library->connections[type];
  if (connection)
    return connection.get();

  DBusError error = DBUS_ERROR_INIT;
  DBusConnection *bus = dbus_bus_get_private(type, &error);
  if (bus == nullptr) {
    system_log_print(SYSTEM_LOG_ERROR, kTag, "no bus: %s", error.message);
    dbus_error_free(&error);
    return nullptr;
  }
  connection = std::make_unique<E_DBus_Connection>(bus);
  if (!drive_from_main_loop(connection.get()))
    connection.reset();
  return connection.get();
}

DBusPendingCall *e_dbus_message_send(E_DBus_Connection *connection, DBusMessage *message,
                                     E_DBus_Method_Return_Cb callback, int timeout, void *data) {
  if (connection == nullptr || message == nullptr)
    return nullptr;
  if (callback == nullptr) {
    dbus_connection_send(connection->bus, message, nullptr);
    return nullptr;
  }
  DBusPendingCall *pending = nullptr;
  if (!dbus_connection_send_with_reply(connection->bus, message, &pending, timeout) ||
      pending == nullptr)
    return nullptr;
  connection->waiting.insert({pending, {callback, data}});
  dbus_pending_call_set_notify(pending, reply_arrived, connection, nullptr);
  return pending;
}

DBusPendingCall *e_dbus_request_name(E_DBus_Connection *connection, const char *name,
                                     unsigned int flags, E_DBus_Method_Return_Cb callback,
                                     const void *data) {
  if (name == nullptr || !dbus_validate_bus_name(name, nullptr))
    return nullptr;
  const message_ptr request{dbus_message_new_method_call(DBUS_SERVICE_DBUS, DBUS_PATH_DBUS,
                                                         DBUS_INTERFACE_DBUS, "RequestName")};
  if (!request || !dbus_message_append_args(request.get(), DBUS_TYPE_STRING, &name,
                                            DBUS_TYPE_UINT32, &flags, DBUS_TYPE_INVALID))
    return nullptr;
  return e_dbus_message_send(connection, request.get(),
                             callback != nullptr ? callback : ignore_reply,
                             DBUS_TIMEOUT_USE_DEFAULT, const_cast<void *>(data));
}

E_DBus_Object *e_dbus_object_add(E_DBus_Connection *connection, const char *path, void *) {
  static const DBusObjectPathVTable table = {nullptr, take_call, nullptr,
                                             nullptr, nullptr,   nullptr};
  if (connection == nullptr || path == nullptr || !dbus_validate_path(path, nullptr))
    return nullptr;
  auto object = std::make_unique<E_DBus_Object>();
  object->connection = connection;
  object->path = path;
  object->interfaces = {&library->introspectable};
  if (!dbus_connection_try_register_object_path(connection->bus, path, &table, object.get(),
                                                nullptr))
    return nullptr;
  return connection->objects.emplace_back(std::move(object)).get();
}

E_DBus_Interface *e_dbus_interface_new(const char *name) {
  if (library == nullptr || name == nullptr || !dbus_validate_interface(name, nullptr))
    return nullptr;
  auto &interface = library->interfaces.emplace_back(std::make_unique<E_DBus_Interface>());
  interface->name = name;
  return interface.get();
}

int e_dbus_interface_method_add(E_DBus_Interface *interface, const char *member,
                                const char *signature, const char *reply_signature,
                                E_DBus_Method_Cb handler) {
  if (interface == nullptr || handler == nullptr || !dbus_validate_member(member, nullptr) ||
      !dbus_signature_validate(signature, nullptr) ||
      !dbus_signature_validate(reply_signature, nullptr))
    return 0;
  interface->methods.push_back({member, signature, reply_signature, handler});
  return 1;
}

int e_dbus_interface_signal_add(E_DBus_Interface *interface, const char *member,
                                const char *signature) {
  if (interface == nullptr || !dbus_validate_member(member, nullptr) ||
      !dbus_signature_validate(signature, nullptr))
    return 0;
  interface->signals.push_back({member, signature});
  return 1;
}

int e_dbus_interface_property_add(E_DBus_Interface *interface, const char *name, const char *type,
                                  E_DBus_Property_Change change, E_DBus_Property_Get_Cb get,
                                  E_DBus_Property_Set_Cb set) {
  if (interface == nullptr || get == nullptr || !dbus_validate_member(name, nullptr) ||
      !dbus_signature_validate_single(type, nullptr))
    return 0;
  interface->properties.push_back({name, type, change, get, set});
  return 1;
}

void e_dbus_object_interface_attach(E_DBus_Object *object, E_DBus_Interface *interface) {
  if (object == nullptr || interface == nullptr)
    return;
  object->interfaces.push_back(interface);
  if (!interface->properties.empty() && !has_interface(object, DBUS_INTERFACE_PROPERTIES))
    object->interfaces.push_back(&library->properties);
}

void e_dbus_properties_changed(E_DBus_Object *object, const E_DBus_Interface *interface,
                               const char *const *names) {
  const message_ptr signal{dbus_message_new_signal(object->path.c_str(), DBUS_INTERFACE_PROPERTIES,
                                                   "PropertiesChanged")};
  if (signal == nullptr)
    return;
  const char *owner = interface->name.c_str();
  DBusMessageIter out;
  DBusMessageIter values;
  DBusMessageIter named;
  dbus_message_iter_init_append(signal.get(), &out);
  dbus_message_iter_append_basic(&out, DBUS_TYPE_STRING, &owner);
  dbus_message_iter_open_container(&out, DBUS_TYPE_ARRAY, "{sv}", &values);
  for (const char *const *name = names; *name != nullptr; ++name)
    if (const property_entry *property = find_property(interface, *name);
        property != nullptr && property->change == E_DBUS_PROPERTY_SENT)
      append_entry(&values, object, *property);
  dbus_message_iter_close_container(&out, &values);
  dbus_message_iter_open_container(&out, DBUS_TYPE_ARRAY, DBUS_TYPE_STRING_AS_STRING, &named);
  for (const char *const *name = names; *name != nullptr; ++name)
    if (const property_entry *property = find_property(interface, *name);
        property != nullptr && property->change == E_DBUS_PROPERTY_NAMED)
      dbus_message_iter_append_basic(&named, DBUS_TYPE_STRING, name);
  dbus_message_iter_close_container(&out, &named);
  dbus_connection_send(object->connection->bus, signal.get(), nullptr);
}
