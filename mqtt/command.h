// What a message asks for, and what it is answered.
#pragma once

#include "broker.h"
#include "output.h"

#include <string>

inline constexpr const char *kApply = "apply";

struct command {
  std::string name; // the last level of the topic
  std::string key;  // topic and id: of one command
  std::string id;   // empty for none
};

std::string name_of(const message &message); // of the command

// Nothing is checked but the id: one that is too long, or no text, counts as none.
command command_of(const message &message);

// The object in the message. Throws a failure.
json object_of(const message &message);
// The same, which has no other members than `known`.
json body_of(const message &message, std::initializer_list<const char *> known);

// For one too many; empty for a plan and for what is no command.
std::string busy_answer(const message &message);

std::string done(const command &command, const json &about = json::object());
std::string not_done(const command &command, const failure &failure,
                     const char *kind = nullptr); // the failure's own unless it is given
