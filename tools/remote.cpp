#include "remote.h"

#include "client.h"

#include <glib.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

static constexpr int kSshFailed = 255;

// The word behind it is its value.
static bool is_timeout(const std::string &word) {
  return word == "--timeout" || (!word.starts_with("--") && word.ends_with('t'));
}

std::optional<std::string> take_host(std::vector<std::string> &words) {
  if (words.empty())
    return std::nullopt;
  const std::string first = words[0];
  const bool is_alone = first == "-H" || first == "--host";
  if (!is_alone && !first.starts_with("-H") && !first.starts_with("--host="))
    return std::nullopt;
  words.erase(words.begin());
  if (!is_alone)
    return first.substr(first.starts_with("-H") ? 2 : first.find('=') + 1);
  if (words.empty())
    return "";
  std::string host = words[0];
  words.erase(words.begin());
  return host;
}

// The files that these commands read are this machine's: they are sent on standard input.
static void send_file(std::vector<std::string> &words) {
  const auto command = std::ranges::find_if(
      words, [](const std::string &word) { return word == "import" || word == "apply"; });
  if (command == words.end())
    return;
  auto file = command + 1;
  for (; file != words.end() && file->starts_with('-'); ++file)
    if (is_timeout(*file) && file + 1 != words.end())
      ++file;
  if (file == words.end())
    return;
  const int descriptor = open(file->c_str(), O_RDONLY | O_CLOEXEC);
  if (descriptor < 0 || dup2(descriptor, STDIN_FILENO) < 0)
    throw failure{"cannot read " + *file + ": " + std::strerror(errno), ""};
  *file = "-";
}

// The question before all timers are cancelled is asked there, and needs a terminal there. The
// --all of `holidays add` asks nothing.
static bool asks(const std::vector<std::string> &words) {
  return std::ranges::find(words, "--all") != words.end() &&
         std::ranges::find(words, "holidays") == words.end();
}

static std::string quoted(const std::string &word) {
  g_autofree char *text = g_shell_quote(word.c_str());
  return text;
}

int run_remotely(const std::string &host, std::vector<std::string> words) {
  const std::string machine = host.substr(host.rfind('@') + 1); // all of it without a user
  if (machine.empty() || host.starts_with('-') || machine.starts_with('-'))
    throw usage("-H needs USER@HOST", "write it as in dravelctl -H root@lobby list", "-H");
  send_file(words);
  std::string line = "dravelctl";
  for (const auto &word : words)
    line += " " + quoted(word);
  std::vector<std::string> arguments{"ssh", "--", host, line};
  if (asks(words) && isatty(STDIN_FILENO) != 0 && isatty(STDERR_FILENO) != 0)
    arguments.insert(arguments.begin() + 1, "-t");
  std::vector<char *> argv(arguments.size() + 1);
  std::ranges::transform(arguments, argv.begin(), [](std::string &text) { return text.data(); });
  int status = 0;
  g_autoptr(GError) error = nullptr;
  constexpr auto kFlags = GSpawnFlags(G_SPAWN_SEARCH_PATH | G_SPAWN_CHILD_INHERITS_STDIN);
  if (g_spawn_sync(nullptr, argv.data(), nullptr, kFlags, nullptr, nullptr, nullptr, nullptr,
                   &status, &error) == FALSE)
    throw failure{std::string("cannot run ssh: ") + error->message, "", fault::kNotRunning};
  if (!WIFEXITED(status) || WEXITSTATUS(status) == kSshFailed)
    throw failure{"cannot reach " + host, "", fault::kNotRunning};
  return WEXITSTATUS(status);
}
