// apply: makes timers and holidays equal to a file.
#include "commands.h"
#include "judgement.h"

#include <algorithm>
#include <csignal>
#include <set>
#include <tuple>

using namespace std::chrono;

static constexpr seconds kDueSoon{60}; // such a timer is left to fire
static constexpr int kRounds = 3;      // another client may change timers meanwhile

namespace {

struct plan {
  std::vector<holiday> holidays_added;
  std::vector<int> holidays_removed;
  std::vector<timer_record> added;
  std::vector<timer_record> effects; // listed timers with the effect that they shall have
  std::vector<timer_record> cancelled;
  std::vector<std::string> notes;

  bool changes_holidays() const { return !holidays_added.empty() || !holidays_removed.empty(); }
  bool is_empty() const {
    return !changes_holidays() && added.empty() && effects.empty() && cancelled.empty();
  }
};

} // namespace

// --- what is equal ---

// All but the effect of holidays, which can be changed by itself.
static auto key_of(const timer_record &timer) {
  const civil_time at = is_ontimer_type(timer.type) ? floor<minutes>(timer.at) : timer.at;
  const civil_time when = timer.week_flag != 0 ? civil_time(at - floor<days>(at)) : at;
  return std::tuple(timer.type, timer.week_flag, when, timer.clock, timer.priority, timer.delay);
}

static std::string line_of(const timer_record &timer) {
  return type_name(timer.type) + ", " + days_text(timer.week_flag) + ", " +
         (timer.week_flag != 0 ? time_of_day_text(timer.at) : short_time_text(timer.at));
}

static std::string line_of(const holiday &period) {
  return "holidays " + date_text(period.first) + " to " + date_text(period.last);
}

static bool is_same(const holiday &a, const holiday &b) { return line_of(a) == line_of(b); }

// --- the plan ---

static void plan_holidays(plan &plan, const import_contents &wanted, snapshot &view) {
  if (!wanted.has_holidays)
    return;
  std::vector<holiday> after;
  for (const holiday &listed : view.holidays) { // by ascending id
    const auto same = [&](const holiday &other) { return is_same(listed, other); };
    if (std::ranges::any_of(wanted.holidays, same) && std::ranges::none_of(after, same))
      after.push_back(listed);
    else
      plan.holidays_removed.push_back(listed.id);
  }
  for (const holiday &period : wanted.holidays)
    if (std::ranges::none_of(after, [&](const holiday &other) { return is_same(period, other); })) {
      plan.holidays_added.push_back(period);
      after.push_back(period);
    }
  view.holidays = after;
}

// The timers of the file as the daemon would list them: those for once moved past the holidays.
static std::vector<timer_record> expected(plan &plan, const import_contents &wanted,
                                          const snapshot &view) {
  std::vector<timer_record> timers;
  for (timer_record timer : wanted.timers) {
    const bool is_past =
        view.clock_known && timer.week_flag == 0 && !next_firing(timer, view.now, view.holidays);
    if (is_past)
      plan.notes.push_back(sentence(line_of(timer) + " has passed; no timer is set for it"));
    else
      timers.push_back(timer);
  }
  return timers;
}

static void plan_timers(plan &plan, const import_contents &wanted, const snapshot &view) {
  if (!wanted.has_timers)
    return;
  auto left = view.timers;
  std::erase_if(left, [&](const timer_record &timer) {
    return timer.type == TIMER_TYPE_TRANSIENT ||
           (!wanted.types.empty() && !wanted.types.contains(timer.type));
  });
  std::ranges::sort(left, {}, &timer_record::id);
  for (const timer_record &timer : expected(plan, wanted, view)) {
    const auto found = std::ranges::find(left, key_of(timer), key_of);
    if (found == left.end()) {
      plan.added.push_back(timer);
      continue;
    }
    if ((found->holiday_effect != 0) != (timer.holiday_effect != 0)) {
      plan.effects.push_back(*found);
      plan.effects.back().holiday_effect = timer.holiday_effect;
    }
    left.erase(found);
  }
  plan.cancelled = left;
}

