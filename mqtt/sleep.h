// How the unit that runs before the machine sleeps reaches the bridge: a socket of the same user.
#pragma once

#include <functional>
#include <string>

class sleep_socket {
public:
  // Before the answer to `sleep` all is published and the connection closed. A bridge in the middle
  // of a call to the daemon answers too late.
  sleep_socket(std::string path, std::function<void()> sleep, std::function<void()> wake);
  ~sleep_socket();
  sleep_socket(const sleep_socket &) = delete;
  sleep_socket &operator=(const sleep_socket &) = delete;

private:
  struct callbacks;

  const std::string path_;
  const std::function<void()> sleep_;
  const std::function<void()> wake_;
  int listener_ = -1;
  unsigned source_ = 0;
};

// Sends "sleep" or "wake" to the bridge and waits for its answer, for two seconds. False when there
// is none.
bool tell_bridge(const std::string &path, const std::string &word);
