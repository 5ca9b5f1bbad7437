// The connection to the broker: one thread that connects, waits and reconnects. Everything that
// happens is told on the main loop, where the other operations are called as well.
#pragma once

#include "configuration.h"

#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

struct mosquitto;

inline constexpr int kKeepAliveSeconds = 60;

struct message {
  std::string topic;
  std::string payload;
  std::string correlation; // MQTT 5's; empty for none
  bool retained = false;   // published so, now or earlier
};

struct publication {
  std::string topic;
  std::string payload;
  bool retained = false;
  long long made_at = 0; // milliseconds since the machine's start; 0: is not kept when it is lost
};

class broker {
public:
  struct listener {
    std::function<void()> subscribed; // the retained messages come, or have come
    // After each attempt to connect as well. What was sent may not have arrived.
    std::function<void(const std::vector<publication> &sent)> lost;
    std::function<void(const message &)> received;
    // More wait than can: the answer to this one, which is then dropped. Empty: it is heard, unless
    // its topic has a newer one by then. Called in the broker's thread.
    std::function<std::string(const message &)> busy;
  };

  // `will` is published by the broker when the connection breaks; `answers` is where busy ones go.
  broker(const configuration &configuration, publication will, std::string answers,
         std::vector<std::string> subscriptions, listener heard_by);
  ~broker();
  broker(const broker &) = delete;
  broker &operator=(const broker &) = delete;

  void start();
  void resume();                      // connects at once
  void pause();                       // disconnects once all is sent, and stays so
  bool wait_paused(int milliseconds); // false when it is still connected, or still tries to
  // After `pause`, before the end of this object, which waits for the thread. False: an attempt to
  // connect still runs; end the process without this object.
  bool stop();

  // False without a connection, and when the broker does not take what is sent.
  bool publish(const publication &publication);

private:
  struct callbacks;

  void run();
  void serve();
  bool wait(std::unique_lock<std::mutex> &lock, unsigned &failures, bool was_connected);
  mosquitto *make();
  int secure(mosquitto *client);
  int connect(mosquitto *client);
  int subscribe(mosquitto *client);
  void hand_over(std::function<void()> happened);
  void receive(message received);
  void hear(const message &received);
  void keep_newest(message received);
  void doubt();
  void tell_failure(int error);
  static int take(void *data);

  const configuration &configuration_;
  const publication will_;
  const std::string answers_;
  std::vector<std::string> subscriptions_;
  const listener listener_;

  std::thread thread_;
  // the thread's own
  long long connected_at_ = 0; // microseconds, monotonic
  int short_connections_ = 0;  // in a row
  std::string fault_;          // the last one told
  std::string detail_;         // what the library says of it

  std::mutex lock_; // of what follows
  std::condition_variable changed_;
  mosquitto *client_ = nullptr;
  bool is_online_ = false; // as the thread sees it
  bool is_paused_ = true;
  bool is_idle_ = true; // paused, and nothing is connected
  bool is_ended_ = false;
  std::vector<std::pair<int, publication>> unacknowledged_; // by message id, in order
  bool is_stuck_ = false;
  std::deque<std::function<void()>> happened_;
  unsigned connection_ = 0;               // counts them
  std::size_t waiting_ = 0;               // messages among them, without those that follow
  std::map<std::string, message> newest_; // of this connection, by topic
  std::set<std::string> refused_topics_;  // told already
};
