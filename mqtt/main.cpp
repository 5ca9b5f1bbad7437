// dravel-mqtt: the timers of this machine at an MQTT broker.
#include "bridge.h"
#include "journal.h"
#include "sleep.h"

#include <glib-unix.h>

#include <csignal>
#include <cstdlib>

static constexpr const char *kConfiguration = "/etc/dravel-mqtt.conf";
static constexpr int kForgetSeconds = 10;
static constexpr int kLost = 1;
static constexpr int kUnreached = 3;

namespace {

struct arguments {
  std::string configuration = kConfiguration;
  bool forget = false;
  bool version = false;
  std::string word; // for the bridge that runs: "sleep", "wake"
};

} // namespace

static std::string directory_of(const char *variable, const char *otherwise) {
  const char *given = std::getenv(variable);
  return given != nullptr ? given : otherwise;
}

static arguments arguments_of(int argc, char **argv) {
  g_autofree char *file = nullptr;
  gboolean forget = FALSE;
  gboolean version = FALSE;
  gboolean sleep = FALSE;
  gboolean wake = FALSE;
  const GOptionEntry entries[] = {
      {"config", 'c', 0, G_OPTION_ARG_FILENAME, &file, "Read FILE", "FILE"},
      {"forget", 0, 0, G_OPTION_ARG_NONE, &forget,
       "Empty all that this machine keeps at the broker, and end", nullptr},
      {"sleep", 0, 0, G_OPTION_ARG_NONE, &sleep, "Let the running bridge say that it sleeps",
       nullptr},
      {"wake", 0, 0, G_OPTION_ARG_NONE, &wake, "Let the running bridge connect again", nullptr},
      {"version", 'V', 0, G_OPTION_ARG_NONE, &version, "Print the version", nullptr},
      {}};
  g_autoptr(GError) error = nullptr;
  g_autoptr(GOptionContext) context = g_option_context_new("- timers of this machine over MQTT");
  g_option_context_add_main_entries(context, entries, nullptr);
  if (g_option_context_parse(context, &argc, &argv, &error) == FALSE || argc > 1)
    throw usage(error != nullptr ? error->message : std::string(argv[1]) + " is no option",
                "see dravel-mqtt --help");
  return {.configuration = file != nullptr ? file : kConfiguration,
          .forget = forget != FALSE,
          .version = version != FALSE,
          .word = sleep != FALSE  ? "sleep"
                  : wake != FALSE ? "wake"
                                  : ""};
}

static gboolean end_loop(void *loop) {
  g_main_loop_quit(static_cast<GMainLoop *>(loop));
  return G_SOURCE_CONTINUE;
}

// --- forget ---

static void forget(const configuration &settings, GMainLoop *loop) {
  bool is_done = false;
  broker *reached = nullptr;
  const auto empty_all = [&] {
    for (const char *topic : {"availability", "state", "timers", "week", "applied"})
      reached->publish({settings.own(topic), "", true});
    reached->publish({settings.discovery_topic(), "", true});
    reached->pause();
    is_done = true;
    g_main_loop_quit(loop);
  };
  broker broker(settings, {}, "", {settings.own("availability")},
                {.subscribed = empty_all,
                 .lost = [](const std::vector<publication> &) {},
                 .received = [](const message &) {},
                 .busy = [](const message &) { return std::string(); }});
  reached = &broker;
  broker.start();
  g_timeout_add_seconds(kForgetSeconds, end_loop, loop);
  g_main_loop_run(loop);
  if (!is_done) {
    log_problem("the broker was not reached within 10 seconds");
    std::_Exit(kUnreached); // an attempt to connect cannot be broken off
  }
  broker.wait_paused(kForgetSeconds * 1000);
  if (!broker.stop())
    std::_Exit(EXIT_SUCCESS);
}

// --- the bridge ---

struct serving {
  GMainLoop *loop;
  bool is_lost = false; // the bus
};

static int lose_bus(sd_bus_message *, void *data, sd_bus_error *) {
  auto &now = *static_cast<serving *>(data);
  log_problem("the system bus went away");
  now.is_lost = true;
  g_main_loop_quit(now.loop);
  return 0;
}

static int serve(bridge &bridge, GMainLoop *loop) {
  const sleep_socket socket(
      directory_of("RUNTIME_DIRECTORY", "/run/dravel-mqtt") + "/sleep", [&] { bridge.sleep(); },
      [&] { bridge.wake(); });
  serving now{.loop = loop};
  const bus_slot lost = bridge.hear_loss(lose_bus, &now);
  bridge.start();
  g_main_loop_run(loop);
  return now.is_lost ? kLost : 0;
}

static int run(const configuration &settings, GMainLoop *loop) {
  bridge bridge(settings, directory_of("STATE_DIRECTORY", "/var/lib/dravel-mqtt"));
  const int status = serve(bridge, loop);
  if (!bridge.stop())
    std::_Exit(status);
  return status;
}

int main(int argc, char **argv) {
  std::signal(SIGPIPE, SIG_IGN);
  try {
    const arguments given = arguments_of(argc, argv);
    if (given.version)
      return std::puts("dravel-mqtt " DRAVEL_VERSION) < 0 ? 1 : 0;
    if (!given.word.empty())
      return tell_bridge(directory_of("RUNTIME_DIRECTORY", "/run/dravel-mqtt") + "/sleep",
                         given.word)
                 ? 0
                 : 1;
    const configuration settings = read_configuration(given.configuration);
    g_autoptr(GMainLoop) loop = g_main_loop_new(nullptr, FALSE);
    g_unix_signal_add(SIGTERM, end_loop, loop);
    g_unix_signal_add(SIGINT, end_loop, loop);
    if (!given.forget)
      return run(settings, loop);
    forget(settings, loop);
  } catch (const failure &failure) {
    log_problem(failure.what + (failure.advice.empty() ? "" : "; " + failure.advice));
    return failure.status();
  } catch (const std::exception &error) {
    log_problem(error.what());
    return 1;
  }
  return 0;
}
