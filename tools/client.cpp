#include "client.h"

#include "dravel-image.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstring>

#include <glib-unix.h>

namespace {

constexpr const char *service = "org.olvara.tv.system.dravel"; // the interface too
constexpr const char *object = "/org/olvara/tv/system/dravel";

std::string seconds_text(int milliseconds) {
  std::string text = std::to_string(milliseconds / 1000.0);
  text.erase(text.find_last_not_of('0') + 1);
  if (text.back() == '.')
    text.pop_back();
  return text + (text == "1" ? " second" : " seconds");
}

bool is(const GError *error, int code) {
  return g_error_matches(error, G_DBUS_ERROR, code) != FALSE;
}

} // namespace

struct client::image_reply {
  int first = 0;
  std::size_t count = 0;
  std::vector<std::uint8_t> images;
};

client::client(double timeout_seconds) : timeout_ms_(static_cast<int>(timeout_seconds * 1000)) {
  g_autoptr(GError) error = nullptr;
  bus_ = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, &error);
  if (bus_ == nullptr)
    throw failure{"No system bus: " + std::string(error->message),
                  "Is dbus running, and DBUS_SYSTEM_BUS_ADDRESS unset or right?"};
  g_dbus_connection_set_exit_on_close(bus_, FALSE);
}

client::~client() { g_object_unref(bus_); }

void client::fail(const char *method, const GError *error, const std::string &when_silent) {
  if (g_error_matches(error, G_IO_ERROR, G_IO_ERROR_TIMED_OUT))
    throw failure{"dravel-manager did not answer within " + seconds_text(timeout_ms_) +
                      (when_silent.empty() ? "" : ": " + when_silent),
                  log_hint};
  if (is(error, G_DBUS_ERROR_SERVICE_UNKNOWN) || is(error, G_DBUS_ERROR_NAME_HAS_NO_OWNER))
    throw failure{"dravel-manager is not running",
                  "Start it: systemctl start dravel-manager.service"};
  if (is(error, G_DBUS_ERROR_NO_REPLY))
    throw failure{"dravel-manager ended before it answered", log_hint};
  if (is(error, G_DBUS_ERROR_ACCESS_DENIED))
    throw failure{"You may not call " + std::string(method) + ": the bus policy denies it",
                  std::strcmp(method, "request_copy_db") == 0
                      ? "Only root may."
                      : "Only root and the members of the group dravel may."};
  g_autofree char *remote = g_dbus_error_get_remote_error(error);
  std::string text = error->message;
  if (remote != nullptr && text.rfind(remote) != std::string::npos)
    text.erase(0, text.rfind(remote) + std::strlen(remote) + 2);
  throw failure{"The call of " + std::string(method) + " failed: " + text, ""};
}

GVariant *client::call(const char *method, GVariant *arguments, const char *reply_type,
                       const std::string &when_silent) {
  g_autoptr(GError) error = nullptr;
  GVariant *reply = g_dbus_connection_call_sync(
      bus_, service, object, service, method, arguments, G_VARIANT_TYPE(reply_type),
      G_DBUS_CALL_FLAGS_NO_AUTO_START, timeout_ms_, nullptr, &error);
  if (reply == nullptr)
    fail(method, error, when_silent);
  return reply;
}

int client::call_int(const char *method, GVariant *arguments, const std::string &when_silent) {
  g_autoptr(GVariant) reply = call(method, arguments, "(i)", when_silent);
  int value = 0;
  g_variant_get(reply, "(i)", &value);
  return value;
}

// A number and records of `image_size` bytes back to back.
client::image_reply client::call_images(const char *method, int argument, std::size_t image_size) {
  g_autoptr(GVariant) reply = call(method, g_variant_new("(i)", argument), "(iay)");
  image_reply result;
  g_autoptr(GVariant) bytes = nullptr;
  g_variant_get(reply, "(i@ay)", &result.first, &bytes);
  gsize size = 0;
  const auto *data = static_cast<const std::uint8_t *>(g_variant_get_fixed_array(bytes, &size, 1));
  if (size % image_size != 0)
    throw failure{"The answer to " + std::string(method) + " is not understood",
                  "Are dravelctl and dravel-manager of the same version?"};
  result.count = size / image_size;
  result.images.assign(data, data + size);
  return result;
}

template <typename Record, typename Reply>
static std::vector<Record> records_of(const Reply &reply, Record (*from)(const std::uint8_t *),
                                      std::size_t image_size) {
  std::vector<Record> records;
  for (std::size_t i = 0; i < reply.count; ++i)
    records.push_back(from(reply.images.data() + i * image_size));
  return records;
}

