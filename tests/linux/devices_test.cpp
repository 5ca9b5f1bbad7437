// The adapters of the real-time clock, the television, the input devices and the clock.
#include "cec.h"
#include "configuration.h"
#include "edid.h"
#include "input.h"
#include "machine.h"
#include "rtc.h"
#include "sentences.h"
#include "timedated.h"
#include "zone.h"

#include <Ecore.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <linux/input.h>
#include <sys/stat.h>
#include <tuple>
#include <unistd.h>
#include <utility>

namespace {

// Descriptors of this process.
long open_below(const char *directory) {
  long count = 0;
  std::error_code closed_meanwhile;
  for (const auto &entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    const std::string path = std::filesystem::read_symlink(entry, closed_meanwhile);
    count += path.starts_with(directory) ? 1 : 0;
  }
  return count;
}

// --- real-time clock ---

class Rtc : public Machine {};

TEST_F(Rtc, IsTheFirstThatCanWake_OrTheConfiguredOne) {
  write_file("/sys/class/rtc/rtc10/wakealarm", "");
  write_file("/sys/class/rtc/rtc2/wakealarm", "");
  write_file("/sys/class/rtc/rtc2/device/power/wakeup", "disabled\n");
  std::filesystem::create_symlink("/dev/rtc0", "/dev/rtc");
  const auto chosen = [](const char *configured) {
    choose_rtc(configured);
    return rtc_path();
  };
  EXPECT_EQ(chosen("auto"), "/dev/rtc0");
  std::filesystem::remove(kAlarmPath);
  EXPECT_EQ(chosen("auto"), "/dev/rtc10");
  EXPECT_EQ(chosen("/dev/rtc"), "/dev/rtc0");
  EXPECT_TRUE(read_rtc().for_good) << "it has no alarm";
  EXPECT_EQ(chosen("/dev/rtc5"), "");
  EXPECT_TRUE(read_rtc().for_good);
  EXPECT_EQ(write_rtc_alarm(kNow).error, ENODEV);
  EXPECT_FALSE(read_rtc_utc());
  std::filesystem::remove("/sys/class/rtc/rtc10/wakealarm");
  EXPECT_EQ(chosen("auto"), "");
  write_file(kAlarmPath, "");
  EXPECT_FALSE(read_rtc().for_good) << "its driver came later";
  EXPECT_EQ(rtc_path(), "/dev/rtc0");
}

TEST_F(Rtc, IsRead_AndItsAlarmWrittenAndReadBack) {
  choose_rtc("auto");
  const auto written = [](std::int64_t count) {
    const auto result = write_rtc_alarm(count);
    return std::tuple(result.count, result.error, read_file(kAlarmPath));
  };
  const auto text = std::to_string(kNow + 60);
  EXPECT_EQ(written(kNow + 60), std::tuple(kNow + 60, 0, text));
  rtc.minutes = true;
  rtc.refuses = EBUSY;
  EXPECT_FALSE(read_rtc().minutes);
  rtc.refuses = 0;
  const device_reading reading = read_rtc();
  EXPECT_EQ(std::tuple(reading.error, reading.clock, reading.alarm, reading.minutes),
            std::tuple(0, kNow, kNow + 60, true));
  choose_rtc("auto");
  rtc.minutes = false;
  EXPECT_FALSE(read_rtc().minutes) << "it may be another one";
  rtc.refuses = EINVAL;
  EXPECT_EQ(switch_off_rtc_alarm().error, EINVAL);
  EXPECT_EQ(written(kNow + 90), std::tuple(0, EINVAL, ""));
  EXPECT_EQ(switch_off_rtc_alarm().error, 0) << "it is off already";
  rtc.refuses = 0;
  rtc.forgets = true;
  EXPECT_EQ(written(kNow + 90), std::tuple(0, EIO, ""));
  write_file(kAlarmPath, text);
  EXPECT_EQ(switch_off_rtc_alarm().error, 0);
  std::filesystem::remove("/sys/class/rtc/rtc0/since_epoch");
  EXPECT_EQ(read_rtc().error, ENOENT);
  EXPECT_EQ(open_below("/dev/rtc"), 0);
}

TEST_F(Rtc, HasGivenTheTime_WhenItIsValidAndTheKernelTookIt) {
  choose_rtc("auto");
  EXPECT_EQ(read_rtc_utc(), kNow);
  EXPECT_TRUE(rtc_gave_time(kNow));
  EXPECT_FALSE(rtc_gave_time(kNow + 1));
  write_file("/sys/class/rtc/rtc0/hctosys", "0");
  EXPECT_TRUE(rtc_gave_time(kNow)) << "a program has set the system clock by it";
  set_now(kNow + 6);
  EXPECT_FALSE(rtc_gave_time(kNow));
}

// --- television ---

class Television : public Machine {
protected:
  void open(const char *lines = "cec=/dev/cec7") {
    ASSERT_EQ(mkfifo("/dev/cec7", 0600), 0);
    fifo_ = ::open("/dev/cec7", O_RDWR | O_CLOEXEC);
    configure(lines);
    read_configuration();
    start_bus();
    start_cec();
    open_cec();
    change();
  }

