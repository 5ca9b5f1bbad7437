// The commands. Each prints its result and throws a failure when it cannot do what was asked.
#pragma once

#include "client.h"
#include "forecast.h"
#include "output.h"
#include "parse.h"

#include <optional>
#include <set>
#include <string>
#include <vector>

// What the command line gives.
struct options {
  bool json = false;
  bool force = false;
  bool restart = false;
  bool end_of_february = false;
  std::string timeout = "3"; // seconds; the daemon answers in milliseconds or never
  bool check = false;
  bool all = false;
  bool on_timers = false;
  bool off_timers = false;
  std::optional<std::string> count;
  std::optional<std::string> at;
  std::optional<std::string> type;
  std::optional<std::string> priority;
  std::optional<std::string> holidays;
  std::optional<std::string> clock;
  std::vector<std::string> days;
  std::optional<std::string> seconds;
  std::optional<std::string> since;
  std::string journal;
  std::string first_day;
  std::string host;
  std::optional<std::string> last_day;
  std::vector<std::string> words; // the arguments that are no options
};

void show_status(client &client, const options &given);
void explain(client &client, const options &given);
void show_week(client &client, const options &given);
void list_timers(client &client, const options &given);
void show_timer(client &client, const options &given);
void add_timer(client &client, const options &given);
void change_timer(client &client, const options &given);
void cancel_timers(client &client, const options &given);
void halt(client &client, const options &given);
void list_holidays(client &client, const options &given);
void add_holidays(client &client, const options &given);
void import_holidays(client &client, const options &given);
void remove_holidays(client &client, const options &given);
void skip_holidays(client &client, const options &given);
void ignore_holidays(client &client, const options &given);
void show_overview(client &client, const options &given);
void show_types(client &client, const options &given);
void order_screen(client &client, const options &given);
void check_set(client &client, const options &given);
void test_machine(client &client, const options &given);
void test_screen(client &client, const options &given);
void test_wake(client &client, const options &given);
void show_history(client &client, const options &given);
void show_wakeup(client &client, const options &given);
void backup(client &client, const options &given);
void restore(client &client, const options &given);
void export_timers(client &client, const options &given);
void apply(client &client, const options &given);
void import_timers(client &client, const options &given);
void monitor(client &client, const options &given);

// --- shared by them ---

json json_of_status(const snapshot &view, const std::optional<timer_record> &woken_by,
                    const std::optional<machine_state> &machine);
json json_of(const std::optional<machine_state> &machine); // null without one
// One sentence for each thing that keeps timers from working.
std::vector<std::string> problems_of(const snapshot &view,
                                     const std::optional<machine_state> &machine);
fields fields_of(const machine_state &machine, civil_time now);
std::string alarm_text(const machine_state &machine, civil_time now);
std::string screen_text(const machine_state &machine); // "on, by ..."
std::string cause_text(const std::string &cause);      // of a wake-up: "by its user"
std::string reason_not_to_read_history();              // empty when the user may
json json_of_week(const snapshot &view);               // null while the clock is unknown
const char *mark_word(timer_action action);            // what a timer is marked with in the week
json json_of_explanation(const timer_record &timer, const snapshot &view, const outlook &ahead);

int id_of(const std::string &text, const std::string &list = "dravelctl list");
// Each id once.
std::vector<int> ids_of(const std::vector<std::string> &words, const std::string &list);
failure no_such_timer(int id);
// The ids of the timers that `command` is for; a failure when one of them is not there.
std::vector<int> timers_of(const std::vector<timer_record> &timers, const options &given,
                           const std::string &command);
void print_timer(const timer_record &timer, const snapshot &view);
const holiday *find_same(const holiday &wanted, const std::vector<holiday> &holidays);
// What to say of a timer or holidays that the daemon did not take: a disk that takes nothing, else
// `refusal`.
failure not_stored(const std::string &what, const std::string &refusal);
// For what the daemon does although it cannot store it: one note while the disk takes nothing.
std::vector<std::string> notes_on_disk();
int add_holiday(client &client, const holiday &holiday, civil_time now); // the id
// False where they have gone already. Throws a failure where the daemon keeps them: it tells it as
// done when its store refuses.
bool remove_holiday(client &client, int id);
bool runs_over_new_year(const holiday &holiday);

