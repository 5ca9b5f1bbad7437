// -H USER@HOST: the same command on another machine, through ssh.
#pragma once

#include <string>
#include <vector>

// Runs the words that follow -H there and returns their exit status. Throws a failure when the
// machine is not reached.
int run_remotely(const std::string &host, std::vector<std::string> words);
