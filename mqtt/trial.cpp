#include "trial.h"

#include "commands.h"

#include <glib.h>

#include <cstring>
#include <utility>

static constexpr unsigned kDarkSeconds = 5;
static constexpr int kTries = 3; // to turn the screen on
static constexpr unsigned kSleepSeconds = 60;
static constexpr std::uint64_t kWakeUs = 600'000'000; // until the call counts as unanswered
static constexpr long long kPause = 60LL * G_USEC_PER_SEC;

struct trial::callbacks {
  static gboolean light(void *data) {
    auto &self = *static_cast<trial *>(data);
    try {
      self.client_.turn_screen(true);
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

  static int woken(sd_bus_message *reply, void *data, sd_bus_error *) {
    auto &self = *static_cast<trial *>(data);
    const sd_bus_error *error = sd_bus_message_get_error(reply);
    if (error == nullptr && sd_bus_message_has_signature(reply, "us") > 0) {
      const slept test = slept_in(reply);
      self.end({{"test", "wake"}, {"slept", test.seconds}, {"cause", test.cause}}, nullptr);
    } else {
      const char *what = "the answer to TestWake is not understood";
      if (error != nullptr)
        what = error->message != nullptr ? error->message : error->name;
      const failure failure{what, ""};
      self.end({}, &failure);
    }
    return 0;
  }
};

trial::~trial() { break_off(); }

void trial::break_off() {
  if (timer_ == 0)
    return;
  g_source_remove(std::exchange(timer_, 0));
  try {
    client_.turn_screen(true);
  } catch (const failure &) { // nobody is left to hear of it
  }
}

void trial::start_screen() {
  tries_ = kTries;
  try {
    client_.turn_screen(false);
  } catch (const failure &failure) {
    if (failure.kind == fault::kTimeout) // it may be carried out yet
      client_.turn_screen(true);
    throw;
  }
  timer_ = g_timeout_add_seconds(kDarkSeconds, callbacks::light, this);
}

void trial::start_wake() {
  if (!client_.machine())
    throw no_machine();
  sd_bus_slot *slot = nullptr;
  const int result =
      sd_bus_call_async(client_.bus(), &slot, client_.new_test_wake(kSleepSeconds).get(),
                        callbacks::woken, this, kWakeUs);
  if (result < 0)
    throw failure{std::string("the test cannot be asked for: ") + std::strerror(-result), ""};
  woken_.reset(slot);
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
