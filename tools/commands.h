// The commands. Each prints its result and throws a failure when it cannot do what was asked.
#pragma once

#include "client.h"
#include "output.h"

#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

// What the command line gives.
struct options {
  bool json = false;
  bool force = false;
  bool restart = false;
  bool end_of_february = false;
  std::string timeout = "3"; // seconds; the daemon answers in milliseconds or never
  std::string count = "0";
  std::optional<std::string> at;
  std::optional<std::string> type;
  std::optional<std::string> priority;
  std::optional<std::string> holidays;
  std::optional<std::string> clock;
  std::vector<std::string> days;
  std::string first_day;
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
void remove_holidays(client &client, const options &given);
void skip_holidays(client &client, const options &given);
void ignore_holidays(client &client, const options &given);
void show_wakeup(client &client, const options &given);
void backup(client &client, const options &given);
void restore(client &client, const options &given);
void export_timers(client &client, const options &given);
void import_timers(client &client, const options &given);
void monitor(client &client, const options &given);

// --- shared by them ---

int id_of(const std::string &text, const std::string &list = "dravelctl list");
// Each id once.
std::vector<int> ids_of(const std::vector<std::string> &words, const std::string &list);
failure no_such_timer(int id);
// The ids of timers; a failure when one of them is not there.
std::vector<int> timers_of(client &client, const std::vector<std::string> &words);
void print_timer(const timer_record &timer, const snapshot &view);
int add_holiday(client &client, const holiday &holiday, civil_time now); // the id
bool runs_over_new_year(const holiday &holiday);

struct import_contents {
  std::vector<holiday> holidays;
  std::vector<timer_record> timers;
};

// What an exported file holds; a failure names the first wrong entry of the file `name`.
import_contents read_import(std::istream &stream, const std::string &name);

// Why the daemon would refuse `timer`; empty when nothing speaks against it.
std::string refusal_of(timer_record timer, const snapshot &view);

// Why it is not armed.
std::string reason_unarmed(const timer_record &timer, const snapshot &view);

std::string same_second_text(const std::vector<int> &others, civil_time at);

// Forecasts go as far: five weeks, and to the last timer that is armed.
civil_time forecast_end(const snapshot &view);

// Adds a timer that has passed these checks. Returns its id; throws a failure when it is refused.
// `replaced` is the id of the timer whose place it takes, 0 for none.
int add_checked(client &client, const timer_record &timer, const snapshot &view, bool force,
                int replaced = 0);