static plan plan_of(const import_contents &wanted, snapshot view) {
  plan plan;
  plan_holidays(plan, wanted, view);
  plan_timers(plan, wanted, view);
  const std::size_t stay = view.timers.size() - plan.cancelled.size();
  if (stay + plan.added.size() > view.limit)
    throw failure{"nothing is done: " + plural(stay + plan.added.size(), "timer") +
                      " would be listed, and " + std::to_string(view.limit) + " is the limit",
                  "leave some out of the file"};
  std::ranges::sort(plan.added, {}, [&](timer_record timer) {
    const auto next = next_firing(timer, view.now, view.holidays);
    return std::pair(!is_ontimer_type(timer.type), next.value_or(civil_time::max()));
  });
  for (const timer_record &timer : plan.added)
    if (const std::string refusal = refusal_of(timer, view); !refusal.empty())
      throw failure{"nothing is done: " + line_of(timer) + ": " + refusal, ""};
  return plan;
}

// --- carrying out ---

static application nothing_done() {
  return {.done = {{"changed", false},
                   {"added", json::array()},
                   {"cancelled", json::array()},
                   {"holidays_added", json::array()},
                   {"holidays_removed", json::array()},
                   {"refused", json::array()}}};
}

static void add(application &account, const char *member, const json &what,
                const std::string &line) {
  account.done["changed"] = true;
  account.done[member].push_back(what);
  account.lines.push_back(line);
}

static void change_holidays(client &client, const plan &plan, const snapshot &view,
                            application &account) {
  for (const holiday &period : plan.holidays_added) {
    add_holiday(client, period, view.now.set);
    add(account, "holidays_added", json_of(period), "added " + line_of(period));
  }
  for (const int id : plan.holidays_removed) {
    client.call_int("request_remove_disabled_period", g_variant_new("(i)", id));
    add(account, "holidays_removed", id, "removed holidays " + std::to_string(id));
  }
}

static void cancel(client &client, const timer_record &timer, application &account) {
  client.call_int("cancel_timer", g_variant_new("(i)", timer.id)); // it may have fired
  add(account, "cancelled", timer.id,
      "cancelled timer " + std::to_string(timer.id) + " (" + line_of(timer) + ")");
}

// On-timers last, of each kind the latest first.
static void sort_for_cancelling(std::vector<timer_record> &timers, const snapshot &view) {
  std::ranges::sort(timers, {}, [&](const timer_record &timer) {
    const auto armed = view.armed.find(timer.id);
    const auto at = armed != view.armed.end() ? armed->second : civil_time::max();
    return std::pair(is_ontimer_type(timer.type), -at.time_since_epoch());
  });
}

// Takes one of those that are to go. While all of them are due soon it waits.
static void make_room(client &client, std::vector<timer_record> &to_cancel, application &account) {
  for (;;) {
    const snapshot view = client.look(false);
    if (view.timers.size() < view.limit)
      return;
    if (to_cancel.empty())
      throw failure{"the list is full: another client has added timers", ""};
    sort_for_cancelling(to_cancel, view);
    const auto found = std::ranges::find_if(to_cancel, [&](const timer_record &timer) {
      const auto armed = view.armed.find(timer.id);
      return armed == view.armed.end() || armed->second - view.now.set > kDueSoon;
    });
    if (found != to_cancel.end()) {
      cancel(client, *found, account);
      to_cancel.erase(found);
      return;
    }
    g_usleep(G_USEC_PER_SEC);
  }
}