  // What was sent, then what was heard.
  static std::string both() {
    const std::string heard = seen();
    return std::exchange(cec.sent, "") + " | " + heard;
  }

  // With each message the kernel reports an event, as when the addresses have changed.
  std::string reply_to(const cec_msg &message) {
    cec.has_event = true;
    EXPECT_EQ(write(fifo_, &message, sizeof message), sizeof message);
    wait_until([] { return !cec.has_event; });
    return both();
  }

  std::string says(std::initializer_list<std::uint8_t> bytes) { return reply_to(received(bytes)); }

  std::string change() { return reply_to({}); }

private:
  int fifo_ = -1;
};

void configured_by(const char *name) {
  cec.addresses.num_log_addrs = 1;
  cec.addresses.log_addr[0] = CEC_LOG_ADDR_PLAYBACK_2;
  cec.addresses.log_addr_mask = 1 << CEC_LOG_ADDR_PLAYBACK_2;
  std::ranges::copy(std::string(name) + '\0', cec.addresses.osd_name);
}

TEST_F(Television, IsClaimed_Ordered_AndUnderstood) {
  static constexpr struct {
    std::initializer_list<std::uint8_t> said;
    const char *sent;
    const char *heard;
  } kCases[] = {
      {{0x04, CEC_MSG_GIVE_DEVICE_POWER_STATUS}, "409000", ""},
      {{0x04, CEC_MSG_PLAY, 0x24}, "40004100", ""},
      {{0x04, CEC_MSG_REPORT_POWER_STATUS, CEC_OP_POWER_STATUS_ON}, "", "; tv 0"},
      {{0x04, CEC_MSG_REPORT_POWER_STATUS, CEC_OP_POWER_STATUS_TO_STANDBY}, "", "; tv 3"},
      {{0x04, CEC_MSG_REPORT_POWER_STATUS, 9}, "", ""},
      {{0x04, CEC_MSG_REPORT_POWER_STATUS}, "", ""},
      {{0x54, CEC_MSG_REPORT_POWER_STATUS, 0}, "", ""}, // the amplifier
      {{0x04, CEC_MSG_FEATURE_ABORT, 0x36, 0}, "", "; denies 54 1"},
      {{0x04, CEC_MSG_FEATURE_ABORT, 0x36, 1}, "", "; denies 54 0"}, // not now
      {{0x04, CEC_MSG_FEATURE_ABORT, 0x36}, "", "; denies 54 0"},
      {{0xf4, CEC_MSG_PLAY, 0x24}, "", ""}, // cannot be answered
      {{0x04}, "", ""},                     // it looks who is there
      {{0x04, CEC_MSG_STANDBY}, "", "; standby"},
      {{0x0f, CEC_MSG_STANDBY}, "", "; standby"},
      {{0x0f, CEC_MSG_REQUEST_ACTIVE_SOURCE}, "", "; source?"},
      {{0x0f, CEC_MSG_SET_STREAM_PATH, 0x10, 0x00}, "", "; source?"},
      {{0x0f, CEC_MSG_SET_STREAM_PATH, 0x20, 0x00}, "", ""},
      {{0x0f, CEC_MSG_SET_STREAM_PATH, 0x10}, "", ""},
  };
  open("cec=/dev/cec7\ncec-physical-address=2.0.0.0"); // which this adapter knows by itself
  EXPECT_EQ(cec.mode, CEC_MODE_INITIATOR | CEC_MODE_FOLLOWER);
  EXPECT_EQ(cec.claims, 1);
  EXPECT_EQ(cec_description(), "/dev/cec7 1.0.0.0");
  turn_television(true);
  EXPECT_EQ(both(), "4004 4f821000 | ");
  turn_television(false);
  ask_television();
  answer_television();
  EXPECT_EQ(both(), "4036 408f?1000 4f821000 | ");
  for (const auto &[said, sent, heard] : kCases)
    EXPECT_EQ(says(said), std::string(sent) + " | reachable 1" + heard);
}

TEST_F(Television, ThatDoesNotAnswer_IsSilent) {
  cec_msg unanswered{};
  open();
  unanswered.tx_status = CEC_TX_STATUS_NACK | CEC_TX_STATUS_MAX_RETRIES;
  unanswered.msg[0] = 0x40;
  unanswered.len = 2;
  EXPECT_EQ(reply_to(unanswered), " | reachable 1; silent");
  unanswered.msg[0] = 0x4f;
  EXPECT_EQ(reply_to(unanswered), " | reachable 1") << "not sent to it";
  unanswered.tx_status = CEC_TX_STATUS_OK;
  unanswered.msg[0] = 0x40;
  EXPECT_EQ(reply_to(unanswered), " | reachable 1");
  unanswered.rx_status = CEC_RX_STATUS_TIMEOUT;
  EXPECT_EQ(reply_to(unanswered), " | reachable 1; silent");
  unanswered.msg[0] = 0x04;
  unanswered.msg[1] = CEC_MSG_STANDBY;
  EXPECT_EQ(reply_to(unanswered), " | reachable 1") << "not received whole";
  cec.refuses = ENONET;
  ask_television();
  turn_television(false);
  EXPECT_EQ(both(), "408f?1000 4036 | silent; silent");
}

TEST_F(Television, OfAnAdapterThatSomebodyElseConfigured_IsLeftToItToAnswer) {
  configured_by("player");
  open("cec=/dev/cec7\ncec-standby=all");
  EXPECT_EQ(cec.claims, 0);
  turn_television(false);
  EXPECT_EQ(both(), "8f36 | ");
  EXPECT_EQ(says({0x08, CEC_MSG_GIVE_DEVICE_POWER_STATUS}), " | reachable 1");
  configured_by("dravel"); // an earlier run of ours
  change();
  EXPECT_EQ(says({0x08, CEC_MSG_GIVE_DEVICE_POWER_STATUS}), "809000 | reachable 1");
  cec.addresses = {};
  change();
  EXPECT_EQ(cec.claims, 0) << "it is about to be configured again";
  turn_television(false);
  EXPECT_EQ(cec.claims, 1);
  EXPECT_EQ(both(), " | ");
  EXPECT_EQ(change(), "4f36 | reachable 1") << "the order has waited for the address";
  cec.addresses = {};
  change();
  turn_television(false);
  sleep_for(15);
  EXPECT_EQ(change(), " | reachable 1") << "somebody may have turned it on since";
  cec.addresses = {};
  change();
  turn_television(false);
  turn_television(true);
  both();
  EXPECT_EQ(change(), " | reachable 1") << "it is to be on";
}

TEST_F(Television, WithoutAnAddress_IsWokenBlindly_AndItsOtherEndNotUsed) {
  cec.physical = CEC_PHYS_ADDR_INVALID;
  ASSERT_EQ(mkfifo("/dev/cec8", 0600), 0);
  open("cec=auto");
  turn_television(true);
  EXPECT_EQ(both(), "f004 f004 | ") << "at both adapters: nobody knows which is its";
  std::filesystem::remove("/dev/cec8");
  open_cec();
  seen();
  EXPECT_EQ(cec_description(), "/dev/cec7");
  turn_television(true);
  turn_television(false);
  ask_television();
  EXPECT_EQ(both(), "f004 | silent; silent");
  cec.physical = 0;
  EXPECT_EQ(change(), " | reachable 0");
  turn_television(true);
  EXPECT_EQ(both(), " | silent");
}

TEST_F(Television, ThatDropsTheCableWhileItBoots_StaysReachable) {
  open();
  cec.physical = CEC_PHYS_ADDR_INVALID;
  cec.addresses.log_addr_mask = 0;
  EXPECT_EQ(change(), " | reachable 1");
  cec.physical = 0x1000; // the kernel claims the logical address again
  EXPECT_EQ(change(), " | reachable 1");
  cec.addresses = {}; // another program gives it back
  EXPECT_EQ(change(), " | reachable 1");
  cec.refuses_claim = EBUSY;
  turn_television(true);
  EXPECT_EQ(change(), " | silent; reachable 0; "
                      "/dev/cec7: Device or resource busy; it gets no logical address");
  turn_television(true);
  EXPECT_EQ(both(), " | silent") << "it is said once";
}

// A block of HDMI's behind a video block, as a television at the output's port 2 has it.
std::vector<std::uint8_t> edid(std::uint8_t oui, std::uint8_t size = 14) {
  std::vector<std::uint8_t> bytes(256);
  const std::uint8_t extension[] = {2, 3,    size, 0,    0x43, 1,    2,
                                    3, 0x65, oui,  0x0c, 0x00, 0x20, 0x00};
  std::ranges::copy(extension, bytes.begin() + 128);
  return bytes;
}

TEST_F(Television, BehindAUsbAdapter_HasTheAddressOfItsOutput) {
  const auto bytes = edid(3);
  auto other = bytes;
  other[128 + 12] = 0x30;
  EXPECT_EQ(physical_address_in(other), 0x3000);
  EXPECT_EQ(physical_address_in(bytes), 0x2000);
  EXPECT_EQ(physical_address_in(edid(4)), std::nullopt);
  EXPECT_EQ(physical_address_in(edid(3, 13)), std::nullopt) << "a block that is cut";
  EXPECT_EQ(physical_address_in(std::span(bytes).first(200)), std::nullopt);
  auto third = bytes;
  third.insert(third.end(), bytes.begin() + 128, bytes.end());
  third[128] = 0x70; // of another kind
  EXPECT_EQ(physical_address_in(third), 0x2000);
  write_file("/sys/class/drm/card0-DP-1/status", "disconnected\n");
  write_file("/sys/class/drm/card0-DP-1/edid", std::string(other.begin(), other.end()));
  write_file("/sys/class/drm/card0-HDMI-A-1/status", "connected\n");
  write_file("/sys/class/drm/card0-HDMI-A-1/edid", std::string(bytes.begin(), bytes.end()));
  cec.physical = CEC_PHYS_ADDR_INVALID;
  cec.needs_address = true;
  open();
  EXPECT_EQ(cec_description(), "/dev/cec7 2.0.0.0");
  configure("cec=/dev/cec7\ncec-physical-address=3.1.2.4");
  read_configuration();
  open_cec();
  change();
  EXPECT_EQ(cec_description(), "/dev/cec7 3.1.2.4");
}

TEST_F(Television, WhoseAdapterIsMissing_IsAProblemOnlyWhenConfigured) {
  start_bus();
  start_cec();
  open_cec();
  EXPECT_EQ(both(), " | works 8; reachable 0");
  EXPECT_EQ(cec_description(), "");
  configure("cec=/dev/cec3");
  read_configuration();
  open_cec();
  EXPECT_EQ(both(), " | refused 8 2; reachable 0");
  const int cable = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC); // whose other end hears its end
  ASSERT_EQ(unlockpt(cable), 0);
  std::filesystem::create_symlink(ptsname(cable), "/dev/cec3");
  EXPECT_EQ(both(), " | works 8; reachable 1");
  write_file("/dev/cec", "");
  EXPECT_EQ(both(), " | works 8; reachable 1") << "the other one is open already";
  EXPECT_EQ(open_below("/dev/pts/"), 2); // both ends
  write_file("/dev/other", "");
  EXPECT_EQ(both(), " | ");
  close(cable);
  EXPECT_EQ(both(), " | refused 8 19; reachable 0") << "it is pulled";
  EXPECT_EQ(open_below("/dev/pts/"), 0);
}

