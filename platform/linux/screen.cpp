#include "screen.h"

#include "configuration.h"
#include "journal.h"
#include "loop_timer.h"
#include "power.h"

#include <Ecore.h>

#include <array>
#include <linux/cec.h>

static constexpr unsigned kAgainSeconds[] = {4, 8};
static constexpr unsigned kGiveUpSeconds = 15;
static constexpr double kCheckSeconds = 1.0;

namespace {

struct screen_order {
  bool on;
  unsigned seconds; // since it was given
  void (*settled)();
  bool is_denied; // the television reports the other state
};

} // namespace

static cec_adapter *adapter;
static screen_order order;
static Ecore_Timer *check_timer; // null: no order is pending

static bool is_pending() { return check_timer != nullptr; }

static bool has_address() { return adapter->physical_address() != kNoPhysicalAddress; }

static void send_on() {
  const std::uint16_t address = adapter->physical_address();
  const std::array<std::uint8_t, 1> view_on = {CEC_MSG_IMAGE_VIEW_ON};
  adapter->send(CEC_LOG_ADDR_TV, view_on);
  if (!has_address())
    return;
  const std::array<std::uint8_t, 3> active = {CEC_MSG_ACTIVE_SOURCE,
                                              static_cast<std::uint8_t>(address >> 8),
                                              static_cast<std::uint8_t>(address & 0xff)};
  adapter->send(CEC_LOG_ADDR_BROADCAST, active);
}

static void send_off() {
  const std::array<std::uint8_t, 1> standby = {CEC_MSG_STANDBY};
  const bool all = configuration().cec_standby_all;
  if (has_address())
    adapter->send(all ? CEC_LOG_ADDR_BROADCAST : CEC_LOG_ADDR_TV, standby);
}

static void send_order() {
  if (order.on)
    send_on();
  else
    send_off();
}

void ask_screen() {
  const std::array<std::uint8_t, 1> question = {CEC_MSG_GIVE_DEVICE_POWER_STATUS};
  if (has_address())
    adapter->send(CEC_LOG_ADDR_TV, question);
}

void screen_is_reachable() {
  if (is_pending())
    send_order();
  else
    ask_screen();
}

static void stop_checks() { end_timer(check_timer); }

static void settle() {
  stop_checks();
  if (order.settled != nullptr)
    order.settled();
}

static Eina_Bool check_screen(void *) {
  ++order.seconds;
  if (order.seconds >= kGiveUpSeconds) {
    report("the television %s %s after %u seconds",
           order.is_denied ? "is not" : "does not say it is", order.on ? "on" : "off",
           kGiveUpSeconds);
    check_timer = nullptr;
    if (order.is_denied && order.on)
      screen_is(false);
    settle();
    return ECORE_CALLBACK_CANCEL;
  }
  for (const unsigned again : kAgainSeconds)
    if (order.seconds == again)
      send_order();
  ask_screen();
  return ECORE_CALLBACK_RENEW;
}

void leave_screen() { stop_checks(); }

void turn_screen(bool on, void (*settled)()) {
  stop_checks();
  order = {on, 0, settled, false};
  const bool is_reachable = adapter->prepare() && (on || has_address() || adapter->is_claiming());
  if (!is_reachable) {
    settle();
    return;
  }
  check_timer = ecore_timer_add(kCheckSeconds, check_screen, nullptr);
  send_order();
}

static void power_status_received(std::uint8_t status) {
  const bool on = status == CEC_OP_POWER_STATUS_ON || status == CEC_OP_POWER_STATUS_TO_ON;
  const bool reached = order.on ? status == CEC_OP_POWER_STATUS_ON : !on;
  order.is_denied = on != order.on;
  if (!is_pending())
    screen_is(on);
  else if (reached)
    settle();
}

static bool belongs_to_order(std::uint8_t opcode) {
  return opcode == CEC_MSG_GIVE_DEVICE_POWER_STATUS ||
         opcode == (order.on ? CEC_MSG_IMAGE_VIEW_ON : CEC_MSG_STANDBY);
}

void screen_received(std::uint8_t sender, std::span<const std::uint8_t> message) {
  if (sender != CEC_LOG_ADDR_TV || message.empty())
    return;
  if (message[0] == CEC_MSG_REPORT_POWER_STATUS && message.size() > 1)
    power_status_received(message[1]);
  else if (message[0] == CEC_MSG_STANDBY && !is_pending())
    screen_is(false);
  else if (message[0] == CEC_MSG_FEATURE_ABORT && message.size() > 1 && is_pending() &&
           belongs_to_order(message[1]))
    settle(); // it does not know the message: the order counts as carried out
}

void start_screen(cec_adapter &used) {
  adapter = &used;
  adapter->start();
  const std::string &cec = configuration().cec;
  if (!adapter->prepare() && cec != "off") // with auto, a machine may well have none
    (cec == "auto" ? note : report)(
        "no CEC adapter with a television (cec = %s); only the targets turn the screen on and off",
        cec.c_str());
  ask_screen();
}