// False when the daemon has refused one: then no more is cancelled.
static bool change_timers(client &client, plan plan, application &account) {
  for (const timer_record &timer : plan.effects) {
    client.call_int("request_set_disable_period_effect",
                    g_variant_new("(ii)", timer.id, timer.holiday_effect));
    account.done["changed"] = true;
    account.lines.push_back("timer " + std::to_string(timer.id) +
                            (timer.holiday_effect != 0 ? " skips" : " ignores") + " holidays");
  }
  for (const timer_record &timer : plan.added) {
    try {
      make_room(client, plan.cancelled, account);
      add_to_set(client, timer, client.look());
      add(account, "added", exported(timer), "added " + line_of(timer));
    } catch (const failure &failure) {
      if (failure.kind != fault::kRefused)
        throw;
      account.done["refused"].push_back({{"what", line_of(timer)}, {"why", failure.what}});
      return false;
    }
  }
  sort_for_cancelling(plan.cancelled, client.look(false));
  for (const timer_record &timer : plan.cancelled)
    cancel(client, timer, account);
  return true;
}

static void tell(bool as_json, const application &account) {
  std::string text;
  for (const auto &line : account.lines)
    text += sentence(line) + "\n";
  for (const json &refused : account.done["refused"])
    text += "Refused: " + refused["what"].get<std::string>() + ": " +
            refused["why"].get<std::string>() + "\n";
  if (text.empty())
    text = "Nothing to change.\n";
  text.pop_back();
  say(as_json, account.done, text, account.notes);
}

// As if it were done.
static application forecast_of(const plan &plan) {
  application account = nothing_done();
  for (const holiday &period : plan.holidays_added)
    add(account, "holidays_added", json_of(period), "added " + line_of(period));
  for (const int id : plan.holidays_removed)
    add(account, "holidays_removed", id, "removed holidays " + std::to_string(id));
  for (const timer_record &timer : plan.added)
    add(account, "added", exported(timer), "added " + line_of(timer));
  for (const timer_record &timer : plan.cancelled)
    add(account, "cancelled", timer.id, "cancelled timer " + std::to_string(timer.id));
  account.done["changed"] = !plan.is_empty();
  account.notes = plan.notes;
  return account;
}

static void check_contents(const import_contents &wanted) {
  std::set<decltype(key_of(timer_record()))> known;
  for (const timer_record &timer : wanted.timers) {
    if (timer.type == TIMER_TYPE_TRANSIENT)
      throw failure{line_of(timer) + " is never stored and cannot be applied", ""};
    if (!wanted.types.empty() && !wanted.types.contains(timer.type))
      throw failure{line_of(timer) + " is of a type that the file does not name in types", ""};
    if (!known.insert(key_of(timer)).second)
      throw failure{line_of(timer) + " stands twice in the file", ""};
  }
  for (const holiday &period : wanted.holidays)
    if (std::ranges::count(wanted.holidays, line_of(period),
                           [](const holiday &any) { return line_of(any); }) > 1)
      throw failure{line_of(period) + " stand twice in the file", ""};
}

application apply_contents(client &client, const import_contents &wanted) {
  check_contents(wanted);
  application account = nothing_done();
  plan plan = plan_of(wanted, client.look_at_state());
  for (int round = 0; round < kRounds && !plan.is_empty(); ++round) {
    const snapshot before = client.look();
    change_holidays(client, plan, before, account);
    if (plan.changes_holidays()) // which moves timers
      plan = plan_of(wanted, client.look());
    if (!change_timers(client, plan, account))
      break;
    plan = plan_of(wanted, client.look());
  }
  account.notes = plan.notes;
  account.is_equal = plan.is_empty() && account.done["refused"].empty();
  return account;
}

static void check_file(client &client, bool as_json, const import_contents &wanted) {
  check_contents(wanted);
  const plan plan = plan_of(wanted, client.look_at_state());
  tell(as_json, forecast_of(plan));
  if (!plan.is_empty())
    throw failure{"", "", fault::kDiffers};
}

void apply(client &client, const options &given) {
  const import_contents wanted = read_import_file(given.words.at(0), true);
  if (given.check)
    return check_file(client, given.json, wanted);
  std::signal(SIGHUP, SIG_IGN); // what is begun is ended
  const application account = apply_contents(client, wanted);
  tell(given.json, account);
  if (!account.done["refused"].empty())
    throw failure{given.json ? "" : "not everything was applied", ""};
  if (!account.is_equal)
    throw failure{"another client changes the timers at the same time", "apply the file again"};
}
