// What the source files of the stand-in share; no other file includes it.
#pragma once

#include "standin.h"

#include <span>
#include <string_view>

// --- standin.cpp ---

// True when the set was told to refuse `operation`, named as in the headers.
bool standin_refuses(std::string_view operation);

// The refused operations, comma-separated. Setting them is false, and changes
// nothing, when the set has no operation of one of these names.
std::string standin_refused_list();
bool standin_set_refused_list(std::string_view list);

// Keeps a request and sends it as the signal "Requested".
void standin_note(const char *operation, std::uint32_t first = 0, std::uint32_t second = 0);

// --- standin_clock.cpp ---

void standin_reset_clocks();
bool standin_clocks_running();
std::string standin_time_zone();

// --- standin_property.cpp ---

// A property's value: `text` for the type 's', `number` for 'u', 'i' and 'b'.
struct standin_value {
  std::int64_t number = 0;
  std::string text;
};

struct standin_property {
  const char *name;
  char type;     // as in a D-Bus signature
  bool writable; // over the bus; the key file gives every value
  standin_value (*get)();
  bool (*set)(const standin_value &value); // false: not a value of this property
};

std::span<const standin_property> standin_properties();

// --- standin_bus.cpp ---

// Puts the set's object on the daemon's own connection, when there is one.
void standin_export();
void standin_send_requested(const standin_request &request);
