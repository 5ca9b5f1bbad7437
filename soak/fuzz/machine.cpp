// What a Linux machine hands to its platform: the key file, what the last run has left, a
// television's EDID. An input is each of them, whatever it is; the rules meet their events in the
// simulator.
#include "configuration.h"
#include "edid.h"
#include "record.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <vector>

static constexpr const char *kConfigurationPath = "/tmp/machine.conf";

static void check_keys() {
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

static void check_record() {
  const kept_record kept = load_record(0);
  EXPECT_FALSE(kept.same_boot) << "a damaged record is read";
  EXPECT_LE(kept.record.alarm.stands.owner, alarm_owner::kForeign);
  EXPECT_EQ(store_record(kept.record), 0);
  EXPECT_EQ(load_record(0).record.alarm.wanted, kept.record.alarm.wanted);
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  for (const char *path : {kConfigurationPath, "/tmp/state/alarm", "/tmp/run/machine"})
    std::ofstream(path).write(reinterpret_cast<const char *>(data),
                              static_cast<std::streamsize>(size));
  check_keys();
  check_record();
  std::vector<std::uint8_t> edid(256);
  edid[128] = 2; // the extension that is looked into
  std::copy_n(data, std::min<std::size_t>(size, 127), edid.begin() + 129);
  physical_address_in(edid);
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
