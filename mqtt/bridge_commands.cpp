// The commands of the bridge: who may, once only, in which order.
#include "acts.h"
#include "bridge.h"
#include "journal.h"

#include <glib.h>

#include <algorithm>
#include <random>

static constexpr act kTest = {"test", "test", false, nullptr};
static constexpr const char *kApply = "apply";

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
  if (phase_ == phase::kMeeting && !message.topic.ends_with("/apply") && early_.size() < 100)
    return early_.push_back(message);
  handle(message);
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
    throw failure{"there is no command " + printable(command.name), "", fault::kUsage};
  const std::string right = is_plan ? kApply : act->right;
  if (!configuration_.may(right))
    throw failure{"this machine does not take the command: its commands do not name " + right, "",
                  fault::kNotAllowed};
  if (is_plan)
    throw failure{"apply must be published with the retain flag", "", fault::kUsage};
  if (message.retained)
    throw failure{"only apply may be published with the retain flag", "", fault::kUsage};
  if (act->needs_id && command.id.empty())
    throw failure{command.name + " needs an id: it must not be done twice", "", fault::kUsage};
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

void bridge::hear_plan(const message &message) {
  plans_.note(message);
  if (is_settled_)
    carry_out_plan(false);
}

void bridge::carry_out_plan(bool again) {
  const message *plan = phase_ == phase::kOnline ? plans_.due(again) : nullptr;
  plan_waits_ = false;
  if (plan == nullptr)
    return;
  const command command = command_of(*plan);
  try {
    const json applied = json::parse(plans_.carry_out(client_, *plan));
    publish("applied", plans_.applied(), true);
    json result = json::parse(done(command, applied));
    result["done"] = plans_.is_done();
    answer(text_of(result));
  } catch (const failure &failure) {
    plan_waits_ = true;
    log_problem("apply waits: " + failure.what);
  } catch (const std::exception &error) { // a number that JSON allows and nobody can hold
    log_problem(plan->topic + ": " + error.what());
  }
}
