// history: what the journal has of the timers and of the machine.
#include "commands.h"

#include <machine_bus.h>
#include <systemd/sd-journal.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string_view>
#include <unistd.h>

using std::chrono::seconds;

namespace {

struct past_event {
  civil_time at; // UTC
  std::string event;
  std::optional<int> timer;
  std::string reason;
  std::string text;
};

} // namespace

static constexpr const char *kNoJournal = "this machine keeps no journal";
static constexpr const char *kJournals[] = {"/var/log/journal", "/run/log/journal"};
static constexpr std::chrono::days kLongAgo{2}; // where no time is given
static constexpr std::uint64_t kMicroseconds = 1'000'000;

// An entry is one of ours when it fits the matches before or after the null. Any user may write
// entries, but not as root.
static constexpr const char *kMatches[] = {
    "_UID=0", kMachineEvents, nullptr,
    // What the service manager tells of the daemon: it has started, stopped, failed.
    "_UID=0", "UNIT=dravel-manager.service", "MESSAGE_ID=39f53479d3a045ac8e11786248231fbf",
    "MESSAGE_ID=9d1aaa27d60140bd96365438aad20286", "MESSAGE_ID=d9b373ed55a64feb8242e02dbe79a49c"};

// The journal of the system, not of a user, has these entries.
std::string reason_not_to_read_history() {
  std::string reason = kNoJournal;
  for (const char *journal : kJournals) {
    std::error_code absent;
    for (const auto &machine : std::filesystem::directory_iterator(journal, absent)) {
      const std::filesystem::path file = machine.path() / "system.journal";
      if (access(file.c_str(), R_OK) == 0)
        return "";
      if (access(file.c_str(), F_OK) == 0)
        reason = "members of the group systemd-journal may; after joining it, log in again";
    }
  }
  return reason;
}

// sd-journal takes any directory, and finds nothing there.
static bool holds_journal(const std::string &directory) {
  std::error_code error;
  const std::filesystem::recursive_directory_iterator files(directory, error);
  return std::ranges::any_of(
      files, [](const auto &file) { return file.path().extension() == ".journal"; });
}

// --- the journal ---

namespace {

class journal {
public:
  // Of the machine, or in a directory. Throws a failure when it cannot be read.
  explicit journal(const std::string &directory) {
    sd_journal *opened = nullptr;
    const int result = directory.empty()
                           ? sd_journal_open(&opened, SD_JOURNAL_LOCAL_ONLY | SD_JOURNAL_SYSTEM)
                           : sd_journal_open_directory(&opened, directory.c_str(), 0);
    read_.reset(opened);
    if (result < 0)
      fail(directory.empty() ? "" : " in " + directory, result);
    if (!directory.empty() && !holds_journal(directory))
      throw failure{"there is no journal in " + directory,
                    "name a directory with files such as system.journal"};
    for (const char *match : kMatches)
      match != nullptr ? sd_journal_add_match(read_.get(), match, 0)
                       : sd_journal_add_disjunction(read_.get());
  }

  std::vector<past_event> events(civil_time since) {
    std::vector<past_event> found;
    const auto begin = std::max(since.time_since_epoch(), seconds(0)).count();
    sd_journal_seek_realtime_usec(read_.get(), static_cast<std::uint64_t>(begin) * kMicroseconds);
    int result = 0;
    while ((result = sd_journal_next(read_.get())) > 0)
      found.push_back(entry());
    if (result < 0)
      fail("", result);
    return found;
  }

private:
  [[noreturn]] static void fail(const std::string &where, int result) {
    throw failure{"the journal" + where + " cannot be read: " + std::strerror(-result), ""};
  }

  past_event entry() {
    std::uint64_t at = 0;
    sd_journal_get_realtime_usec(read_.get(), &at);
    const std::string event = field("DRAVEL_EVENT");
    return {civil_time(seconds(static_cast<std::int64_t>(at / kMicroseconds))),
            event.empty() ? "service" : event, parse_int(field("DRAVEL_TIMER")),
            field("DRAVEL_REASON"), field("MESSAGE")};
  }

  std::string field(const char *name) {
    const void *data = nullptr;
    std::size_t size = 0;
    if (sd_journal_get_data(read_.get(), name, &data, &size) < 0)
      return "";
    const std::string_view whole(static_cast<const char *>(data), size);
    return std::string(whole.substr(std::string_view(name).size() + 1));
  }

  std::unique_ptr<sd_journal, decltype(&sd_journal_close)> read_{nullptr, sd_journal_close};
};

} // namespace

// --- what is printed ---

static json json_of(const past_event &event) {
  json object;
  add_utc(object, "time", event.at);
  object["event"] = event.event;
  object["timer"] = event.timer ? json(*event.timer) : json(nullptr);
  object["reason"] = event.reason;
  object["text"] = event.text;
  return object;
}

static civil_time beginning(const options &given) {
  const civil_time now = civil_of(machine_time());
  if (!given.since)
    return machine_time() - kLongAgo;
  const auto since = parse_past(*given.since, now);
  if (!since)
    throw usage("--since=" + *given.since + " is no time that has passed", kPastForms, "--since");
  return civil_time(seconds(in_zone(*since).since_1970));
}

void show_history(client &, const options &given) {
  const std::optional<int> id =
      given.words.empty() ? std::nullopt : std::optional(id_of(given.words[0]));
  const civil_time since = beginning(given);
  const std::string reason = given.journal.empty() ? reason_not_to_read_history() : "";
  if (!reason.empty())
    throw failure{"the journal cannot be read", reason,
                  reason == kNoJournal ? fault::kRefused : fault::kNotAllowed};
  auto events = journal(given.journal).events(since);
  std::erase_if(events, [&](const past_event &event) { return id && event.timer != id; });
  json list = json::array();
  for (const past_event &event : events)
    list.push_back(json_of(event));
  if (given.json || events.empty())
    return say(given.json, list, "Nothing has happened since " + time_text(civil_of(since)) + ".");
  for (const past_event &event : events)
    std::printf("%s  %s\n", time_text(civil_of(event.at)).c_str(), printable(event.text).c_str());
}
