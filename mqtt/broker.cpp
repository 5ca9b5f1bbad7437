#include "broker.h"

#include "budget.h"
#include "journal.h"

#include <glib.h>
#include <mosquitto.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <random>
#include <utility>

static constexpr std::size_t kMostWaiting = 100;
static constexpr std::size_t kMostUnacknowledged = 1000;
static constexpr unsigned kLongestDelay = 120; // seconds
static constexpr int kHoldsSeconds = 5;        // more than another machine takes to come back
static constexpr int kDoubtful = 3;            // short connections

// --- what is told on the main loop ---

void broker::hand_over(std::function<void()> happened) {
  const std::lock_guard guard(lock_);
  happened_.push_back(std::move(happened));
  if (happened_.size() == 1)
    g_idle_add(take, this);
}

// One thing at a time: signals of the daemon come in between.
int broker::take(void *data) {
  auto &self = *static_cast<broker *>(data);
  std::unique_lock lock(self.lock_);
  const auto happened = std::move(self.happened_.front());
  lock.unlock();
  happened();
  lock.lock();
  self.happened_.pop_front();
  return self.happened_.empty() ? G_SOURCE_REMOVE : G_SOURCE_CONTINUE;
}

void broker::hear(const message &received) {
  try {
    listener_.received(received);
  } catch (const std::exception &error) { // one bad message must not end the bridge
    log_problem("a message to " + received.topic + " is left out: " + error.what());
  }
}

// The end of the connection drops it: the next one brings what the broker retains.
void broker::keep_newest(message received) {
  const std::string topic = received.topic;
  unsigned connection = 0;
  {
    const std::lock_guard guard(lock_);
    connection = connection_;
    if (!newest_.insert_or_assign(topic, std::move(received)).second)
      return;
  }
  hand_over([this, topic, connection] {
    std::unique_lock lock(lock_);
    if (connection != connection_)
      return;
    const auto newest = newest_.extract(topic);
    lock.unlock();
    hear(newest.mapped());
  });
}

void broker::receive(message received) {
  {
    std::unique_lock lock(lock_);
    if (waiting_ >= kMostWaiting) {
      lock.unlock();
      const std::string answer = listener_.busy(received);
      if (!answer.empty())
        publish({answers_, answer});
      else
        keep_newest(std::move(received));
      return;
    }
    ++waiting_;
  }
  hand_over([this, received = std::move(received)] {
    hear(received);
    const std::lock_guard guard(lock_);
    --waiting_;
  });
}

// --- the connection ---

// The same fault is told once, until a connection stands.
void broker::tell_failure(int error) {
  const std::string reason = !detail_.empty()          ? detail_
                             : error == MOSQ_ERR_ERRNO ? g_strerror(errno)
                                                       : mosquitto_strerror(error);
  if (reason == fault_)
    return;
  fault_ = reason;
  log_problem("no connection to the broker " + configuration_.broker.host + ":" +
              std::to_string(configuration_.broker.port) + ": " + reason);
}

// Two machines with one id end each other's connections in turn, and not every broker says why.
void broker::doubt() {
  const long long least_s = configuration_.broker.spread_s + kHoldsSeconds;
  const bool is_short = g_get_monotonic_time() - connected_at_ < least_s * G_USEC_PER_SEC;
  short_connections_ = is_short ? short_connections_ + 1 : 0;
  if (short_connections_ == kDoubtful)
    log_problem("each connection to the broker is soon lost: does another machine have the same "
                "/etc/machine-id?");
}

// One connection from its begin to its end.
void broker::serve() {
  mosquitto *client = make();
  {
    const std::lock_guard guard(lock_);
    client_ = client;
    detail_.clear();
  }
  int error = secure(client);
  if (error == MOSQ_ERR_SUCCESS)
    error = connect(client);
  while (error == MOSQ_ERR_SUCCESS)
    error = mosquitto_loop(client, kKeepAliveSeconds * 1000, 1);
  const int cause = errno;
  const std::lock_guard guard(lock_);
  client_ = nullptr;
  mosquitto_destroy(client);
  if (is_paused_)
    return;
  if (is_online_)
    doubt();
  errno = cause;
  tell_failure(error);
}

