// The one thing that waits at the broker: a retained message to `apply`, with the timers and
// holidays that the machine shall have. It comes from the machine's own topic or, when there is
// none, from that of its first group that has one. Each content is carried out once, so that people
// may change timers until the next one.
#pragma once

#include "client.h"
#include "command.h"

#include <map>
#include <optional>
#include <string>

class plans {
public:
  plans(const configuration &configuration, std::string file); // keeps what was applied last

  void forget() { found_.clear(); }  // before the retained messages come again
  void note(const message &message); // an empty one withdraws

  // The one in force. Null when there is none, or when it was applied already, unless `again`.
  const message *due(bool again) const;

  // Applies it and gives the document that says so. Throws a failure when the daemon cannot be
  // reached: then it is due still.
  const std::string &carry_out(client &client, const message &plan);
  bool is_done() const; // the last one, and nothing of it was refused
  const std::string &applied() const { return applied_; } // empty: never

private:
  const message *in_force() const;
  void keep(const message &plan, const json &about);

  const configuration &configuration_;
  std::string file_;
  std::map<std::string, message> found_; // by topic
  std::string applied_;
};
