#include "trial.h"

#include "commands.h"

#include <utility>

static constexpr unsigned kDarkSeconds = 5;
static constexpr int kTries = 3; // to turn the screen on
static constexpr unsigned kSleepSeconds = 60;
static constexpr int kWakeMs = 600 * 1000; // until the call counts as unanswered
static constexpr long long kPause = 60LL * G_USEC_PER_SEC;

struct trial::callbacks {
  static gboolean light(void *data) {
    auto &self = *static_cast<trial *>(data);
    try {
      self.turn_screen(true);
      const auto machine = self.client_.machine();
      self.timer_ = 0;
      self.end({{"test", "screen"}, {"machine", json_of(machine)}}, nullptr);
    } catch (const failure &failure) {
      if (--self.tries_ > 0)
        return G_SOURCE_CONTINUE;
      self.timer_ = 0;
      self.end({}, &failure);
    }
    return G_SOURCE_REMOVE;
  }

  static void woken(GObject *bus, GAsyncResult *result, void *data) {
    g_autoptr(GError) error = nullptr;
    g_autoptr(GVariant) reply =
        g_dbus_connection_call_finish(G_DBUS_CONNECTION(bus), result, &error);
    if (g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CANCELLED) != FALSE)
      return;
    auto &self = *static_cast<trial *>(data);
    if (reply == nullptr) {
      g_dbus_error_strip_remote_error(error);
      const failure failure{error->message, ""};
      return self.end({}, &failure);
    }
    unsigned slept = 0;
    const char *cause = "";
    g_variant_get(reply, "(u&s)", &slept, &cause);
    self.end({{"test", "wake"}, {"slept", slept}, {"cause", cause}}, nullptr);
  }
};

trial::~trial() {
  break_off();
  g_cancellable_cancel(cancellable_);
  g_object_unref(cancellable_);
}

void trial::break_off() {
  if (timer_ == 0)
    return;
  g_source_remove(std::exchange(timer_, 0));
  try {
    turn_screen(true);
  } catch (const failure &) { // nobody is left to hear of it
  }
}

void trial::turn_screen(bool on) {
  g_variant_unref(
      client_.call_machine("TurnScreen", g_variant_new("(b)", on ? TRUE : FALSE), "()"));
}

void trial::start_screen() {
  tries_ = kTries;
  try {
    turn_screen(false);
  } catch (const failure &failure) {
    if (failure.kind == fault::kTimeout) // it may be carried out yet
      turn_screen(true);
    throw;
  }
  timer_ = g_timeout_add_seconds(kDarkSeconds, callbacks::light, this);
}

void trial::start_wake() {
  if (!client_.machine())
    throw no_machine();
  g_dbus_connection_call(client_.bus(), kDravelBusName, kMachinePath, kMachineInterface, "TestWake",
                         g_variant_new("(u)", kSleepSeconds), G_VARIANT_TYPE("(us)"),
                         G_DBUS_CALL_FLAGS_NO_AUTO_START, kWakeMs, cancellable_, callbacks::woken,
                         this);
}

void trial::start(const std::string &what, bool is_named, listener ended) {
  if (what != "screen" && what != "wake")
    throw failure{"test must be screen or wake", "", fault::kUsage};
  if (ended_)
    throw failure{"a test is running", ""};
  if (!is_named && g_get_monotonic_time() < free_at_)
    throw failure{"the last test was less than a minute ago", ""};
  if (what == "screen")
    start_screen();
  else
    start_wake();
  ended_ = std::move(ended);
}

void trial::end(const json &about, const failure *failed) {
  free_at_ = g_get_monotonic_time() + kPause;
  std::exchange(ended_, nullptr)(about, failed);
}
