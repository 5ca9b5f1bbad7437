// A connection to the bus, run from GLib's main loop.
#pragma once

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <glib.h>

class bus_source {
public:
  explicit bus_source(sd_bus *bus); // which outlives it
  ~bus_source();
  bus_source(const bus_source &) = delete;
  bus_source &operator=(const bus_source &) = delete;

private:
  struct source;

  sd_bus *bus_;
  sd_event *events_ = nullptr;
  GSource *source_ = nullptr;
};
