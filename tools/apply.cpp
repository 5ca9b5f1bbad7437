// apply: makes timers and holidays equal to a file.
#include "commands.h"
#include "judgement.h"

#include <algorithm>
#include <csignal>
#include <set>
#include <thread>
#include <tuple>

using namespace std::chrono;

static constexpr seconds kDueSoon{60}; // such a timer is left to fire
static constexpr int kRounds = 3;      // another client may change timers meanwhile

struct apply_plan {
  std::vector<holiday> holidays_added{};
  std::vector<int> holidays_removed{};
  std::vector<timer_record> added{};
  std::vector<timer_record> effects{}; // listed timers with the effect that they shall have
  std::vector<timer_record> cancelled{};
  std::vector<std::string> notes{};

  bool changes_holidays() const { return !holidays_added.empty() || !holidays_removed.empty(); }
  bool is_empty() const {
    return !changes_holidays() && added.empty() && effects.empty() && cancelled.empty();
  }
};

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

static std::string numbered_line_of(const timer_record &timer) {
  return "timer " + std::to_string(timer.id) + " (" + line_of(timer) + ")";
}

static std::string line_of(const holiday &period) { return "holidays " + date_text(period); }

static bool is_same(const holiday &a, const holiday &b) { return line_of(a) == line_of(b); }

// --- the plan ---