inline constexpr const char *kNothingChanged = "nothing is changed"; // a file has a fault

struct import_contents {
  std::vector<holiday> holidays;
  std::vector<timer_record> timers;
  std::vector<std::string> notes;
  std::set<int> types; // that the file speaks for; none: all
  bool has_holidays = false;
  bool has_timers = false;
};

// What an exported file holds; a failure names the first wrong entry of the file `name`, "-" being
// standard input. With `dated` a timer for once needs a date.
import_contents read_import_text(const std::string &text, const std::string &name,
                                 bool dated = false);
import_contents read_import(const json &all, const std::string &name, bool dated = false);
std::string contents_of(const std::string &file); // "-" is standard input
std::string source_name(const std::string &file); // as failures call it
import_contents read_import_file(const std::string &name, bool dated = false);
// After a failure that ended what a file wants: in JSON it is added to `refused`, what was done
// before being told then. Returns what remains to be thrown.
failure rest_of_file(const failure &failure, bool as_json, json &refused);
std::string reason_of(const json::exception &error); // what is wrong with the text
// One entry of such a file, which a failure calls `where`.
timer_record read_timer(const json &value, const std::string &where,
                        std::vector<std::string> &notes);
holiday read_holiday(const json &value, const std::string &where);

// What was done to make timers and holidays equal to a file.
struct application {
  json done{{"changed", false}, // as apply prints it; at the end all is equal but what is refused
            {"added", json::array()},
            {"cancelled", json::array()},
            {"holidays_added", json::array()},
            {"holidays_removed", json::array()},
            {"refused", json::array()}};
  std::vector<std::string> lines{};
  std::vector<std::string> notes{};
};

// Makes them equal, one change a step, so that the caller does other things in between.
class applying {
public:
  // Throws a failure for contents that cannot be applied; nothing is done then. `account` gets each
  // change once it is done.
  applying(client &client, import_contents wanted, application &account);
  ~applying();
  applying(const applying &) = delete;
  applying &operator=(const applying &) = delete;

  enum class progress {
    kMore,
    kWaits, // for room, until a timer that is due within a minute has fired
    kEnded,
  };
  // Throws a failure when the daemon cannot be reached; what it refuses stands in the account.
  progress step();

private:
  void compare();
  progress change_one();
  void change_holidays();
  void set_effect();
  progress add_one();
  bool make_room();
  void cancel(std::size_t place);
  progress end();

  client &client_;
  const import_contents wanted_;
  application &account_;
  std::unique_ptr<struct apply_plan> plan_; // what is to be done still
  int round_ = 0;
};

// Throws a failure, which begins with `fault`, when the daemon would refuse `timer`, or would
// remove another for it without `force`.
void check_room(const timer_record &timer, const snapshot &view, bool force,
                const std::string &fault = "not added");
// Adds a timer. Returns its id; throws a failure when it is refused.
int add_to_set(client &client, const timer_record &timer, const snapshot &view);
// Puts `timer` in the place of the listed timer `old`. Returns its id; throws a failure when it is
// refused, which says what became of `old`.
int change_in_set(client &client, const timer_record &old, const timer_record &timer,
                  const snapshot &view);
void cancel_one(client &client, int id); // throws a failure when it is not there

// The date and time that `time` gives `timer`, on its own clock.
civil_time requested_time(const time_request &time, const timer_record &timer, const clocks &now);

// What became of the timers that were there before: as notes, and in JSON as `moved`.
struct changes {
  std::vector<std::string> notes;
  json moved = json::array();
};
changes changes_since(const snapshot &before, const snapshot &after);
