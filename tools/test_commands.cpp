// test screen, test wake: do the television and the alarm of this machine what timers need?
#include "commands.h"

#include <algorithm>
#include <csignal>
#include <thread>

using namespace std::chrono;

static constexpr milliseconds kPoll{250};
static constexpr seconds kTelevisionWait{15}; // a television takes as long to turn on
static constexpr int kResumeSeconds = 120;    // a machine may be slow to sleep and to wake
static constexpr int kLeastSleep = 20;        // for a clock of seconds, and programs that delay it
static constexpr seconds kLate{65};           // a clock may count minutes only

static void tell(const options &given, const std::string &text) {
  if (given.json)
    return;
  std::puts(text.c_str());
  std::fflush(stdout);
}

static machine_state machine_of(client &client) {
  const auto machine = client.machine();
  if (!machine)
    throw no_machine();
  return *machine;
}

static int number_of(const std::string &text, const char *option, int least, int most) {
  const auto number = parse_int(text);
  if (!number || *number < least || *number > most)
    throw usage(std::string(option) + "=" + text + " is no such number of seconds",
                "give one from " + std::to_string(least) + " to " + std::to_string(most), option);
  return *number;
}

// --- the screen ---

// A daemon that restarts, or is slow, may order it a moment later.
static void turn_on_again(client &client) {
  const auto end = steady_clock::now() + kTelevisionWait;
  while (true) {
    try {
      return client.turn_screen(true);
    } catch (const failure &failed) {
      if (failed.kind == fault::kNotAllowed || steady_clock::now() >= end)
        throw;
    }
    std::this_thread::sleep_for(seconds(1));
  }
}

// What the screen is believed to be: at `wanted`, or when the time is over.
static std::string wait_for_screen(client &client, const char *wanted, milliseconds longest) {
  const auto end = steady_clock::now() + longest;
  while (true) {
    std::string is = machine_of(client).screen;
    const auto left = duration_cast<milliseconds>(end - steady_clock::now());
    if (is == wanted || left <= 0ms)
      return is;
    std::this_thread::sleep_for(std::min(kPoll, left));
  }
}

// What the screen was believed to be while it was off. It is told to turn on in any case.
static std::string turn_off_and_on(client &client, const options &given, seconds pause) {
  for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGPIPE}) // the screen is not left dark
    std::signal(signal, SIG_IGN);
  const auto sent_back = steady_clock::now() + pause;
  std::string off;
  std::optional<failure> lost;
  try {
    client.turn_screen(false);
    tell(given, "The screen is told to turn off, and on again after " +
                    plural(static_cast<std::size_t>(pause.count()), "second") + ".");
    off = wait_for_screen(client, "off", pause);
    std::this_thread::sleep_until(sent_back);
  } catch (const failure &failed) {
    lost = failed;
  }
  turn_on_again(client);
  if (lost)
    throw failure(*lost);
  return off;
}

void test_screen(client &client, const options &given) {
  const seconds pause(number_of(given.seconds.value_or("5"), "--seconds", 0, 60));
  const std::string by = machine_of(client).screen_by;
  const bool has_television = by != "targets";
  const std::string off = turn_off_and_on(client, given, pause);
  const std::string on = wait_for_screen(client, "on", kTelevisionWait);
  const bool is_good = off != "on" && on == "on"; // many are silent once they are off
  say(given.json, {{"screen_by", by}, {"off", off}, {"on", on}, {"good", is_good}},
      has_television
          ? "The television said: " + (off == "unknown" ? "nothing" : off) + ", then " + on + "."
          : "No television answers: look whether the screen was dark. "
            "Units of dravel-off.target and dravel-on.target turn it.");
  if (!is_good)
    throw failure{given.json ? "" : "the television did not follow",
                  "dravelctl check says more; some televisions need a moment, try it again"};
}

// --- sleep and alarm ---

void test_wake(client &client, const options &given) {
  const int asked = number_of(given.seconds.value_or("60"), "--seconds", kLeastSleep, 3600);
  machine_of(client);
  const civil_time due = machine_time() + seconds(asked);
  tell(given, "Asking the machine to sleep until " + time_text(civil_of(due)) + ".");
  slept test{};
  try {
    test = client.test_wake(static_cast<std::uint32_t>(asked), kResumeSeconds);
  } catch (const failure &refused) {
    if (refused.kind != fault::kRefused)
      throw;
    throw failure{"the machine did not sleep: " + refused.what, "dravelctl check says more"};
  }
  const seconds late = machine_of(client).last_wake - due;
  const bool is_good = test.cause == "test" && late <= kLate;
  const std::string text = "The machine slept for " + plural(test.seconds, "second") +
                           " and was woken " + cause_text(test.cause) + ", " +
                           (late > 0s ? span_text(late) + " late." : "in time.");
  say(given.json,
      {{"asked", asked},
       {"slept", test.seconds},
       {"cause", test.cause},
       {"late", late.count()},
       {"good", is_good}},
      text);
  if (!is_good)
    throw failure{given.json ? "" : "the alarm did not wake the machine in time",
                  "dravelctl check says more"};
}

void test_machine(client &, const options &) {
  throw usage("test needs screen or wake", "dravelctl help test says what they do");
}
