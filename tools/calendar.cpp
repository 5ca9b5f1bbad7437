#include "calendar.h"

#include "on_demand.h"

#include <libical/ical.h>

#include <algorithm>
#include <cctype>
#include <memory>

using namespace std::chrono;

static constexpr days kLongest{365}; // a longer entry is no holiday
static constexpr std::size_t kLongestName = 100;

namespace {

struct ical_functions {
  on_demand library{("libical.so." + std::to_string(ICAL_MAJOR_VERSION)).c_str(), "libical3"};
  decltype(&::icalerror_set_errors_are_fatal) set_errors_are_fatal =
      library.function<decltype(::icalerror_set_errors_are_fatal)>(
          "icalerror_set_errors_are_fatal");
  decltype(&::icalparser_parse_string) parse_string =
      library.function<decltype(::icalparser_parse_string)>("icalparser_parse_string");
  decltype(&::icalcomponent_free) release =
      library.function<decltype(::icalcomponent_free)>("icalcomponent_free");
  decltype(&::icalcomponent_isa) isa =
      library.function<decltype(::icalcomponent_isa)>("icalcomponent_isa");
  decltype(&::icalcomponent_get_first_component) get_first_component =
      library.function<decltype(::icalcomponent_get_first_component)>(
          "icalcomponent_get_first_component");
  decltype(&::icalcomponent_get_next_component) get_next_component =
      library.function<decltype(::icalcomponent_get_next_component)>(
          "icalcomponent_get_next_component");
  decltype(&::icalcomponent_get_first_property) get_first_property =
      library.function<decltype(::icalcomponent_get_first_property)>(
          "icalcomponent_get_first_property");
  decltype(&::icalcomponent_get_next_property) get_next_property =
      library.function<decltype(::icalcomponent_get_next_property)>(
          "icalcomponent_get_next_property");
  decltype(&::icalcomponent_get_dtstart) get_dtstart =
      library.function<decltype(::icalcomponent_get_dtstart)>("icalcomponent_get_dtstart");
  decltype(&::icalcomponent_get_status) get_status =
      library.function<decltype(::icalcomponent_get_status)>("icalcomponent_get_status");
  decltype(&::icalcomponent_get_summary) get_summary =
      library.function<decltype(::icalcomponent_get_summary)>("icalcomponent_get_summary");
  decltype(&::icalcomponent_foreach_recurrence) foreach_recurrence =
      library.function<decltype(::icalcomponent_foreach_recurrence)>(
          "icalcomponent_foreach_recurrence");
  decltype(&::icalproperty_get_rrule) get_rrule =
      library.function<decltype(::icalproperty_get_rrule)>("icalproperty_get_rrule");
};

struct calendar_reader {
  const ical_functions &ical;
  sys_days from;
  sys_days until;
  std::size_t calendars = 0;
  std::vector<calendar_entry> entries{};

  void read(icalcomponent *component);

private:
  bool is_holiday(icalcomponent *event) const;
  void read_event(icalcomponent *event);
  static void take(icalcomponent *event, icaltime_span *span, void *reader);
};

} // namespace

// What recurs more often than daily could be counted from long ago for hours.
bool calendar_reader::is_holiday(icalcomponent *event) const {
  if (ical.get_dtstart(event).is_date == 0 || ical.get_status(event) == ICAL_STATUS_CANCELLED)
    return false;
  for (icalproperty *rule = ical.get_first_property(event, ICAL_RRULE_PROPERTY); rule != nullptr;
       rule = ical.get_next_property(event, ICAL_RRULE_PROPERTY))
    if (ical.get_rrule(rule).freq < ICAL_DAILY_RECURRENCE)
      return false;
  return true;
}

// A name stands in one line and must not steer the terminal.
static std::string name_of(const char *summary) {
  std::string name = summary != nullptr ? summary : "";
  if (name.size() > kLongestName) {
    std::size_t end = kLongestName; // the beginning of a character
    while (end > 0 && (static_cast<unsigned char>(name[end]) & 0xc0) == 0x80)
      --end;
    name.resize(end);
  }
  std::ranges::replace_if(
      name, [](unsigned char c) { return std::iscntrl(c) != 0; }, ' ');
  return name;
}

// The end of a span of whole days is a second of the day after it.
void calendar_reader::take(icalcomponent *event, icaltime_span *span, void *reader) {
  auto &self = *static_cast<calendar_reader *>(reader);
  const auto day_of = [](std::time_t time) { return floor<days>(sys_seconds(seconds(time))); };
  const sys_days first = day_of(span->start);
  const sys_days last = std::max(first, day_of(span->end) - days(1));
  if (last >= self.from && first < self.until && last - first < kLongest)
    self.entries.push_back({first, last, name_of(self.ical.get_summary(event))});
}

void calendar_reader::read_event(icalcomponent *event) {
  const auto time_of = [](sys_days day) {
    const year_month_day date(day);
    icaltimetype time{};
    time.year = int(date.year());
    time.month = static_cast<int>(unsigned(date.month()));
    time.day = static_cast<int>(unsigned(date.day()));
    time.is_date = 1;
    return time;
  };
  if (is_holiday(event))
    ical.foreach_recurrence(event, time_of(from - kLongest), time_of(until), take, this);
}

// Several calendars may follow each other in a file.
void calendar_reader::read(icalcomponent *component) {
  const icalcomponent_kind kind = ical.isa(component);
  calendars += kind == ICAL_VCALENDAR_COMPONENT ? 1 : 0;
  const icalcomponent_kind inner =
      kind == ICAL_XROOT_COMPONENT ? ICAL_VCALENDAR_COMPONENT : ICAL_VEVENT_COMPONENT;
  for (icalcomponent *each = ical.get_first_component(component, inner); each != nullptr;
       each = ical.get_next_component(component, inner)) {
    if (inner == ICAL_VCALENDAR_COMPONENT)
      read(each);
    else
      read_event(each);
  }
}

std::vector<calendar_entry> read_calendar(const std::string &text, const std::string &file,
                                          sys_days from, sys_days until) {
  static const ical_functions ical;
  ical.set_errors_are_fatal(0);
  const std::unique_ptr<icalcomponent, decltype(ical.release)> root(ical.parse_string(text.c_str()),
                                                                    ical.release);
  calendar_reader reader{ical, from, until};
  if (root != nullptr)
    reader.read(root.get());
  const bool begins = text.find("BEGIN:VCALENDAR") != std::string::npos;
  if (begins && text.find("END:VCALENDAR") == std::string::npos)
    throw failure{file + " is cut off: it has no END:VCALENDAR", "nothing is imported"};
  if (reader.calendars == 0)
    throw failure{file + " is no calendar in the format iCalendar (.ics)", "nothing is imported"};
  if (reader.entries.empty())
    throw failure{file + " has no entry of whole days in the coming year", "nothing is imported"};
  std::ranges::stable_sort(reader.entries, {}, &calendar_entry::first);
  return reader.entries;
}
