// What the daemon tells: its signals, gathered for as long as they come at once, and then handed
// over together with one look at the daemon.
#pragma once

#include "client.h"
#include "output.h"

#include <functional>
#include <set>
#include <string>
#include <vector>

class watch {
public:
  // What happened, as events; without one something else has changed. `view` is as of now.
  using listener = std::function<void(const std::vector<json> &events, const snapshot &view)>;

  watch(client &client, listener changed, std::function<void()> vanished);
  ~watch();
  watch(const watch &) = delete;
  watch &operator=(const watch &) = delete;

  bool is_running() const { return is_running_; } // the daemon
  void look_later();                              // at a daemon that did not answer

private:
  struct callbacks;
  struct told {
    std::string event;
    int id;
    int type = 0;
    std::string why{}; // of a removal; the cause of a wake-up
  };

  void set_running(bool is_running);
  void note(told what);
  void expect();
  void hand_over();
  json event_of(const told &what, const snapshot &view) const;
  std::vector<json> skipped(const snapshot &view);

  client &client_;
  const listener changed_;
  const std::function<void()> vanished_;
  std::vector<bus_slot> signals_;
  unsigned start_ = 0;
  unsigned idle_ = 0;
  unsigned again_ = 0;   // looks once more
  bool is_busy_ = false; // at the last look
  bool is_running_ = false;
  int expired_ = 0;        // its id was told, its type not yet
  std::vector<told> told_; // since the last look
  std::set<int> fired_;    // likewise
  snapshot seen_;          // by the last look
};
