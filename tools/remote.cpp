#include "remote.h"

#include "client.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

static constexpr int kSshFailed = 255;

// The files that these commands read are this machine's: they are sent on standard input.
static void send_file(std::vector<std::string> &words) {
  const auto command = std::ranges::find_if(
      words, [](const std::string &word) { return word == "import" || word == "apply"; });
  if (command == words.end())
    return;
  const auto file = std::find_if(command + 1, words.end(),
                                 [](const std::string &word) { return !word.starts_with('-'); });
  if (file == words.end())
    return;
  const int descriptor = open(file->c_str(), O_RDONLY | O_CLOEXEC);
  if (descriptor < 0 || dup2(descriptor, STDIN_FILENO) < 0)
    throw failure{"cannot read " + *file + ": " + std::strerror(errno), ""};
  *file = "-";
}

static std::string quoted(const std::string &word) {
  g_autofree char *text = g_shell_quote(word.c_str());
  return text;
}

int run_remotely(const std::string &host, std::vector<std::string> words) {
  if (host.empty() || host.starts_with('-'))
    throw usage("-H needs USER@HOST", "write it as in dravelctl -H root@lobby list", "-H");
  send_file(words);
  std::string line = "dravelctl";
  for (const auto &word : words)
    line += " " + quoted(word);
  std::string arguments[] = {"ssh", "--", host, line};
  char *argv[] = {arguments[0].data(), arguments[1].data(), arguments[2].data(),
                  arguments[3].data(), nullptr};
  pid_t child = 0;
  int status = 0;
  if (const int error = posix_spawnp(&child, "ssh", nullptr, nullptr, argv, environ); error != 0)
    throw failure{"cannot run ssh: " + std::string(std::strerror(error)), "", fault::kNotRunning};
  waitpid(child, &status, 0);
  if (!WIFEXITED(status) || WEXITSTATUS(status) == kSshFailed)
    throw failure{"cannot reach " + host, "", fault::kNotRunning};
  return WEXITSTATUS(status);
}
