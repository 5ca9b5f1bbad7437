// What /etc/dravel-mqtt.conf says, and where things are at the broker.
#pragma once

#include <set>
#include <string>
#include <vector>

inline constexpr const char *kGroups = "group"; // the level above their names

struct broker_settings {
  std::string host = "localhost";
  int port = 0;
  std::string user;
  std::string password; // both secrets are systemd's credentials
  bool tls = false;
  std::string ca_file; // empty: the system's
  std::string certificate;
  std::string key_file;
  int spread_s = 30; // after a loss of the connection up to as many seconds are added, at random
};

struct configuration {
  broker_settings broker;
  std::string name; // [A-Za-z0-9_-]{1,64}, as the groups
  std::string prefix = "dravel";
  std::vector<std::string> groups; // the first one's apply counts before the next one's
  std::set<std::string> commands;
  bool enforce = false;
  int settle_ms = 2000; // after the last SUBACK: the retained messages have arrived
  bool home_assistant = true;
  std::string discovery_prefix = "homeassistant";
  std::string machine_id;

  std::string own(const std::string &topic) const { return prefix + "/" + name + "/" + topic; }
  std::string group(const std::string &of) const { return prefix + "/" + kGroups + "/" + of; }
  std::string discovery_topic() const {
    return discovery_prefix + "/device/dravel_" + name + "/config";
  }
  bool may(const std::string &command) const { return commands.contains(command); }
};

// Throws a failure that names the file and the key.
configuration read_configuration(const std::string &file);
