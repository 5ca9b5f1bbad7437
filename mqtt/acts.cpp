#include "acts.h"

#include "commands.h"
#include "judgement.h"
#include "parse.h"

#include <algorithm>

// Nothing else happens while one command is carried out.
static constexpr std::size_t kLongestList = 100;

// --- members ---

static failure wrong(const std::string &member, const std::string &wanted) {
  return {member + " must be " + wanted, "", fault::kUsage};
}

static const json &member_of(const json &body, const char *name) {
  if (!body.contains(name))
    throw failure{"the message has no " + std::string(name), "", fault::kUsage};
  return body.at(name);
}

static int id_in(const json &value, const char *name) {
  const auto id = value.is_number_integer() ? parse_int(value.dump()) : std::nullopt;
  if (!id)
    throw wrong(name, "the id of one that is listed");
  return *id;
}

static bool flag_in(const json &body, const char *name) {
  if (!body.at(name).is_boolean())
    throw wrong(name, "true or false");
  return body.at(name).get<bool>();
}

static std::vector<json> list_in(const json &body, const char *name) {
  if (!body.contains(name))
    return {};
  if (!body.at(name).is_array() || body.at(name).size() > kLongestList)
    throw wrong(name, "a list of up to " + std::to_string(kLongestList));
  return {body.at(name).begin(), body.at(name).end()};
}

// --- timers ---

static json timer_in_set(client &client, int id, const timer_record &wanted, const snapshot &before,
                         std::vector<std::string> notes) {
  const snapshot view = client.look();
  const timer_record *timer = find_timer(view.timers, id);
  if (timer == nullptr)
    throw failure{"timer " + std::to_string(id) + " was added and is gone already", ""};
  std::ranges::move(notes_of_added(id, wanted, before, view), std::back_inserter(notes));
  return {{"timer", json_of(*timer, view)}, {"notes", notes}};
}

static json add(client &client, const message &message) {
  const json body = body_of(message, {"timer"});
  std::vector<std::string> notes;
  const timer_record timer = read_timer(member_of(body, "timer"), "timer", notes);
  const snapshot view = client.look();
  check_room(timer, view, false);
  const int id = add_to_set(client, timer, view);
  return timer_in_set(client, id, timer, view, notes);
}

// The old timer as export writes it, with the members of `set` in place of its own.
static timer_record changed(const timer_record &old, const json &set,
                            std::vector<std::string> &notes) {
  if (!set.is_object() || set.empty())
    throw wrong("set", "an object with what shall be different");
  json timer = exported(old);
  for (const char *time : {"time", "at"})
    if (set.contains(time)) // whichever the old one has
      for (const char *other : {"time", "at"})
        timer.erase(other);
  timer.update(set);
  const bool stays_dated = old.week_flag == 0 && set.contains("time") && !set.contains("days");
  timer_record wanted = read_timer(timer, "set", notes);
  if (stays_dated)
    wanted.at = std::chrono::floor<std::chrono::days>(old.at) +
                (wanted.at - std::chrono::floor<std::chrono::days>(wanted.at));
  return wanted;
}

static json change(client &client, const message &message) {
  const json body = body_of(message, {"timer_id", "set"});
  const int old_id = id_in(member_of(body, "timer_id"), "timer_id");
  const snapshot view = client.look();
  const timer_record *old = find_timer(view.timers, old_id);
  if (old == nullptr)
    throw no_such_timer(old_id);
  std::vector<std::string> notes;
  const timer_record timer = changed(*old, member_of(body, "set"), notes);
  const int id = change_in_set(client, *old, timer, view);
  json about = timer_in_set(client, id, timer, view, notes);
  about["replaced"] = old_id;
  return about;
}

static json cancel(client &client, const message &message) {
  const json body = body_of(message, {"timer_id"});
  const int id = id_in(member_of(body, "timer_id"), "timer_id");
  const auto timer = client.timer(id);
  if (!timer)
    throw no_such_timer(id);
  cancel_one(client, id);
  return {{"cancelled", id}, {"timer", exported(*timer)}};
}

// --- the set ---

static json halt(client &client, const message &message) {
  const json body = body_of(message, {"on", "off"});
  constexpr std::pair<const char *, const char *> kOrders[] = {{"on", "request_halt_ontimers"},
                                                               {"off", "request_halt_offtimers"}};
  if (!body.contains("on") && !body.contains("off"))
    throw wrong("on or off", "given");
  for (const auto &[name, method] : kOrders)
    if (body.contains(name))
      flag_in(body, name);
  for (const auto &[name, method] : kOrders)
    if (body.contains(name))
      client.call_int(method, {flag_in(body, name) ? 1 : 0});
  const snapshot view = client.look(false);
  return {{"halted", {{"on", view.halt_on != 0}, {"off", view.halt_off != 0}}}};
}

static json turn_screen(client &client, const message &message) {
  const json body = body_of(message, {"on"});
  member_of(body, "on");
  const bool on = flag_in(body, "on");
  client.turn_screen(on);
  return {{"on", on}};
}

// --- holidays ---

static std::vector<int> removed_in(const json &body, const std::vector<holiday> &listed) {
  std::vector<int> ids;
  for (const json &value : list_in(body, "remove")) {
    ids.push_back(id_in(value, "remove"));
    if (std::ranges::find(listed, ids.back(), &holiday::id) == listed.end())
      throw failure{"there are no holidays " + std::to_string(ids.back()), ""};
  }
  return ids;
}

static std::vector<holiday> added_in(const json &body, const std::vector<holiday> &listed) {
  std::vector<holiday> periods;
  for (const json &value : list_in(body, "add")) {
    const std::string name = "add[" + std::to_string(periods.size()) + "]";
    const holiday period = read_holiday(value, name);
    if (const holiday *same = find_same(period, listed))
      throw failure{"these days are holidays " + std::to_string(same->id) + " already", ""};
    if (find_same(period, periods) != nullptr)
      throw failure{name + " stands in the list already", ""};
    periods.push_back(period);
  }
  return periods;
}

// Everything is checked before anything is done.
static json change_holidays(client &client, const message &message) {
  const json body = body_of(message, {"add", "remove"});
  const snapshot before = client.look();
  const auto added = added_in(body, before.holidays);
  const auto removed = removed_in(body, before.holidays);
  if (added.empty() && removed.empty())
    throw wrong("add or remove", "given");
  json about{{"added", json::array()}, {"removed", json::array()}};
  for (holiday period : added) {
    period.id = add_holiday(client, period, before.now.set);
    about["added"].push_back(json_of(period));
  }
  for (const int id : removed) {
    remove_holiday(client, id);
    about["removed"].push_back(id);
  }
  about["moved"] = changes_since(before, client.look()).moved;
  return about;
}

static constexpr act kActs[] = {
    {"add", "timers", true, add},       {"change", "timers", true, change},
    {"cancel", "timers", true, cancel}, {"holidays", "holidays", true, change_holidays},
    {"halt", "halt", false, halt},      {"screen", "screen", false, turn_screen},
};

const act *find_act(const std::string &name) {
  const auto *found =
      std::ranges::find_if(kActs, [&](const act &known) { return name == known.name; });
  return found != std::end(kActs) ? found : nullptr;
}
