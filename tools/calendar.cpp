#include "calendar.h"

#include "on_demand.h"
#include "output.h"

#include <glib.h>
#include <libical/ical.h>

#include <algorithm>
#include <memory>

using namespace std::chrono;

static constexpr days kLongest{365}; // a longer entry is no holiday
static constexpr std::size_t kLongestName = 100;
static constexpr std::size_t kMost = 300'000; // which are counted in two seconds

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
  decltype(&::icalcomponent_get_dtend) get_dtend =
      library.function<decltype(::icalcomponent_get_dtend)>("icalcomponent_get_dtend");
  decltype(&::icalproperty_recurrence_is_excluded) is_excluded =
      library.function<decltype(::icalproperty_recurrence_is_excluded)>(
          "icalproperty_recurrence_is_excluded");
  decltype(&::icalproperty_get_rdate) get_rdate =
      library.function<decltype(::icalproperty_get_rdate)>("icalproperty_get_rdate");
  decltype(&::icalproperty_get_rrule) get_rrule =
      library.function<decltype(::icalproperty_get_rrule)>("icalproperty_get_rrule");
  decltype(&::icalrecur_iterator_new) iterator_new =
      library.function<decltype(::icalrecur_iterator_new)>("icalrecur_iterator_new");
  decltype(&::icalrecur_iterator_next) iterator_next =
      library.function<decltype(::icalrecur_iterator_next)>("icalrecur_iterator_next");
  decltype(&::icalrecur_iterator_free) iterator_free =
      library.function<decltype(::icalrecur_iterator_free)>("icalrecur_iterator_free");
};

struct calendar_reader {
  const ical_functions &ical;
  sys_days from;
  sys_days until;
  std::size_t calendars = 0;
  std::size_t recurrences = 0;
  std::vector<calendar_entry> entries{};

  void read(icalcomponent *component);

private:
  bool is_holiday(icalcomponent *event) const;
  void read_event(icalcomponent *event);
  void take(icalcomponent *event, icaltimetype at);
  void take_recurring(icalcomponent *event, const icalrecurrencetype &rule);
  std::vector<icalproperty *> properties_of(icalcomponent *event, icalproperty_kind kind) const;
};

} // namespace

// All of them before one is read: a component has one place in its properties.
std::vector<icalproperty *> calendar_reader::properties_of(icalcomponent *event,
                                                           icalproperty_kind kind) const {
  std::vector<icalproperty *> found;
  for (icalproperty *each = ical.get_first_property(event, kind); each != nullptr;
       each = ical.get_next_property(event, kind))
    found.push_back(each);
  return found;
}

// By its fields: on a 32-bit machine the library's time_t may have 32 bits where ours has 64.
static year_month_day date_of(const icaltimetype &time) {
  return year(time.year) / month(static_cast<unsigned>(time.month)) /
         day(static_cast<unsigned>(time.day));
}

static sys_days day_of(const icaltimetype &time) { return date_of(time); }

// What recurs more often than daily could be counted from long ago for hours.
bool calendar_reader::is_holiday(icalcomponent *event) const {
  const auto is_rare = [this](icalproperty *rule) {
    const icalrecurrencetype &of = ical.get_rrule(rule);
    return of.freq >= ICAL_DAILY_RECURRENCE && of.by_hour[0] == ICAL_RECURRENCE_ARRAY_MAX &&
           of.by_minute[0] == ICAL_RECURRENCE_ARRAY_MAX &&
           of.by_second[0] == ICAL_RECURRENCE_ARRAY_MAX;
  };
  const icaltimetype start = ical.get_dtstart(event);
  // So could a rule of exceptions, which calendars no longer have.
  const bool has_exceptions = !properties_of(event, ICAL_EXRULE_PROPERTY).empty();
  return !has_exceptions && start.is_date != 0 && date_of(start).ok() &&
         date_of(ical.get_dtend(event)).ok() && ical.get_status(event) != ICAL_STATUS_CANCELLED &&
         std::ranges::all_of(properties_of(event, ICAL_RRULE_PROPERTY), is_rare);
}

// A name stands in one line and must not steer the terminal.
static std::string name_of(const char *summary) {
  std::string name = printable(summary != nullptr ? summary : "", ' ');
  if (name.size() > kLongestName) {
    const char *text = name.c_str();
    name.resize(
        static_cast<std::size_t>(g_utf8_find_prev_char(text, text + kLongestName + 1) - text));
  }
  return name;
}

// The entry when it comes at this time. Its end is the day after the last.
void calendar_reader::take(icalcomponent *event, icaltimetype at) {
  icaltimetype start = ical.get_dtstart(event);
  const days length = std::max(days(1), day_of(ical.get_dtend(event)) - day_of(start));
  const sys_days first = day_of(at);
  if (first + length > from && first < until && length <= kLongest &&
      ical.is_excluded(event, &start, &at) == 0)
    entries.push_back({first, first + length - days(1), name_of(ical.get_summary(event))});
}

void calendar_reader::take_recurring(icalcomponent *event, const icalrecurrencetype &rule) {
  const icaltimetype start = ical.get_dtstart(event);
  const std::unique_ptr<icalrecur_iterator, decltype(ical.iterator_free)> times(
      ical.iterator_new(rule, start), ical.iterator_free);
  if (times == nullptr)
    return;
  const auto next = [&] { return ical.iterator_next(times.get()); };
  for (icaltimetype at = next(); at.year != 0 && day_of(at) < until && recurrences < kMost;
       at = next(), ++recurrences)
    if (day_of(at) != day_of(start))
      take(event, at);
}

void calendar_reader::read_event(icalcomponent *event) {
  if (!is_holiday(event))
    return;
  take(event, ical.get_dtstart(event));
  for (icalproperty *rule : properties_of(event, ICAL_RRULE_PROPERTY))
    take_recurring(event, ical.get_rrule(rule));
  for (icalproperty *date : properties_of(event, ICAL_RDATE_PROPERTY)) {
    const icaldatetimeperiodtype more = ical.get_rdate(date);
    take(event, more.time.year != 0 ? more.time : more.period.start);
  }
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
  if (reader.recurrences == kMost)
    throw failure{file + " repeats its entries too often, or since too long ago",
                  "nothing is imported"};
  if (reader.entries.empty())
    throw failure{file + " has no entry of whole days in the coming year", "nothing is imported"};
  std::ranges::stable_sort(reader.entries, {}, &calendar_entry::first);
  return reader.entries;
}
