#include "command.h"

#include "commands.h"

#include <glib.h>

#include <algorithm>

static constexpr int kDeepest = 16;
static constexpr std::size_t kLongestId = 64;

// A list in a list in a list takes more memory than its letters.
static json parsed(const std::string &text) {
  return json::parse(text, [](int depth, json::parse_event_t, json &) {
    if (depth > kDeepest)
      throw failure{"the message is nested too deeply", "", fault::kUsage};
    return true;
  });
}

static std::string usable(const std::string &id) {
  return id.size() <= kLongestId &&
                 g_utf8_validate(id.data(), static_cast<gssize>(id.size()), nullptr) != FALSE
             ? id
             : "";
}

static std::string id_of(const message &message) {
  try {
    const json body = parsed(message.payload);
    if (body.is_object() && body.contains("id") && body["id"].is_string())
      return usable(body["id"]);
  } catch (const std::exception &) { // body_of tells it
  } catch (const failure &) {
  }
  return usable(message.correlation);
}

std::string name_of(const message &message) {
  return message.topic.substr(message.topic.rfind('/') + 1);
}

command command_of(const message &message) {
  const std::string id = id_of(message);
  return {.name = name_of(message), .key = message.topic + " " + id, .id = id};
}

json object_of(const message &message) {
  json body;
  try {
    body = parsed(message.payload);
  } catch (const json::exception &error) {
    throw failure{"the message is no JSON: " + reason_of(error), "", fault::kUsage};
  }
  if (!body.is_object())
    throw failure{"the message is no JSON object", "", fault::kUsage};
  return body;
}

json body_of(const message &message, std::initializer_list<const char *> known) {
  json body = object_of(message);
  for (const auto &[name, value] : body.items())
    if (name != "id" && std::ranges::find(known, name) == known.end())
      throw failure{"this command has no member " + name, "", fault::kUsage};
  return body;
}

static json answer_to(const command &command, bool is_done) {
  json answer = json::object();
  if (!command.id.empty())
    answer["id"] = command.id;
  answer["command"] = command.name;
  answer["done"] = is_done;
  return answer;
}

std::string done(const command &command, const json &about) {
  json answer = answer_to(command, true);
  answer.update(about);
  return text_of(answer);
}

std::string not_done(const command &command, const failure &failure, const char *kind) {
  json answer = answer_to(command, false);
  json error = json_of(failure)["error"];
  if (kind != nullptr)
    error["kind"] = kind;
  error.erase("advice"); // for a person at a shell
  answer["error"] = error;
  return text_of(answer);
}

std::string busy_answer(const message &message) {
  const bool is_plan = name_of(message) == kApply && message.retained;
  return message.topic.find("/set/") != std::string::npos && !is_plan
             ? not_done(command_of(message), {"100 commands wait already", ""}, "busy")
             : "";
}
