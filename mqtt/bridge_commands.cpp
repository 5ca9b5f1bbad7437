// The commands of the bridge: who may, once only, in which order.
#include "acts.h"
#include "bridge.h"
#include "journal.h"

#include <algorithm>
#include <random>
#include <utility>

static constexpr act kTest = {"test", "test", false, nullptr};
static constexpr std::size_t kMostEarly = 100;
static constexpr unsigned kWaitMs = 1000; // for room in the list
static constexpr unsigned kRetryMs = 10 * 1000;

void bridge::receive(const message &message) {
  if (message.topic == configuration_.own("state") ||
      message.topic == configuration_.own("availability"))
    return hear_peer(message);
  if (message.topic == configuration_.discovery_prefix + "/status") {
    std::random_device random;
    const int most = std::min(10, configuration_.broker.spread_s) * 1000;
    if (message.payload == "online" && !message.retained)
      run_later(discovery_timer_,
                static_cast<unsigned>(std::uniform_int_distribution(0, most)(random)),
                &bridge::publish_discovery);
    return;
  }
  if (!must_wait(message))
    handle(message);
  else if (early_.size() < kMostEarly)
    early_.push_back(message);
  else
    answer(busy_answer(message));
}

// What a plan that is being carried out would undo waits for its end.
bool bridge::must_wait(const message &message) const {
  const std::string name = name_of(message);
  if (phase_ == phase::kOffline || phase_ == phase::kMeeting)
    return name != kApply || !message.retained;
  const act *act = find_act(name);
  return plan_timer_ != 0 && act != nullptr && act->needs_id;
}

void bridge::handle_early() {
  for (const message &message : std::exchange(early_, {}))
    receive(message);
}

void bridge::handle(const message &message) {
  const bool withdraws = message.retained && message.payload.empty();
  const command command = command_of(message);
  if (command.name == kApply && message.retained && configuration_.may(kApply))
    return hear_plan(message);
  if (withdraws || phase_ != phase::kOnline)
    return;
  if (const std::string text = answer_to(command, message); !text.empty())
    answer(text);
}

// Empty when the answer comes later.
std::string bridge::answer_to(const command &command, const message &message) {
  try {
    return carry_out(command, message);
  } catch (const failure &failure) {
    return not_done(command, failure);
  } catch (const std::exception &error) { // a number that JSON allows and nobody can hold
    return not_done(command, {error.what(), ""});
  }
}

std::string bridge::carry_out(const command &command, const message &message) {
  const act *act = command.name == kTest.name ? &kTest : find_act(command.name);
  const bool is_plan = command.name == kApply;
  if (act == nullptr && !is_plan)
    throw failure{"there is no command " + shown(command.name), "", fault::kUsage};
  const std::string right = is_plan ? kApply : act->right;
  if (!configuration_.may(right))
    throw failure{"this machine does not take the command: its commands do not name " + right, "",
                  fault::kNotAllowed};
  if (is_plan)
    throw failure{"apply must be published with the retain flag", "", fault::kUsage};
  if (message.retained)
    throw failure{"only apply may be published with the retain flag", "", fault::kUsage};
  if (act->needs_id && command.id.empty()) {
    object_of(message);
    throw failure{command.name + " needs an id: it must not be done twice", "", fault::kUsage};
  }
  return run_once(command, message, *act);
}

// A command of which it is not known whether it was done is not done again.
std::string bridge::run_once(const command &command, const message &message, const act &act) {
  const bool is_kept = !command.id.empty() && (act.needs_id || &act == &kTest);
  if (is_kept) {
    if (const ledger::entry *known = ledger_.find(command.key))
      return !known->result.empty() ? known->result
                                    : not_done(command, {"begun, outcome unknown", ""});
    ledger_.begin(command.key);
  }
  std::string result;
  try {
    result =
        &act == &kTest ? run_trial(command, message) : done(command, act.run(client_, message));
  } catch (const failure &failure) {
    result = not_done(command, failure);
  } catch (const std::exception &error) {
    result = not_done(command, {error.what(), ""});
  }
  if (is_kept && !result.empty())
    ledger_.end(command.key, result);
  return result;
}

std::string bridge::run_trial(const command &command, const message &message) {
  const json body = body_of(message, {"test"});
  const bool is_named = !command.id.empty();
  const std::string what =
      body.contains("test") && body["test"].is_string() ? body["test"].get<std::string>() : "";
  trial_.start(what, is_named, [this, command, is_named](const json &about, const failure *failed) {
    const std::string result =
        failed != nullptr ? not_done(command, *failed) : done(command, about);
    if (is_named)
      ledger_.end(command.key, result);
    answer(result);
  });
  return "";
}

// --- apply ---

// One may come late.
void bridge::hear_plan(const message &message) {
  plans_.note(message);
  const auto *plan = plans_.due(true);
  if (is_settled_)
    carry_out_plan(configuration_.enforce && plan != nullptr && plan->topic == message.topic);
}

// The end of the one that is being carried out looks again.
void bridge::carry_out_plan(bool again) {
  if (plan_timer_ != 0)
    return;
  const message *plan = phase_ == phase::kOnline ? plans_.due(again) : nullptr;
  plan_waits_ = false;
  if (plan == nullptr)
    return;
  plans_.begin(*plan);
  go_on_with_plan();
}

void bridge::try_plan_again() {
  if (plan_waits_)
    carry_out_plan(true);
}

void bridge::go_on_with_plan() {
  try {
    const auto progress = plans_.go_on(client_);
    if (progress != applying::progress::kEnded)
      return run_later(plan_timer_, progress == applying::progress::kWaits ? kWaitMs : 0,
                       &bridge::go_on_with_plan);
    publish("applied", plans_.applied());
    json result = json::parse(done(command_of(plans_.begun()), json::parse(plans_.applied())));
    result["done"] = plans_.is_done();
    answer(text_of(result));
    carry_out_plan(false);
  } catch (const failure &failure) {
    plan_waits_ = true;
    if (failure.kind == fault::kTimeout) // otherwise the daemon's start ends it
      run_later(retry_timer_, kRetryMs, &bridge::try_plan_again);
    log_problem("apply waits: " + failure.what);
  }
  if (plan_timer_ == 0)
    handle_early();
}
