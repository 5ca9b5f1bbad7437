// A blocking client on the sandbox's bus. Throws where a call goes wrong.
#pragma once

#include "times.h"

#include <dbus/dbus.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <sys/types.h>
#include <vector>

constexpr const char *kSandboxBus = "unix:path=/run/bench/bus";
constexpr int kDeadlineMs = 30000; // only ever reached by a failure

struct unref_message {
  void operator()(DBusMessage *owned) const { dbus_message_unref(owned); }
};
using message = std::unique_ptr<DBusMessage, unref_message>;
using words = std::vector<std::int32_t>;

// Where a call goes. The interface is the object's own, except for the calls of the set's
// properties.
struct bus_target {
  const char *name;
  const char *path;
  const char *interface;
};
constexpr bus_target kDaemon = {kDravelBusName, kDravelObjectPath, kDravelBusName};
constexpr bus_target kStandin = {kDravelBusName, "/org/olvara/tv/standin", "org.olvara.tv.standin"};
constexpr bus_target kState = {kDravelBusName, kStateObjectPath, kStateInterface};

class bus_client {
public:
  explicit bus_client(const char *address = kSandboxBus);
  ~bus_client();
  bus_client(const bus_client &) = delete;
  bus_client &operator=(const bus_client &) = delete;

  message send(const message &request);
  void post(const message &request); // receive() gets the answer
  message call(const bus_target &target, const char *method, std::span<const int> arguments = {});
  // Null when the answer is an error or none comes.
  message try_call(const bus_target &target, const char *method, std::span<const int> arguments);
  int call_int(const bus_target &target, const char *method, std::span<const int> arguments);
  int schedule(const bus_target &target, const timer_arguments &timer); // throws when refused
  void cancel(const bus_target &target, int timer_id);                  // likewise
  words list(const bus_target &target);

  // Arguments and replies in GVariant's text form; an error answers with its name.
  std::string ask(const bus_target &target, const char *method, const std::string &arguments);
  std::string property(const char *name, const bus_target &object = kStandin);
  // Whether a call is answered: no answer has come once a later call is answered.
  bool is_answered(const bus_target &target, const char *method, const std::string &arguments);

  // Hands over the signals that match `rule` until `done` says so; `drain` those that have arrived.
  void listen(const char *rule);
  void receive(const std::function<bool(DBusMessage *)> &done);
  void drain(const std::function<void(DBusMessage *)> &each);
  pid_t pid_of(const char *connection); // -1 when it has gone

private:
  DBusConnection *bus_;
};

message method_call(const bus_target &target, const char *method);
message request_with(const bus_target &target, const char *method, std::span<const int> arguments);
message request_of(const bus_target &target, const char *method, const std::string &arguments);
int int_of(const message &reply);
words image_of(const message &reply);     // the integer of an "iay" reply, then its bytes as words
std::string body_text(DBusMessage *sent); // in that text form

// A property's value in that text form.
inline std::string u32(std::uint32_t value) { return "uint32 " + std::to_string(value); }
