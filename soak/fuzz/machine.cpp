// What a Linux machine hands to its platform: the key file, what the last run has left, a
// television's EDID. Read as it is, whatever it is; the rules meet their events in the simulator.
#include "configuration.h"
#include "edid.h"
#include "input.h"
#include "record.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <vector>

static constexpr const char *kConfigurationPath = "/tmp/machine.conf";

static std::string draw_value(input &in) {
  if (in.seldom(64))
    return in.ConsumeRandomLengthString(40);
  return in.PickValueInArray({"0",          "15",      "86400",    "86401", "-1",    "4294967296",
                              "1800000100", "auto",    "off",      "tv",    "all",   "/dev/cec0",
                              "poweroff",   "none",    "true",     "yes",   "sleep", "1.0.0.0",
                              "f.f.f.f",    "1.0.0.g", "\xff\xfe", "",      " 7 "});
}

static void write_keys(const std::string &path, const char *group,
                       const std::vector<std::string> &keys, input &in) {
  std::ofstream file(path);
  if (!in.seldom(16))
    file << '[' << group << "]\n";
  for (int lines = in.below(8); lines > 0; --lines)
    file << (in.seldom(32) ? in.ConsumeRandomLengthString(20) : keys[in.below(keys.size())]) << '='
         << draw_value(in) << '\n';
  if (in.seldom(8))
    file << in.ConsumeRandomLengthString(200);
}

static void read_keys(input &in) {
  write_keys(kConfigurationPath, "linux",
             {"rtc", "cec", "cec-standby", "cec-physical-address", "off-action", "lead-suspend",
              "lead-poweroff", "return-to-sleep", "hop-boots", "follow-screen", "screen-follows",
              "keep-timers", "rtc[de]"},
             in);
  read_configuration();
  const linux_configuration &read = configuration();
  EXPECT_TRUE(read.rtc == "auto" || read.rtc.starts_with('/'));
  EXPECT_TRUE(read.cec == "auto" || read.cec == "off" || read.cec.starts_with('/'));
  EXPECT_NE(read.cec_physical_address, 0);
  EXPECT_LE(read.decisions.off, off_action::kNone);
  for (const std::int64_t seconds :
       {read.decisions.lead_suspend, read.decisions.lead_poweroff, read.decisions.return_to_sleep})
    EXPECT_TRUE(seconds >= 0 && seconds <= 86400);
}

static void read_record(input &in) {
  write_keys("/tmp/state/alarm", "alarm",
             {"wanted-type", "wanted-on-time", "stands-owner", "stands-count", "stands-utc",
              "foreign-owner", "foreign-count", "range"},
             in);
  if (in.ConsumeBool())
    std::ofstream("/tmp/run/machine") << in.ConsumeRandomLengthString(200);
  const kept_record kept = load_record(0);
  EXPECT_FALSE(kept.same_boot) << "a damaged record is read";
  EXPECT_LE(kept.record.alarm.stands.owner, alarm_owner::kForeign);
  EXPECT_EQ(store_record(kept.record), 0);
  EXPECT_EQ(load_record(0).record.alarm.wanted, kept.record.alarm.wanted);
  std::filesystem::remove("/tmp/run/machine");
}

static void read_edid(input &in) {
  const std::string text = in.ConsumeRandomLengthString(600);
  std::vector<std::uint8_t> bytes(text.begin(), text.end());
  if (bytes.size() >= 256 && in.ConsumeBool())
    bytes[128] = 2; // the extension that is looked into
  physical_address_in(bytes);
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  input in(data, size);
  in.PickValueInArray<void (*)(input &)>({read_keys, read_record, read_edid})(in);
  return 0;
}

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  GTEST_FLAG_SET(throw_on_failure, true);
  setenv("STATE_DIRECTORY", "/tmp/state", 1);
  setenv("RUNTIME_DIRECTORY", "/tmp/run", 1);
  setenv("DRAVEL_CONFIGURATION", kConfigurationPath, 1);
  for (const char *directory : {"/tmp/state", "/tmp/run"})
    std::filesystem::create_directory(directory);
  return 0;
}