// --- sentences ---

TEST_F(Machine, AnEntrysReason_IsWhatTheHistoryCountsBy) {
  using order::saying;
  for (const auto &[what, reason] : {std::pair{saying::kWoken, "user"},
                                     {saying::kBooted, "user"},
                                     {saying::kTelevisionLate, "answers that it is off"},
                                     {saying::kGoesToSleep, "power off"},
                                     {saying::kPostponed, "a program blocks it"},
                                     {saying::kHopWillNotBoot, ""},
                                     {saying::kScreenOn, ""},
                                     {saying::kLate, ""},
                                     {saying::kTestBegins, ""}})
    EXPECT_EQ(sentence_of(order::say{.what = what, .number = 1}).reason, reason);
}

TEST_F(Machine, AFailedSleep_IsPostponedWithTheKernelsReason) {
  EXPECT_EQ(sentence_of(postponed::kFailed), "the last attempt failed");
  write_file("/sys/power/suspend_stats/last_failed_step", "suspend\n");
  write_file("/sys/power/suspend_stats/last_failed_dev", "usb1\n");
  EXPECT_EQ(sentence_of(postponed::kFailed),
            "the last attempt failed; the kernel's last failure: suspend, usb1");
  EXPECT_EQ(sentence_of(postponed::kHook), "a unit of dravel-off.target runs");
}

