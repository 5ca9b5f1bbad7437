// The bridge's lines in the journal. What comes from the broker is escaped and cut: it can neither
// end a line nor fill the disk.
#pragma once

#include <string>

std::string shown(const std::string &text); // at most 200 characters

void log_notice(const std::string &text);
void log_problem(const std::string &text);
