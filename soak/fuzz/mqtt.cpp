// What comes from a broker: any bytes as a command. What is refused is refused in words, every
// answer is JSON, and a line for the journal is one.
#include "command.h"
#include "commands.h"
#include "journal.h"

#include <gtest/gtest.h>

#include <algorithm>

static void check_answer(const std::string &text) {
  const json answer = json::parse(text);
  EXPECT_TRUE(answer["done"].is_boolean() && answer["command"] == "add");
}

static void read_body(const json &body) {
  std::vector<std::string> notes;
  if (body.contains("timer"))
    EXPECT_LE(read_timer(body["timer"], "timer", notes).type, TIMER_TYPE_ONTIMER_MAX);
  if (body.contains("timers") || body.contains("holidays"))
    read_import(body, "the message", true);
}

extern "C" int LLVMFuzzerTestOneInput(const char *data, std::size_t size) {
  GTEST_FLAG_SET(throw_on_failure, true);
  const std::string text(data, size);
  const message message{.topic = "dravel/m/set/add", .payload = text, .correlation = text};
  const command command = command_of(message);
  EXPECT_TRUE(command.id.size() <= 64);
  check_answer(done(command));
  const std::string line = printable(text);
  EXPECT_TRUE(std::ranges::none_of(line, [](unsigned char c) { return c < ' '; }));
  try {
    read_body(body_of(message, {"timer", "timers", "holidays", "types"}));
  } catch (const failure &refused) {
    check_answer(not_done(command, refused));
  } catch (const json::exception &refused) {
    check_answer(not_done(command, {refused.what(), ""}));
  }
  return 0;
}
