// One connection: how it is made, and what the library tells of it.
#include "broker.h"

#include "journal.h"

#include <glib.h>
#include <mosquitto.h>
#include <mqtt_protocol.h>

#include <algorithm>
#include <cstdlib>
#include <iterator>
#include <span>
#include <utility>

static constexpr int kMaximumPacket = 64 * 1024;
static constexpr const char *kSystemAuthorities = "/etc/ssl/certs";
static constexpr int kRefusedFrom = 128; // reason codes

// --- what the library tells, in the broker's thread ---

struct broker::callbacks {
  static void connected(mosquitto *client, void *data, int reason, int,
                        const mosquitto_property *) {
    auto &self = *static_cast<broker *>(data);
    if (reason != 0) {
      self.detail_ = "it refuses this machine: " + std::string(mosquitto_reason_string(reason));
      return;
    }
    const int error = self.subscribe(client);
    if (error != MOSQ_ERR_SUCCESS)
      self.detail_ = mosquitto_strerror(error);
    const std::lock_guard guard(self.lock_);
    if (error != MOSQ_ERR_SUCCESS || self.is_paused_) // meanwhile
      mosquitto_disconnect(client);
  }

  static void disconnected(mosquitto *, void *data, int reason, const mosquitto_property *) {
    auto &self = *static_cast<broker *>(data);
    if (reason == MQTT_RC_SESSION_TAKEN_OVER)
      self.detail_ = "another machine has the same /etc/machine-id";
    else if (reason >= kRefusedFrom)
      self.detail_ = mosquitto_reason_string(reason);
  }

  static void subscribed(mosquitto *, void *data, int, int count, const int *granted,
                         const mosquitto_property *) {
    auto &self = *static_cast<broker *>(data);
    const std::span codes(granted, static_cast<std::size_t>(count)); // as many as the broker likes
    for (std::size_t i = 0; i < std::min(codes.size(), self.subscriptions_.size()); ++i)
      if (codes[i] >= kRefusedFrom)
        log_problem("the broker refuses the subscription of " + self.subscriptions_[i]);
    {
      const std::lock_guard guard(self.lock_);
      self.is_online_ = true;
      self.connected_at_ = g_get_monotonic_time();
      self.fault_.clear();
    }
    self.hand_over([&self] { self.listener_.subscribed(); });
  }

  static void published(mosquitto *, void *data, int id, int reason, const mosquitto_property *) {
    auto &self = *static_cast<broker *>(data);
    const std::lock_guard guard(self.lock_);
    const auto found =
        std::ranges::find(self.unacknowledged_, id, &std::pair<int, publication>::first);
    if (found == self.unacknowledged_.end())
      return;
    if (reason >= kRefusedFrom && self.refused_topics_.insert(found->second.topic).second)
      log_problem("the broker refuses what is published to " + found->second.topic + ": " +
                  mosquitto_reason_string(reason));
    self.unacknowledged_.erase(found);
    self.is_stuck_ = false;
    self.changed_.notify_all();
  }

  static void received(mosquitto *, void *data, const mosquitto_message *arrived,
                       const mosquitto_property *properties) {
    if (arrived->payloadlen > kMaximumPacket) { // of which the broker was told
      log_problem(std::string("a message that is too long is left alone: ") + arrived->topic);
      return;
    }
    message received{.topic = arrived->topic,
                     .payload = {static_cast<const char *>(arrived->payload),
                                 static_cast<std::size_t>(arrived->payloadlen)},
                     .correlation = {},
                     .retained = arrived->retain};
    void *bytes = nullptr;
    std::uint16_t size = 0;
    if (mosquitto_property_read_binary(properties, MQTT_PROP_CORRELATION_DATA, &bytes, &size,
                                       false) != nullptr)
      received.correlation.assign(static_cast<const char *>(bytes), size);
    free(bytes);
    static_cast<broker *>(data)->receive(std::move(received));
  }

  static void logged(mosquitto *, void *data, int level, const char *text) {
    if (level == MOSQ_LOG_ERR)
      static_cast<broker *>(data)->detail_ = text;
  }
};

int broker::subscribe(mosquitto *client) {
  std::vector<char *> topics;
  std::ranges::transform(subscriptions_, std::back_inserter(topics),
                         [](std::string &topic) { return topic.data(); });
  return mosquitto_subscribe_multiple(
      client, nullptr, static_cast<int>(topics.size()), topics.data(), 1,
      MQTT_SUB_OPT_NO_LOCAL | MQTT_SUB_OPT_RETAIN_AS_PUBLISHED, nullptr);
}

mosquitto *broker::make() {
  mosquitto *client = mosquitto_new(("dravel-" + configuration_.machine_id).c_str(), true, this);
  mosquitto_threaded_set(client, true);
  mosquitto_int_option(client, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5);
  mosquitto_int_option(client, MOSQ_OPT_TCP_NODELAY, 1);
  mosquitto_connect_v5_callback_set(client, callbacks::connected);
  mosquitto_disconnect_v5_callback_set(client, callbacks::disconnected);
  mosquitto_subscribe_v5_callback_set(client, callbacks::subscribed);
  mosquitto_publish_v5_callback_set(client, callbacks::published);
  mosquitto_message_v5_callback_set(client, callbacks::received);
  mosquitto_log_callback_set(client, callbacks::logged);
  if (!will_.topic.empty())
    mosquitto_will_set(client, will_.topic.c_str(), static_cast<int>(will_.payload.size()),
                       will_.payload.data(), 1, will_.retained);
  return client;
}

// Without its TLS a connection would carry the password in clear text: an error ends the attempt.
int broker::secure(mosquitto *client) {
  const broker_settings &settings = configuration_.broker;
  const auto file = [](const std::string &name) { return name.empty() ? nullptr : name.c_str(); };
  const char *authorities = settings.ca_file.empty() ? kSystemAuthorities : nullptr;
  if (settings.tls)
    if (const int error =
            mosquitto_tls_set(client, file(settings.ca_file), authorities,
                              file(settings.certificate), file(settings.key_file), nullptr);
        error != MOSQ_ERR_SUCCESS)
      return error;
  return settings.user.empty() && settings.password.empty()
             ? static_cast<int>(MOSQ_ERR_SUCCESS)
             : mosquitto_username_pw_set(client, settings.user.c_str(), settings.password.c_str());
}

int broker::connect(mosquitto *client) {
  mosquitto_property *properties = nullptr;
  mosquitto_property_add_int32(&properties, MQTT_PROP_MAXIMUM_PACKET_SIZE, kMaximumPacket);
  const int error =
      mosquitto_connect_bind_v5(client, configuration_.broker.host.c_str(),
                                configuration_.broker.port, kKeepAliveSeconds, nullptr, properties);
  mosquitto_property_free_all(&properties);
  return error;
}
