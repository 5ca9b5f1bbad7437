#include "dravel-util.h"

#include "dravel-log.h"

#include <CTimeUtil.h>
#include <IPowerControl.h>

static constexpr double kTimeValueLimit = 4294967296.0;

static int get_rtc_time(time_value *out) {
  rtc_time rtc{};
  if (IPowerControl::getInstance()->read_rtc(&rtc) != 0) {
    LOGE_OF(get_cur_time, "failed to get rtc time");
    return -1;
  }
  LOGI_OF(get_cur_time, "%d/%d/%d - %d:%d:%d", rtc.year, rtc.month, rtc.day, rtc.hours, rtc.minutes,
          rtc.seconds);

  std::tm tm{};
  tm.tm_sec = rtc.seconds;
  tm.tm_min = rtc.minutes;
  tm.tm_hour = rtc.hours;
  tm.tm_mday = rtc.day;
  tm.tm_mon = add_wrapping(rtc.month, -1);
  tm.tm_year = add_wrapping(rtc.year, 100);
  *out = unsigned_timegm(&tm);
  LOGI_OF(get_cur_time, "rtc time:%lu", as_ulong(*out));
  return *out == kInvalidTime ? -1 : 0;
}

int get_cur_time(time_value *out, int time_type) {
  switch (time_type) {
  case TIME_TYPE_BROADCAST:
    *out = CTimeUtil::GetCurrentTime();
    return *out == 0 ? -1 : 0;
  case TIME_TYPE_INTERNET:
    *out = static_cast<time_value>(std::time(nullptr));
    return 0;
  case TIME_TYPE_RTC:
    return get_rtc_time(out);
  default:
    LOGI("time type is NULL");
    return -1;
  }
}

int get_cur_time_or_rtc(time_value *out, int time_type) {
  *out = 0;
  if (get_cur_time(out, TIME_TYPE_BROADCAST) == 0 || time_type != TIME_TYPE_INTERNET)
    return 0;
  return get_cur_time(out, TIME_TYPE_RTC);
}

int read_clocks(clock_reading *out) {
  if (get_cur_time(&out->broadcast, TIME_TYPE_BROADCAST) == 0) {
    out->now = out->broadcast;
  } else if (get_cur_time(&out->now, TIME_TYPE_RTC) != 0) {
    *out = {};
    return -1;
  }
  get_cur_time(&out->internet, TIME_TYPE_INTERNET);
  out->offset = static_cast<double>(out->now) - static_cast<double>(out->internet);
  return 0;
}

time_value add_time_offset(time_value time, double offset) {
  const double sum = static_cast<double>(time) + offset;
  if (!(sum > 0.0))
    return 0;
  if (sum >= kTimeValueLimit)
    return kInvalidTime;
  return static_cast<time_value>(sum);
}

time_value unsigned_timegm(const std::tm *time) { return CTimeUtil::Unsigned_timegm(time); }

std::tm *unsigned_gmtime_r(time_value time, std::tm *out) {
  return CTimeUtil::Unsigned_gmtime_r(time, out);
}

time_value convert_to_localtime(time_value time) { return CTimeUtil::ConvertToLocalTime(time); }

std::tm convert_to_utc(std::tm local) { return CTimeUtil::ConvertToUTCTime(local); }

int get_clock_mode(void) {
  switch (CTimeUtil::GetClockMode()) {
  case CLOCK_MODE_AUTO:
    LOGD("CLOCK_MODE_AUTO ");
    return CLOCK_MODE_AUTO;
  case CLOCK_MODE_MANUAL:
    LOGD("CLOCK_MODE_MANAUL ");
    return CLOCK_MODE_MANUAL;
  default:
    return CLOCK_MODE_OTHER;
  }
}

int is_leap_year(int year) { return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0 ? 1 : 0; }

bool format_time(const std::tm *time, char (&text)[kTimeTextSize]) {
  return asctime_r(time, text) != nullptr;
}