// --- input ---

TEST_F(Machine, AKeyIsHeard_WhileTheDevicesAreWatched) {
  ASSERT_EQ(mkfifo("/dev/input/event0", 0600), 0);
  const int fifo = open("/dev/input/event0", O_RDWR | O_CLOEXEC);
  const auto press = [](int fd, std::uint16_t type, int value = 1, std::uint16_t code = KEY_A) {
    input_event pressed{};
    pressed.type = type;
    pressed.code = code;
    pressed.value = value;
    pressed.input_event_sec = 5;
    pressed.input_event_usec = 6000;
    EXPECT_EQ(write(fd, &pressed, sizeof pressed), sizeof pressed);
    return seen();
  };
  start_bus();
  EXPECT_EQ(press(fifo, EV_SYN), "");
  watch_input(true);
  EXPECT_EQ(seen(), "works 7");
  EXPECT_EQ(press(fifo, EV_REL), "");
  EXPECT_EQ(press(fifo, EV_KEY), "input 5006");
  EXPECT_EQ(press(fifo, EV_KEY, 0), "") << "a release";
  EXPECT_EQ(press(fifo, EV_KEY, 1, KEY_WAKEUP), "") << "of the power button's driver";
  EXPECT_EQ(chmod("/dev/input/event0", 0644), 0);        // it is watched already
  for (const char *name : {"event1", "event2", "js0"}) { // a keyboard, a socket, a joystick
    const bool has_keys = name == std::string_view{"event1"};
    const std::string path = std::string("/dev/input/") + name;
    write_file(std::string("/sys/class/input/") + name + "/device/capabilities/ev",
               has_keys ? "120013\n" : "21\n");
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    const int later = open(path.c_str(), O_RDWR | O_CLOEXEC);
    seen();
    EXPECT_EQ(press(later, EV_KEY), has_keys ? "input 5006" : "");
    close(later); // it is pulled
  }
  wait_until([] {
    return open_below("/dev/input/event") == 2;
  }); // of event0, by the platform and this case
  watch_input(false);
  EXPECT_EQ(press(fifo, EV_KEY), "");
  close(fifo);
  wait_until([] { return open_below("/dev/input/event") == 0; });
}

