#include "bridge.h"

#include "discovery.h"
#include "journal.h"

#include <glib.h>

#include <algorithm>
#include <utility>

static constexpr unsigned kRefreshMs = 200;
static constexpr unsigned kHourMs = 3600 * 1000; // the week moves on

static constexpr const char *kOnline = "online";
static constexpr const char *kOffline = "offline";
static constexpr const char *kAsleep = "asleep";

static std::vector<std::string> subscriptions(const configuration &settings) {
  std::vector<std::string> topics{settings.own("set/+")};
  for (const std::string &group : settings.groups)
    topics.push_back(settings.group(group) + "/set/+");
  topics.push_back(settings.own("availability"));
  topics.push_back(settings.own("state"));
  if (settings.home_assistant)
    topics.push_back(settings.discovery_prefix + "/status");
  return topics;
}

bridge::bridge(const configuration &configuration, const std::string &state_directory)
    : configuration_(configuration), ledger_(state_directory + "/commands"),
      plans_(configuration, state_directory + "/applied"), trial_(client_),
      watch_(
          client_, [this](const auto &events, const snapshot &view) { hear_daemon(events, view); },
          [this] { refresh_now(); }),
      broker_(configuration, {configuration.own("availability"), kOffline, true},
              configuration.own("result"), subscriptions(configuration),
              {.subscribed = [this] { meet(); },
               .lost = [this](const auto &sent) { lose(sent); },
               .received = [this](const message &message) { receive(message); },
               .busy = busy_answer}) {
  run_later(hourly_timer_, kHourMs, &bridge::refresh_now);
}

bool bridge::stop() {
  trial_.break_off();
  leave(kOffline);
  for (unsigned *timer : {&settle_timer_, &refresh_timer_, &discovery_timer_, &hourly_timer_,
                          &plan_timer_, &retry_timer_})
    stop_timer(*timer);
  return broker_.stop();
}

// --- timers of the main loop ---

namespace {

struct later {
  bridge *self;
  unsigned *timer;
  void (bridge::*then)();
};

} // namespace

void bridge::run_later(unsigned &timer, unsigned milliseconds, void (bridge::*then)()) {
  stop_timer(timer);
  timer = g_timeout_add_full(
      G_PRIORITY_DEFAULT_IDLE, milliseconds, // takes turns with what comes from the broker
      [](void *data) -> gboolean {
        const later call = *static_cast<later *>(data);
        *call.timer = 0;
        (call.self->*call.then)();
        return G_SOURCE_REMOVE;
      },
      new later{this, &timer, then}, [](void *data) { delete static_cast<later *>(data); });
}

void bridge::stop_timer(unsigned &timer) {
  if (timer != 0)
    g_source_remove(timer);
  timer = 0;
}

// --- the connection ---

// What the broker retains may have come before.
void bridge::meet() {
  phase_ = phase::kMeeting;
  run_later(settle_timer_, static_cast<unsigned>(configuration_.settle_ms), &bridge::settle);
  decide_on_peer(false);
}

void bridge::lose(const std::vector<publication> &sent) {
  phase_ = phase::kOffline;
  is_settled_ = false;
  peer_id_.clear();
  peer_availability_.clear();
  early_.clear();
  plans_.forget();
  stop_timer(settle_timer_);
  stop_timer(discovery_timer_);
  for (const publication &kept : sent)
    outbox_.put(kept);
}

void bridge::settle() {
  decide_on_peer(true);
  is_settled_ = true;
  carry_out_plan(configuration_.enforce);
}

void bridge::decide_on_peer(bool is_settled) {
  if (phase_ != phase::kMeeting)
    return;
  const bool is_mine = peer_id_ == configuration_.machine_id;
  const bool is_known = !peer_id_.empty() && !peer_availability_.empty();
  if (!is_mine && is_known && peer_availability_ == kOnline)
    yield();
  else if (is_mine || is_known || is_settled)
    go_online();
}

void bridge::yield() {
  phase_ = phase::kYielding;
  early_.clear();
  log_problem("another machine has the name " + configuration_.name +
              ": nothing is carried out until it is gone, or one of them gets another name");
}