// The record of a reply that begins with a result instead of a count.
template <typename Reply> static std::optional<timer_record> only_record(const Reply &reply) {
  if (reply.first != 0 || reply.count == 0)
    return std::nullopt;
  return timer_from_image(reply.images.data());
}

constexpr std::size_t timer_size = TIMER_WORDS * word_size;
constexpr std::size_t period_size = PERIOD_WORDS * word_size;

std::vector<timer_record> client::timers() {
  return records_of(call_images("request_timer_list", 0, timer_size), timer_from_image, timer_size);
}

std::optional<timer_record> client::timer(int id) {
  return only_record(call_images("dravel_get_timer_by_id", id, timer_size));
}

std::optional<timer_record> client::wakeup_timer() {
  return only_record(call_images("request_wakeup_timer", 0, timer_size));
}

std::vector<holiday> client::holidays() {
  return records_of(call_images("request_disabled_period_list", 0, period_size), holiday_from_image,
                    period_size);
}

// --- monitor ---

namespace {

// The three signals of one expiry arrive in this order: weekdays, id, type.
struct listener {
  GMainLoop *loop;
  int count;
  const std::function<void(const client::expiry &)> &expired;
  std::optional<int> week_flag = std::nullopt;
  std::optional<int> id = std::nullopt;
  bool bus_lost = false;
};

void hear(GDBusConnection *, const char *, const char *, const char *, const char *member,
          GVariant *arguments, void *data) {
  auto *self = static_cast<listener *>(data);
  if (!g_variant_is_of_type(arguments, G_VARIANT_TYPE("(i)")))
    return;
  int value = 0;
  g_variant_get(arguments, "(i)", &value);
  if (std::strcmp(member, "dravel_week_flag_expired") == 0) {
    self->week_flag = value;
  } else if (std::strcmp(member, "dravel_expired") == 0) {
    self->id = value;
  } else if (std::strcmp(member, "dravel_type_expired") == 0) {
    // An expiry whose beginning was missed is not told in part.
    const bool complete = self->id && self->week_flag;
    if (complete)
      self->expired({*self->id, value, *self->week_flag});
    self->id.reset();
    self->week_flag.reset();
    if (complete && --self->count == 0)
      g_main_loop_quit(self->loop);
  }
}

gboolean end_loop(void *data) {
  g_main_loop_quit(static_cast<GMainLoop *>(data));
  return G_SOURCE_CONTINUE;
}

void lose_bus(GDBusConnection *, gboolean, GError *, void *data) {
  auto *self = static_cast<listener *>(data);
  self->bus_lost = true;
  g_main_loop_quit(self->loop);
}

void tell_appeared(GDBusConnection *, const char *, const char *, void *) {
  std::fputs("dravel-manager is running; Ctrl-C ends the monitor.\n", stderr);
}

void tell_vanished(GDBusConnection *, const char *, void *) {
  std::fputs("dravel-manager is not running; waiting for it.\n", stderr);
}

} // namespace

void client::monitor(int count, const std::function<void(const expiry &)> &expired) {
  g_autoptr(GMainLoop) loop = g_main_loop_new(nullptr, FALSE);
  listener self{.loop = loop, .count = count, .expired = expired};
  // First, so that what is announced next is heard from then on.
  const unsigned signals =
      g_dbus_connection_signal_subscribe(bus_, service, service, nullptr, object, nullptr,
                                         G_DBUS_SIGNAL_FLAGS_NONE, hear, &self, nullptr);
  const unsigned name = g_bus_watch_name_on_connection(
      bus_, service, G_BUS_NAME_WATCHER_FLAGS_NONE, tell_appeared, tell_vanished, nullptr, nullptr);
  const unsigned long closed = g_signal_connect(bus_, "closed", G_CALLBACK(lose_bus), &self);
  const unsigned ends[] = {g_unix_signal_add(SIGINT, end_loop, loop),
                           g_unix_signal_add(SIGTERM, end_loop, loop)};
  g_main_loop_run(loop);

  std::ranges::for_each(ends, g_source_remove);
  g_signal_handler_disconnect(bus_, closed);
  g_bus_unwatch_name(name);
  g_dbus_connection_signal_unsubscribe(bus_, signals);
  if (self.bus_lost)
    throw failure{"The system bus went away", "Start dravelctl monitor again once it is back."};
}
