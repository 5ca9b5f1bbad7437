#include "observer.h"

#include <gtest/gtest.h>
#include <mosquitto.h>

#include <chrono>

static constexpr std::chrono::seconds kDeadline{30}; // only ever reached by a failure

struct observer::callbacks {
  static observer &self(void *data) { return *static_cast<observer *>(data); }

  static void subscribed(mosquitto *, void *data, int, int, const int *) {
    const std::lock_guard guard(self(data).lock_);
    self(data).is_subscribed_ = true;
    self(data).changed_.notify_all();
  }

  static void received(mosquitto *, void *data, const mosquitto_message *arrived) {
    const std::string payload(static_cast<const char *>(arrived->payload),
                              static_cast<std::size_t>(arrived->payloadlen));
    const std::lock_guard guard(self(data).lock_);
    self(data).heard_.emplace(arrived->topic, payload);
    self(data).last_[arrived->topic] = payload;
    self(data).changed_.notify_all();
  }
};

observer::observer(int port, const char *topics, const char *user)
    : client_(mosquitto_new(nullptr, true, this)) {
  mosquitto_subscribe_callback_set(client_, callbacks::subscribed);
  mosquitto_message_callback_set(client_, callbacks::received);
  mosquitto_max_inflight_messages_set(client_, 0);
  mosquitto_username_pw_set(client_, user, nullptr);
  mosquitto_connect(client_, "127.0.0.1", port, 60);
  mosquitto_subscribe(client_, nullptr, topics, 1);
  mosquitto_loop_start(client_);
  std::unique_lock lock(lock_);
  EXPECT_TRUE(changed_.wait_for(lock, kDeadline, [this] { return is_subscribed_; }));
}

observer::~observer() {
  mosquitto_disconnect(client_);
  mosquitto_loop_stop(client_, false);
  mosquitto_destroy(client_);
}

void observer::publish(const std::string &topic, const std::string &payload, bool retained) {
  EXPECT_EQ(mosquitto_publish(client_, nullptr, topic.c_str(), static_cast<int>(payload.size()),
                              payload.data(), 1, retained),
            MOSQ_ERR_SUCCESS);
}

std::string observer::wait(const std::string &topic, const std::string &part) {
  std::unique_lock lock(lock_);
  std::string found;
  const bool has_come = changed_.wait_for(lock, kDeadline, [&] {
    const auto [first, end] = heard_.equal_range(topic);
    for (auto at = first; at != end; ++at)
      if (at->second.find(part) != std::string::npos) {
        found = at->second;
        heard_.erase(first, std::next(at));
        return true;
      }
    return false;
  });
  EXPECT_TRUE(has_come) << "no " << part << " in " << topic << ", last " << last_[topic];
  return found;
}

void observer::wait_count(const std::string &topic, std::size_t count) {
  std::unique_lock lock(lock_);
  EXPECT_TRUE(changed_.wait_for(lock, kDeadline, [&] { return heard_.count(topic) >= count; }))
      << heard_.count(topic);
}

std::string observer::last(const std::string &topic) {
  const std::lock_guard guard(lock_);
  return last_[topic];
}

void observer::forget() {
  const std::lock_guard guard(lock_);
  heard_.clear();
}
