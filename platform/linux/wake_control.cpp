// The power micro-controller of the set: the alarm of the real-time clock.
#include "alarm.h"
#include "clock.h"
#include "loop_timer.h"
#include "screen.h"
#include "time_source.h"

#include <Ecore.h>
#include <IPowerControl.h>
#include <daemon_callbacks.h>
#include <time_values.h>

// Many televisions do not report that their own remote has turned them on or off.
static constexpr std::uint32_t kAskBeforeSeconds = 10;

namespace {

class wake_control final : public IPowerControl {
public:
  int read_rtc(rtc_time *out) override;
  int set_wakeup_time(std::uint32_t type, std::uint32_t time) override;
  int clear_wakeup_time() override;
};

} // namespace

static Ecore_Timer *ask_timer;

static Eina_Bool ask_before_on_time(void *) {
  ask_timer = nullptr;
  ask_screen();
  return ECORE_CALLBACK_CANCEL;
}

int wake_control::read_rtc(rtc_time *out) {
  const auto utc = read_rtc_utc();
  if (!utc)
    return kFailed;
  *out = rtc_reading(*utc);
  return kDone;
}

// The daemon gives UTC in the automatic clock mode, local time otherwise.
int wake_control::set_wakeup_time(std::uint32_t type, std::uint32_t time) {
  const std::uint32_t on_time = clock_mode() == kClockModeAutomatic ? time : to_utc(time);
  end_timer(ask_timer);
  if (on_time > utc_now() + kAskBeforeSeconds)
    ask_timer =
        ecore_timer_add(on_time - utc_now() - kAskBeforeSeconds, ask_before_on_time, nullptr);
  return set_alarm(type, on_time);
}

int wake_control::clear_wakeup_time() {
  end_timer(ask_timer);
  return clear_alarm();
}

IPowerControl *IPowerControl::getInstance() {
  static wake_control instance;
  return &instance;
}
