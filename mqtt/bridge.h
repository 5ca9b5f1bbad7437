// The bridge itself: what comes from the broker goes to the daemon, and the other way round.
#pragma once

#include "broker.h"
#include "budget.h"
#include "bus_source.h"
#include "documents.h"
#include "ledger.h"
#include "outbox.h"
#include "plans.h"
#include "trial.h"
#include "watch.h"

#include <map>
#include <optional>
#include <string>
#include <vector>

class bridge {
public:
  // `state_directory` keeps what was carried out. Throws a failure when there is no system bus.
  bridge(const configuration &configuration, const std::string &state_directory);
  ~bridge() { stop(); } // waits for an attempt to connect
  bridge(const bridge &) = delete;
  bridge &operator=(const bridge &) = delete;

  void start() { broker_.start(); }
  void sleep();
  void wake() { broker_.resume(); }
  bool stop(); // says offline; gives what broker::stop does
  // When the bus is lost.
  bus_slot hear_loss(sd_bus_message_handler_t lost, void *data) {
    return client_.hear_loss(lost, data);
  }

private:
  enum class phase {
    kOffline, // or not subscribed yet
    kMeeting, // connected; whether another machine has the name is not known yet
    kOnline,
    kYielding, // another one has it
  };

  // --- the connection ---
  void meet();
  void lose(const std::vector<publication> &sent);
  void settle();
  void decide_on_peer(bool is_settled);
  void go_online();
  void yield();
  void hear_peer(const message &message);
  void leave(const char *availability);

  // --- commands ---
  void receive(const message &message);
  void handle(const message &message);
  std::string answer_to(const command &command, const message &message);
  std::string carry_out(const command &command, const message &message);
  std::string run_once(const command &command, const message &message, const struct act &act);
  std::string run_trial(const command &command, const message &message);
  void answer(const std::string &text) { publish_once("result", text); }
  void hear_plan(const message &message);
  void carry_out_plan(bool again);
  void go_on_with_plan();
  void try_plan_again();
  bool must_wait(const message &message) const;
  void handle_early();

  // --- documents ---
  bool publish(const std::string &topic, const std::string &text); // retained
  void publish_once(const std::string &topic, const std::string &text);
  void publish_kept();
  void publish_changed(const std::string &topic, const std::string &text,
                       const std::string &compared);
  void publish_documents(const documents &documents);
  void publish_discovery();
  void hear_daemon(const std::vector<json> &events, const snapshot &view);
  void refresh(); // at most five times a second
  void refresh_now();
  void run_later(unsigned &timer, unsigned milliseconds, void (bridge::*then)());
  void stop_timer(unsigned &timer);

  const configuration &configuration_;
  client client_{kDaemonSeconds};
  const bus_source source_{client_.bus()};
  ledger ledger_;
  plans plans_;
  trial trial_;
  phase phase_ = phase::kOffline;
  bool is_settled_ = false;         // the retained messages are known
  bool plan_waits_ = false;         // for the daemon
  std::optional<bool> has_machine_; // as the daemon said last
  std::string peer_id_;             // of the machine whose state stands at the broker
  std::string peer_availability_;
  std::vector<message> early_; // commands that wait for the end of the meeting, or of a plan
  outbox outbox_;
  std::map<std::string, std::string> published_;
  long long refreshed_at_ = 0; // microseconds, monotonic
  unsigned settle_timer_ = 0;
  unsigned refresh_timer_ = 0;
  unsigned discovery_timer_ = 0;
  unsigned hourly_timer_ = 0;
  unsigned plan_timer_ = 0; // while one is carried out
  unsigned retry_timer_ = 0;
  watch watch_;
  broker broker_;
};