TEST_F(Machine, WithoutInputDevices_WaitsForTheFirst) {
  std::filesystem::remove("/dev/input");
  start_bus();
  watch_input(true);
  EXPECT_EQ(seen(), "works 7");
  std::filesystem::create_directory("/dev/input");
  EXPECT_EQ(seen(), "works 7");
  ASSERT_EQ(mkfifo("/dev/input/event0", 0600), 0);
  wait_until([] { return open_below("/dev/input/event") == 1; });
  watch_input(false);
  std::filesystem::remove("/dev/input/event0");
  std::filesystem::create_symlink("/dev/none", "/dev/input/event3");
  watch_input(true);
  EXPECT_EQ(seen(), "refused 7 2") << "there is one, and none can be read";
  std::filesystem::remove("/dev/input/event3");
  watch_input(true);
  EXPECT_EQ(seen(), "works 7");
  write_file("/dev/other", "");
  std::filesystem::remove("/dev/input");
  EXPECT_EQ(seen(), "works 7") << "its last device has gone";
  write_file("/dev/another", "");
  std::filesystem::create_directory("/dev/input");
  EXPECT_EQ(seen(), "works 7");
}

// --- clock ---

TEST_F(Machine, TheClocksSource_ItsZone_AndItsSteps_AreTold) {
  start_services();
  start_bus();
  start_timedated();
  EXPECT_EQ(seen(), "ntp 0 0 1");
  set_property(kTimedated, "NTP", "true");
  EXPECT_EQ(seen(), "ntp 1 0 1");
  set_property(kTimedated, "NTPSynchronized", "true");
  EXPECT_EQ(seen(), "ntp 1 1 1");
  write_file("/run/systemd/timesync/synchronized", "");
  EXPECT_TRUE(seen().starts_with("ntp 1 1 1"));
  write_file("/run/systemd/timesync/synchronized", "x");
  EXPECT_TRUE(seen().starts_with("ntp 1 1 1"));
  setenv("TZ", "Europe/Berlin", 1);
  set_property(kTimedated, "Timezone", "'Europe/Berlin'");
  EXPECT_EQ(seen(), "zone 1806195600 1; ntp 1 1 1"); // 2027-03-28 01:00:00 UTC
  ecore_event_add(ECORE_EVENT_SYSTEM_TIMEDATE_CHANGED, nullptr, nullptr, nullptr);
  EXPECT_EQ(seen(), "step");
  services.reset();
  ask_clock();
  EXPECT_EQ(seen(), "ntp 0 0 0");
}