// Returns false when there is nothing more to connect for.
bool broker::wait(std::unique_lock<std::mutex> &lock, unsigned &failures, bool was_connected) {
  std::random_device random;
  failures = was_connected ? 0 : failures + 1;
  const unsigned doublings = std::min(std::max(failures, 1U) - 1, 7U);
  std::chrono::milliseconds span = std::chrono::seconds(std::min(kLongestDelay, 1U << doublings));
  if (was_connected)
    span += std::chrono::milliseconds(
        std::uniform_int_distribution(0, configuration_.broker.spread_s * 1000)(random));
  if (!is_paused_)
    changed_.wait_for(lock, span, [this] { return is_paused_ || is_ended_; });
  if (is_paused_ && !is_ended_) {
    is_idle_ = true;
    changed_.notify_all();
    changed_.wait(lock, [this] { return !is_paused_ || is_ended_; });
    failures = 0;
  }
  return !is_ended_;
}

void broker::run() {
  unsigned failures = 0;
  std::unique_lock lock(lock_);
  while (!is_ended_) {
    is_idle_ = false;
    lock.unlock();
    serve();
    lock.lock();
    const bool was_connected = std::exchange(is_online_, false);
    newest_.clear();
    ++connection_;
    std::vector<publication> sent;
    for (auto &[id, publication] : std::exchange(unacknowledged_, {}))
      if (publication.made_at != 0)
        sent.push_back(std::move(publication));
    changed_.notify_all();
    lock.unlock();
    hand_over([this, sent = std::move(sent)] { listener_.lost(sent); });
    lock.lock();
    if (!wait(lock, failures, was_connected))
      break;
  }
  is_idle_ = true;
  changed_.notify_all();
}

// --- operations ---

broker::broker(const configuration &configuration, publication will, std::string answers,
               std::vector<std::string> subscriptions, listener heard_by)
    : configuration_(configuration), will_(std::move(will)), answers_(std::move(answers)),
      subscriptions_(std::move(subscriptions)), listener_(std::move(heard_by)) {
  mosquitto_lib_init();
}

broker::~broker() {
  if (thread_.joinable())
    thread_.join();
  while (g_idle_remove_by_data(this) != FALSE)
    ;
  mosquitto_lib_cleanup();
}

void broker::start() {
  is_paused_ = false;
  thread_ = std::thread([this] { run(); });
}

void broker::resume() {
  const std::lock_guard guard(lock_);
  is_paused_ = false;
  changed_.notify_all();
}

void broker::pause() {
  std::unique_lock lock(lock_);
  changed_.wait_for(lock, std::chrono::milliseconds(kDrainMs),
                    [this] { return unacknowledged_.empty(); });
  is_paused_ = true;
  if (client_ != nullptr)
    mosquitto_disconnect(client_);
  changed_.notify_all();
}

bool broker::wait_paused(int milliseconds) {
  std::unique_lock lock(lock_);
  return changed_.wait_for(lock, std::chrono::milliseconds(milliseconds),
                           [this] { return is_idle_; });
}

bool broker::stop() {
  const std::lock_guard guard(lock_);
  is_ended_ = true;
  changed_.notify_all();
  return is_idle_;
}

bool broker::publish(const publication &publication) {
  const std::lock_guard guard(lock_);
  if (client_ == nullptr || !is_online_)
    return false;
  if (unacknowledged_.size() >= kMostUnacknowledged) {
    if (!std::exchange(is_stuck_, true))
      log_problem("the broker acknowledges nothing: no more is published");
    return false;
  }
  int id = 0;
  const int error = mosquitto_publish(client_, &id, publication.topic.c_str(),
                                      static_cast<int>(publication.payload.size()),
                                      publication.payload.data(), 1, publication.retained);
  if (error == MOSQ_ERR_SUCCESS)
    unacknowledged_.emplace_back(
        id, publication.made_at != 0 ? publication
                                     : ::publication{.topic = publication.topic, .payload = {}});
  else if (error != MOSQ_ERR_NO_CONN && refused_topics_.insert(publication.topic).second)
    log_problem("nothing can be published to " + publication.topic + ": " +
                mosquitto_strerror(error));
  return error == MOSQ_ERR_SUCCESS;
}
