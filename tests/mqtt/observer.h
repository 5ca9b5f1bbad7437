// What somebody sees who hears all that goes through the broker, and publishes himself.
#pragma once

#include <condition_variable>
#include <map>
#include <mutex>
#include <string>
#include <vector>

struct mosquitto;

class observer {
public:
  observer(int port, const char *topics = "#", const char *user = nullptr);
  ~observer();
  observer(const observer &) = delete;
  observer &operator=(const observer &) = delete;

  void publish(const std::string &topic, const std::string &payload, bool retained = false);

  // The first message to `topic` with `part` in it that has not been taken; fails the test when
  // none comes. Those before it to this topic are forgotten.
  std::string wait(const std::string &topic, const std::string &part = "");
  void wait_count(const std::string &topic, std::size_t count); // of messages not taken
  std::string last(const std::string &topic); // the newest one, taken or not; empty for none
  void forget();

private:
  struct callbacks;

  mosquitto *client_;
  std::mutex lock_;
  std::condition_variable changed_;
  std::multimap<std::string, std::string> heard_; // in the order of arrival for each topic
  std::map<std::string, std::string> last_;
  bool is_subscribed_ = false;
};
