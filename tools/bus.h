// What the clients of the daemon need of the bus library: messages and slots that release
// themselves, and properties by their names.
#pragma once

#include <systemd/sd-bus.h>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

struct bus_release {
  void operator()(sd_bus *bus) const { sd_bus_close_unref(bus); }
  void operator()(sd_bus_message *message) const { sd_bus_message_unref(message); }
  void operator()(sd_bus_slot *slot) const { sd_bus_slot_unref(slot); }
};

using bus_message = std::unique_ptr<sd_bus_message, bus_release>;
using bus_slot = std::unique_ptr<sd_bus_slot, bus_release>; // what it stands for ends with it

// One of an array of properties. Its value is read once at most, and only as what it is: reading
// another property, or another type, gives false and changes nothing.
class property {
public:
  property(sd_bus_message *message, std::string_view name) : message_(message), name_(name) {}

  template <typename... Places> bool read(const char *name, const char *type, Places *...places) {
    return is(name, type) && sd_bus_message_read(message_, "v", type, places...) >= 0;
  }
  bool read(const char *name, std::string &text);
  bool read(const char *name, std::vector<std::string> &texts);
  bool read(const char *name, std::vector<int> &numbers);
  bool read(const char *name, std::vector<std::pair<int, std::uint32_t>> &pairs);

  bool is_read() const { return is_read_; }

private:
  bool is(const char *name, std::string_view type);

  sd_bus_message *message_;
  std::string_view name_;
  bool is_read_ = false;
};

// Calls `take` with each property of the array that comes next in the message.
template <typename Take> void each_property(sd_bus_message *message, Take take) {
  sd_bus_message_enter_container(message, 'a', "{sv}");
  while (sd_bus_message_enter_container(message, 'e', "sv") > 0) {
    const char *name = "";
    sd_bus_message_read(message, "s", &name);
    property now(message, name);
    take(now);
    if (!now.is_read())
      sd_bus_message_skip(message, "v");
    sd_bus_message_exit_container(message);
  }
  sd_bus_message_exit_container(message);
}

std::vector<std::string> read_texts(sd_bus_message *message); // the array that comes next
