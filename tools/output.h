// What dravelctl prints. Colours go to a terminal only, and to none when NO_COLOR is set.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

#include "client.h"

// A line of column titles, then the rows; columns are as wide as their widest cell.
void print_table(const std::vector<std::string> &titles,
                 const std::vector<std::vector<std::string>> &rows);

void print_timers(const std::vector<timer_record> &timers, const clocks &now,
                  const std::vector<holiday> &holidays);
void print_timer(const timer_record &timer, const clocks &now,
                 const std::vector<holiday> &holidays);
void print_holidays(const std::vector<holiday> &holidays);
void print_failure(const failure &failure);

// The same as JSON.
std::string json_of(const timer_record &timer, const clocks &now,
                    const std::vector<holiday> &holidays);
std::string json_of(const holiday &holiday);
std::string json_list(const std::vector<std::string> &elements);
