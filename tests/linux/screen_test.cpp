#include "machine.h"

namespace {

constexpr std::uint8_t kAbort = 0x00;
constexpr std::uint8_t kStandby = 0x36;
constexpr std::uint8_t kReport = 0x90;
constexpr std::uint8_t kIsOn = 0, kIsOff = 1, kTurnsOn = 2;

constexpr const char *kView = "0:04 f:821000"; // Image View On, Active Source
constexpr const char *kAsk = "0:8f";

class Screen : public Machine {
protected:
  void start_with(const char *configuration) {
    start(configuration, false);
    EXPECT_EQ(sent(), kAsk);
  }
  std::string sent() { return std::exchange(cec.sent, ""); }
};

TEST_F(Screen, IsTurnedOn_AskedEverySecond_ToldAgainTwice_AndGivenUpWithOneLine) {
  start_with("");
  EXPECT_EQ(device_power_set_state(0, 1), 0);
  EXPECT_EQ(sent(), kView);
  for (int second = 1; second < 15; ++second) {
    const bool again = second == 4 || second == 8;
    EXPECT_EQ(stderr_of([] { fire(1); }), "");
    EXPECT_EQ(sent(), (again ? std::string(kView) + " " : "") + kAsk);
    if (second == 5)
      television_says({kReport, kTurnsOn});
  }
  EXPECT_EQ(stderr_of([] { fire(1); }),
            "DRAVEL_LINUX: the television does not say it is on after 15 seconds\n");
  EXPECT_EQ(timers(), "");
  EXPECT_EQ(device_power_get_state(), 0);
}

TEST_F(Screen, ThatStaysOff_IsOff) {
  start_with("");
  device_power_set_state(0, 1);
  television_stays(kIsOff);
  EXPECT_EQ(device_power_get_state(), 2);
  EXPECT_EQ(events(), "state 2");
}

TEST_F(Screen, HasObeyed_WhenItSaysSo_OrDoesNotKnowTheQuestion) {
  start_with("cec-standby=all");
  static constexpr struct {
    bool on;
    std::initializer_list<std::uint8_t> said;
    bool settled;
  } kCases[] = {{true, {kReport, kIsOn}, true},   {true, {kReport, kTurnsOn}, false},
                {true, {kReport, kIsOff}, false}, {true, {kAbort, 0x8f, 0}, true},
                {true, {kStandby}, false},        {false, {kReport, kIsOff}, true},
                {false, {kReport, kIsOn}, false}, {false, {kAbort, 0x36, 4}, true},
                {false, {kReport}, false},        {true, {kAbort, 0x36, 4}, false},
                {false, {kAbort, 0x04, 0}, false}};
  for (const auto &row : kCases) {
    row.on ? device_power_set_state(0, 1) : device_power_request_poweroff(1);
    EXPECT_EQ(sent(), row.on ? kView : "f:36");
    television_says(row.said);
    calls(); // there are no hooks to wait for
    EXPECT_EQ(timers(), row.settled ? "" : "1");
    EXPECT_EQ(device_power_get_state(), row.on ? 0 : 2);
  }
}

TEST_F(Screen, ChangesByItsOwnRemote) {
  start_with("");
  television_says({kStandby});
  television_says({kReport, kIsOff});
  television_says({kReport, kTurnsOn});
  television_says({0x83, 0, 0});
  EXPECT_EQ(events(), "state 2; state 0");
  television_says({kStandby});
  EXPECT_EQ(device_power_get_state(), 2);
}

TEST_F(Screen, IsAskedAtTheStart_AndTenSecondsBeforeTheOnTime) {
  start_with("");
  set_wakeup(0, kNow + kHour);
  set_wakeup(0, kNow + 100);
  EXPECT_EQ(timers(), "90");
  fire(90);
  EXPECT_EQ(sent(), kAsk);
  set_wakeup(0, kNow + 100);
  clear_wakeup();
  EXPECT_EQ(timers(), "");
  set_wakeup(0, kNow + 10);
  EXPECT_EQ(timers(), "");
}

} // namespace
