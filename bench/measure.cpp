#include "measure.h"

#include <chrono>
#include <cstdlib>
#include <ctime>
#include <fstream>

timer_arguments timer_at(std::uint32_t time, int type, int week_flag) {
  return arguments_of({type, time_text(time), week_flag});
}

timer_arguments household_timer(std::uint32_t from, int index, bool repeating) {
  constexpr int kWorkdays = 0x3e;
  constexpr std::uint32_t kMinute = 60;
  const std::uint32_t time =
      from / kMinute * kMinute + static_cast<unsigned>(index + 4) * 15 * kMinute;
  const int type = index % 2 == 0 ? 2 : 1;
  return timer_at(time, type, repeating && index % 4 < 2 ? kWorkdays : 0);
}

std::uint32_t wall_clock() { return static_cast<std::uint32_t>(std::time(nullptr)); }

double precise_wall_clock() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

double microseconds() {
  const auto now = std::chrono::steady_clock::now().time_since_epoch();
  return std::chrono::duration<double, std::micro>(now).count();
}

void prepare_measuring() {
  require_sandbox();
  setenv("DRAVEL_LOG", "error", 1);
  unsetenv("DRAVEL_LOG_STDERR");
  setenv("DRAVEL_STANDIN", kKeyFile, 1);
  std::ofstream(kKeyFile) << "[set]\nTimeZone=UTC\n";
}

process start_service(bus_client &bus, const bus_target &target,
                      const std::vector<std::string> &command) {
  process started(command);
  started.wait_name(bus, target);
  return started;
}