static void plan_holidays(apply_plan &plan, const import_contents &wanted, snapshot &view) {
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

// Moves a timer for once to where the daemon's looks at it end: each moves it past the holidays of
// one period, after which others may follow at once. Returns why it never fires.
static const char *settle(timer_record &timer, const snapshot &view) {
  if (!view.clock_known || timer.week_flag != 0)
    return "";
  for (std::size_t looks = 0; looks <= view.holidays.size(); ++looks) {
    const civil_time before = timer.at;
    if (!next_firing(timer, view.now, view.holidays))
      return "has passed";
    if (timer.at == before)
      return "";
  }
  return "has holidays on every day";
}

// The timers of the file as the daemon would list them.
static std::vector<timer_record> expected(apply_plan &plan, const import_contents &wanted,
                                          const snapshot &view) {
  std::vector<timer_record> timers;
  for (timer_record timer : wanted.timers) {
    std::string line = line_of(timer);
    const std::string fault =
        timer.type == TIMER_TYPE_TRANSIENT ? "is never stored" : settle(timer, view);
    if (!fault.empty())
      plan.notes.push_back(sentence(line.append(" ").append(fault) += "; no timer is set for it"));
    else
      timers.push_back(timer);
  }
  return timers;
}

static void plan_timers(apply_plan &plan, const import_contents &wanted, const snapshot &view) {
  if (!wanted.has_timers)
    return;
  auto left = view.timers;
  std::erase_if(left, [&](const timer_record &timer) {
    return timer.type == TIMER_TYPE_TRANSIENT ||
           (!wanted.types.empty() && !wanted.types.contains(timer.type));
  });
  std::ranges::sort(left, {}, &timer_record::id);
  for (timer_record &timer : left)
    settle(timer, view);
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

static apply_plan plan_of(const import_contents &wanted, snapshot view) {
  apply_plan plan{.notes = wanted.notes};
  plan_holidays(plan, wanted, view);
  plan_timers(plan, wanted, view);
  const std::size_t stay = view.timers.size() - plan.cancelled.size();
  if (stay + plan.added.size() > view.limit)
    throw failure{plural(stay + plan.added.size(), "timer") + " would be listed, and " +
                      std::to_string(view.limit) + " is the limit",
                  "leave some out of the file"};
  std::ranges::sort(plan.added, {}, [&](timer_record timer) {
    const auto next = next_firing(timer, view.now, view.holidays);
    return std::pair(!is_ontimer_type(timer.type), next.value_or(civil_time::max()));
  });
  for (const timer_record &timer : plan.added)
    if (const std::string refusal = refusal_of(timer, view); !refusal.empty())
      throw failure{line_of(timer) + ": " + refusal, ""};
  return plan;
}

static apply_plan first_plan_of(const import_contents &wanted, const snapshot &view) {
  try {
    return plan_of(wanted, view);
  } catch (failure &failure) {
    failure.what = "nothing is done: " + failure.what;
    throw;
  }
}

static std::string next_line(const apply_plan &plan) {
  if (!plan.holidays_added.empty())
    return line_of(plan.holidays_added.front());
  if (!plan.holidays_removed.empty())
    return "holidays " + std::to_string(plan.holidays_removed.front());
  const auto &timers = !plan.effects.empty() ? plan.effects
                       : !plan.added.empty() ? plan.added
                                             : plan.cancelled;
  return line_of(timers.front());
}

// --- carrying out ---

static void add(application &account, const char *member, const json &what,
                const std::string &line) {
  account.done["changed"] = true;
  account.done[member].push_back(what);
  account.lines.push_back(line);
}

// On-timers last, of each kind the latest first.
static void sort_for_cancelling(std::vector<timer_record> &timers, const snapshot &view) {
  std::ranges::sort(timers, {}, [&](const timer_record &timer) {
    const civil_time at = armed_for(timer.id, view).value_or(civil_time::max());
    return std::pair(is_ontimer_type(timer.type), -at.time_since_epoch());
  });
}

template <typename T> static T taken(std::vector<T> &from, std::size_t place = 0) {
  const auto at = from.begin() + static_cast<std::ptrdiff_t>(place);
  T value = std::move(*at);
  from.erase(at);
  return value;
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

// As if it were done; what has no id yet has none.
static application forecast_of(const apply_plan &plan) {
  application account;
  for (const holiday &period : plan.holidays_added) {
    json about = json_of(period);
    about["id"] = nullptr;
    add(account, "holidays_added", about, "would be added: " + line_of(period));
  }
  for (const int id : plan.holidays_removed)
    add(account, "holidays_removed", id, "would be removed: holidays " + std::to_string(id));
  for (const timer_record &timer : plan.effects)
    account.lines.push_back("would be changed: timer " + std::to_string(timer.id) + ", to " +
                            (timer.holiday_effect != 0 ? "skip" : "ignore") + " holidays");
  for (const timer_record &timer : plan.added)
    add(account, "added", exported(timer), "would be added: " + line_of(timer));
  for (const timer_record &timer : plan.cancelled)
    add(account, "cancelled", timer.id, "would be cancelled: " + numbered_line_of(timer));
  account.done["changed"] = !plan.is_empty();
  account.notes = plan.notes;
  return account;
}

static void check_contents(const import_contents &wanted) {
  std::set<decltype(key_of(timer_record()))> known;
  for (const timer_record &timer : wanted.timers) {
    if (!wanted.types.empty() && !wanted.types.contains(timer.type))
      throw failure{line_of(timer) + " is of a type that the file does not name in types",
                    kNothingChanged};
    if (!known.insert(key_of(timer)).second)
      throw failure{line_of(timer) + " stands twice in the file", kNothingChanged};
  }
  for (const holiday &period : wanted.holidays)
    if (std::ranges::count(wanted.holidays, line_of(period),
                           [](const holiday &any) { return line_of(any); }) > 1)
      throw failure{line_of(period) + " stand twice in the file", kNothingChanged};
}

// --- step by step ---

applying::applying(client &client, import_contents wanted, application &account)
    : client_(client), wanted_(std::move(wanted)), account_(account),
      plan_(std::make_unique<apply_plan>()) {
  check_contents(wanted_);
  const snapshot view = client_.look_at_state();
  *plan_ = first_plan_of(wanted_, view);
  sort_for_cancelling(plan_->cancelled, view);
}

applying::~applying() = default;

// Another client may have changed something.
void applying::compare() {
  const snapshot view = client_.look();
  *plan_ = plan_of(wanted_, view);
  sort_for_cancelling(plan_->cancelled, view);
}

void applying::change_holidays() {
  if (!plan_->holidays_added.empty()) {
    holiday period = taken(plan_->holidays_added);
    period.id = add_holiday(client_, period, client_.look(false).now.set);
    add(account_, "holidays_added", json_of(period), "added " + line_of(period));
  } else {
    const int id = taken(plan_->holidays_removed);
    remove_holiday(client_, id);
    add(account_, "holidays_removed", id, "removed holidays " + std::to_string(id));
  }
}

void applying::set_effect() {
  const timer_record timer = taken(plan_->effects);
  client_.call_int("request_set_disable_period_effect", {timer.id, timer.holiday_effect});
  account_.done["changed"] = true;
  account_.lines.push_back("timer " + std::to_string(timer.id) +
                           (timer.holiday_effect != 0 ? " skips" : " ignores") + " holidays");
}

void applying::cancel(std::size_t place) {
  const timer_record timer = taken(plan_->cancelled, place);
  if (client_.call_int("cancel_timer", {timer.id}) == 0) // it may have fired
    add(account_, "cancelled", timer.id, "cancelled " + numbered_line_of(timer));
}

// Takes one of those that are to go. False while all of them are due soon.
bool applying::make_room() {
  const snapshot view = client_.look(false);
  if (view.timers.size() < view.limit)
    return true;
  auto &to_cancel = plan_->cancelled;
  if (to_cancel.empty())
    throw failure{"the list is full: another client has added timers", ""};
  sort_for_cancelling(to_cancel, view);
  const auto found = std::ranges::find_if(to_cancel, [&](const timer_record &timer) {
    const auto armed = armed_for(timer.id, view);
    return !armed || *armed - view.now.set > kDueSoon;
  });
  if (found == to_cancel.end())
    return false;
  cancel(static_cast<std::size_t>(found - to_cancel.begin()));
  return true;
}

applying::progress applying::add_one() {
  if (!make_room())
    return progress::kWaits;
  add_to_set(client_, plan_->added.front(), client_.look());
  const timer_record timer = taken(plan_->added);
  add(account_, "added", exported(timer), "added " + line_of(timer));
  return progress::kMore;
}

applying::progress applying::change_one() {
  if (plan_->changes_holidays())
    change_holidays();
  else if (!plan_->effects.empty())
    set_effect();
  else if (!plan_->added.empty())
    return add_one();
  else
    cancel(0);
  return progress::kMore;
}

applying::progress applying::end() {
  account_.notes = plan_->notes;
  json &refused = account_.done["refused"];
  if (!plan_->is_empty() && refused.empty())
    refused.push_back({{"what", "timers"}, {"why", "another client changes them; apply again"}});
  return progress::kEnded;
}

applying::progress applying::step() {
  if (plan_->is_empty())
    return end();
  std::string what = next_line(*plan_);
  try {
    const bool moves_timers = plan_->changes_holidays();
    if (change_one() == progress::kWaits)
      return progress::kWaits;
    what = "the rest";
    if (moves_timers && !plan_->changes_holidays()) {
      compare();
      plan_->holidays_added.clear(); // another client's are left to the next round
      plan_->holidays_removed.clear();
    }
    if (plan_->is_empty()) {
      ++round_;
      compare();
    }
  } catch (const failure &failure) {
    if (failure.kind != fault::kRefused)
      throw;
    account_.done["refused"].push_back({{"what", what}, {"why", failure.what}});
    return end();
  }
  return plan_->is_empty() || round_ == kRounds ? end() : progress::kMore;
}

static void apply_all(applying &steps) {
  for (auto progress = steps.step(); progress != applying::progress::kEnded;
       progress = steps.step())
    if (progress == applying::progress::kWaits)
      std::this_thread::sleep_for(1s);
}

static void check_file(client &client, bool as_json, const import_contents &wanted) {
  check_contents(wanted);
  const apply_plan plan = first_plan_of(wanted, client.look_at_state());
  tell(as_json, forecast_of(plan));
  if (!plan.is_empty())
    throw failure{"", "", fault::kDiffers};
}

void apply(client &client, const options &given) {
  const import_contents wanted = read_import_file(given.words.at(0), true);
  if (given.check)
    return check_file(client, given.json, wanted);
  std::signal(SIGHUP, SIG_IGN); // what is begun is ended
  application account;
  applying steps(client, wanted, account);
  try {
    apply_all(steps);
  } catch (const failure &failure) {
    if (account.done["changed"] == false)
      throw;
    const auto rest = rest_of_file(failure, given.json, account.done["refused"]);
    tell(given.json, account);
    throw rest;
  }
  tell(given.json, account);
  if (!account.done["refused"].empty())
    throw failure{given.json ? "" : "not everything was applied", ""};
}
