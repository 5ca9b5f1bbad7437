// The one thing that waits at the broker: a retained message to `apply`, with the timers and
// holidays that the machine shall have. It comes from the machine's own topic or, when there is
// none, from that of its first group that has one. Each content of a topic is carried out once, so
// that people may change timers until the next one; one that is withdrawn changes nothing.
#pragma once

#include "client.h"
#include "command.h"
#include "commands.h"

#include <map>
#include <memory>
#include <string>

class plans {
public:
  plans(const configuration &configuration, std::string file); // keeps what was applied

  void forget() { found_.clear(); }  // before the retained messages come again
  void note(const message &message); // an empty one withdraws

  // The one in force. Null when there is none, or when it was applied already, unless `again`.
  const message *due(bool again) const;

  // Applies it, step by step: at its end `applied` tells of it. Throws a failure when the daemon
  // cannot be reached: then it is due still, and what was done counts when it is begun again.
  void begin(const message &plan);
  applying::progress go_on(client &client);
  const message &begun() const { return begun_; }         // the last one
  bool is_done() const;                                   // it is, and nothing of it was refused
  const std::string &applied() const { return applied_; } // empty: never

private:
  std::vector<std::string> topics() const;
  const message *in_force() const;
  std::string source_of(const std::string &topic) const;
  void refuse(const std::string &why);
  void keep();

  const configuration &configuration_;
  std::string file_;
  std::map<std::string, message> found_; // by topic
  std::string applied_;
  json carried_out_ = json::object(); // by source, the sha256 of its last one
  message begun_;
  application account_; // of it
  bool is_ended_ = true;
  std::unique_ptr<applying> steps_;
};
