#include "sleep.h"

#include "budget.h"
#include "journal.h"

#include <glib-unix.h>

#include <cerrno>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

static constexpr timeval kPatience{.tv_sec = kPatienceSeconds, .tv_usec = 0};

static int open_socket() {
  const int descriptor = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  setsockopt(descriptor, SOL_SOCKET, SO_RCVTIMEO, &kPatience, sizeof kPatience);
  return descriptor;
}

static sockaddr_un address_of(const std::string &path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  return address;
}

struct sleep_socket::callbacks {
  static gboolean called(int listener, GIOCondition, void *data) {
    const auto &self = *static_cast<sleep_socket *>(data);
    const int caller = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (caller < 0)
      return G_SOURCE_CONTINUE;
    setsockopt(caller, SOL_SOCKET, SO_RCVTIMEO, &kPatience, sizeof kPatience);
    char word[16] = {};
    const bool is_read = recv(caller, word, sizeof word - 1, 0) > 0;
    if (is_read && std::string(word) == "sleep")
      self.sleep_();
    else if (is_read && std::string(word) == "wake")
      self.wake_();
    send(caller, "done", 4, MSG_NOSIGNAL);
    close(caller);
    return G_SOURCE_CONTINUE;
  }
};

sleep_socket::sleep_socket(std::string path, std::function<void()> sleep,
                           std::function<void()> wake)
    : path_(std::move(path)), sleep_(std::move(sleep)), wake_(std::move(wake)),
      listener_(open_socket()) {
  const sockaddr_un address = address_of(path_);
  unlink(path_.c_str());
  if (bind(listener_, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 ||
      listen(listener_, 4) != 0)
    log_problem("the machine's sleep will not be announced: " + path_ + ": " + g_strerror(errno));
  else
    source_ = g_unix_fd_add(listener_, G_IO_IN, callbacks::called, this);
}

sleep_socket::~sleep_socket() {
  if (source_ != 0)
    g_source_remove(source_);
  close(listener_);
  unlink(path_.c_str());
}

bool tell_bridge(const std::string &path, const std::string &word) {
  const int bridge = open_socket();
  const sockaddr_un address = address_of(path);
  char answer[16];
  const bool is_done =
      connect(bridge, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0 &&
      send(bridge, word.data(), word.size(), MSG_NOSIGNAL) > 0 &&
      recv(bridge, answer, sizeof answer, 0) > 0;
  close(bridge);
  return is_done;
}