TEST_F(Machine, ATimeOfTheZone_IsOneTwoOrNone) {
  static constexpr struct {
    const char *zone;
    std::int64_t local, first, second;
  } kCases[] = {
      {"UTC", kNow, kNow, 0},
      {"Europe/Berlin", kNow + 3600, kNow, 0},
      {"Europe/Berlin", 1806201000, 1806195600, 0},          // 02:30, left out
      {"Europe/Berlin", 1824949800, 1824942600, 1824946200}, // 02:30, comes twice
      {"Europe/Berlin", 1824953400, 1824949800, 0},          // 03:30
      {"America/New_York", kNow - 18000, kNow, 0},
      {"Asia/Kolkata", kNow + 19800, kNow, 0},
  };
  for (const auto &[zone, local, first, second] : kCases) {
    setenv("TZ", zone, 1);
    read_zone();
    const utc_times found = utc_of_local(local);
    EXPECT_EQ(std::pair(found.first, found.second), std::pair(first, second)) << zone << local;
    EXPECT_EQ(utc_to_local(first), first == 1806195600 ? local + 1800 : local);
  }
  EXPECT_EQ(transition_after(kNow), 0);
  setenv("TZ", "America/New_York", 1);
  EXPECT_TRUE(read_zone());
  EXPECT_FALSE(read_zone());
  EXPECT_EQ(transition_after(kNow), 1805007600);       // 2027-03-14 07:00:00 UTC
  EXPECT_EQ(transition_after(1805007600), 1825567200); // 2027-11-07 06:00:00 UTC
}

} // namespace