void bridge::go_online() {
  phase_ = phase::kOnline;
  published_.clear();
  log_notice("connected to the broker " + configuration_.broker.host + " as " +
             configuration_.name);
  publish("availability", kOnline);
  refresh_now();
  if (!plans_.applied().empty())
    publish("applied", plans_.applied());
  publish_kept();
  handle_early();
  if (is_settled_)
    carry_out_plan(configuration_.enforce);
}

// The documents under the machine's name that were not published by this run.
void bridge::hear_peer(const message &message) {
  const bool is_state = message.topic == configuration_.own("state");
  if (is_state) {
    const json state = json::parse(message.payload, nullptr, false);
    const auto id = state.find("machine_id"); // anybody's message
    peer_id_ = id != state.end() && id->is_string() ? id->get<std::string>() : "";
  } else {
    peer_availability_ = message.payload;
  }
  if (phase_ == phase::kMeeting)
    return decide_on_peer(false);
  if (phase_ == phase::kYielding && !is_state && message.payload != kOnline)
    return go_online();
  if (phase_ != phase::kOnline)
    return;
  if (is_state && !peer_id_.empty() && peer_id_ < configuration_.machine_id)
    return yield();                 // of two that came at once
  if (message.payload != kOnline) { // the will of an earlier connection
    published_.clear();
    publish("availability", kOnline);
    refresh();
  }
}

// No more is sent until `wake`.
void bridge::leave(const char *availability) {
  if (phase_ == phase::kOnline)
    publish("availability", availability);
  phase_ = phase::kOffline;
  broker_.pause();
  broker_.wait_paused(kDisconnectMs);
}

void bridge::sleep() { leave(kAsleep); }

// --- documents ---

bool bridge::publish(const std::string &topic, const std::string &text) {
  return broker_.publish({.topic = configuration_.own(topic), .payload = text, .retained = true});
}

void bridge::publish_once(const std::string &topic, const std::string &text) {
  publication told{.topic = configuration_.own(topic), .payload = text, .made_at = outbox::now()};
  if (phase_ != phase::kOnline || !broker_.publish(told))
    outbox_.put(std::move(told));
}

void bridge::publish_kept() {
  for (publication &kept : outbox_.take(outbox::now()))
    if (!broker_.publish(kept))
      outbox_.put(std::move(kept));
}

void bridge::publish_changed(const std::string &topic, const std::string &text,
                             const std::string &compared) {
  const auto known = published_.find(topic);
  const bool is_known = known != published_.end() && known->second == compared;
  if (!is_known && publish(topic, text))
    published_[topic] = compared;
}

void bridge::publish_documents(const documents &documents) {
  if (phase_ != phase::kOnline)
    return;
  const bool is_first = !published_.contains("state");
  publish_changed("state", documents.state, documents.compared);
  publish_changed("timers", documents.timers, documents.timers);
  publish_changed("week", documents.week, documents.week);
  const auto has_machine = documents.has_machine ? documents.has_machine : has_machine_;
  if (std::exchange(has_machine_, has_machine) != has_machine || is_first)
    publish_discovery();
}

// What it names as not there, Home Assistant removes: nothing is said before it is known.
void bridge::publish_discovery() {
  if (configuration_.home_assistant && phase_ == phase::kOnline && has_machine_)
    broker_.publish(
        {configuration_.discovery_topic(), discovery_of(configuration_, *has_machine_), true});
}

void bridge::refresh_now() {
  if (hourly_timer_ == 0)
    run_later(hourly_timer_, kHourMs, &bridge::refresh_now);
  refreshed_at_ = g_get_monotonic_time();
  try {
    publish_documents(documents_of(client_, client_.look_at_state(), configuration_.machine_id));
  } catch (const failure &failure) {
    publish_documents(documents_without(failure.what + ".", configuration_.machine_id));
    if (failure.kind == fault::kTimeout)
      watch_.look_later();
  }
}

void bridge::refresh() {
  if (refresh_timer_ != 0)
    return;
  const long long ready_at = refreshed_at_ + kRefreshMs * 1000LL;
  const long long wait_us = std::max(0LL, ready_at - g_get_monotonic_time());
  run_later(refresh_timer_, static_cast<unsigned>(wait_us / 1000), &bridge::refresh_now);
}

void bridge::hear_daemon(const std::vector<json> &events, const snapshot &) {
  for (const json &event : events)
    publish_once("event", text_of(event));
  refresh();
  try_plan_again();
}
