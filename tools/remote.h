// -H USER@HOST: the same command on another machine, through ssh.
#pragma once

#include <optional>
#include <string>
#include <vector>

// The host, when -H or --host comes first; both are taken from the words.
std::optional<std::string> take_host(std::vector<std::string> &words);

// Runs the other words there and returns their exit status. Throws a failure when the
// machine is not reached.
int run_remotely(const std::string &host, std::vector<std::string> words);
