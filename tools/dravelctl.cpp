// dravelctl: the command line of dravel-manager.
#include "command_line.h"
#include "remote.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <string_view>
#include <unistd.h>

static double timeout_of(const std::string &text) {
  char *end = nullptr;
  const double seconds = std::strtod(text.c_str(), &end);
  if (text.empty() || *end != '\0' || !(seconds >= 0.001 && seconds <= 3600))
    throw usage("--timeout=" + text + " is no time to wait", "give seconds, from 0.001 to 3600",
                "--timeout");
  return seconds;
}

// A closed standard descriptor would be taken by the bus, and get what is printed.
static void occupy_descriptors() {
  for (const int descriptor : {0, 1, 2})
    if (fcntl(descriptor, F_GETFD) == -1)
      open("/dev/null", descriptor == 0 ? O_WRONLY : O_RDONLY); // its use fails as before
}

// A line that is not understood may still ask for JSON.
static bool asks_for_json(int argc, char **argv) {
  return std::any_of(argv + 1, argv + argc,
                     [](std::string_view word) { return word == "--json" || word == "-j"; });
}

// Into a file or a pipe all is written when it is flushed, which tells why it fails.
static void buffer_output() {
  static char buffer[1 << 20];
  if (isatty(STDOUT_FILENO) == 0)
    std::setvbuf(stdout, buffer, _IOFBF, sizeof buffer);
}

int main(int argc, char **argv) {
  std::signal(SIGPIPE, SIG_IGN); // a write then fails, which is reported
  occupy_descriptors();
  buffer_output();
  std::string what_is_done;
  try {
    std::vector<std::string> words(argv + 1, argv + argc);
    if (const auto host = take_host(words))
      return run_remotely(*host, words);
    command_line line(words);
    if (const command_function run = line.parse(argc, argv)) {
      client client(timeout_of(line.given().timeout));
      run(client, line.given());
      what_is_done = "the command is carried out, but dravelctl ";
    }
    if (const int error = flush_output(); error != 0 && error != EPIPE)
      throw failure{what_is_done + unwritten(error).what, ""};
  } catch (const failure &failure) {
    print_failure(asks_for_json(argc, argv), failure);
    return failure.status();
  } catch (const std::exception &error) {
    print_failure(asks_for_json(argc, argv), {error.what(), ""});
    return 1;
  }
  return 0;
}
