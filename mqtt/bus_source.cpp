#include "bus_source.h"

#include "client.h"

#include <cstring>

struct bus_source::source {
  GSource base;
  sd_event *events;

  static sd_event *events_of(GSource *self) { return reinterpret_cast<source *>(self)->events; }

  // The loop prepares it again without a check when another source goes first.
  static gboolean prepare(GSource *self, int *timeout) {
    *timeout = -1;
    sd_event *events = events_of(self);
    if (sd_event_get_state(events) == SD_EVENT_ARMED)
      sd_event_wait(events, 0);
    if (sd_event_get_state(events) == SD_EVENT_INITIAL)
      sd_event_prepare(events);
    return is_pending(events);
  }

  static gboolean check(GSource *self) {
    sd_event *events = events_of(self);
    if (sd_event_get_state(events) == SD_EVENT_ARMED)
      sd_event_wait(events, 0);
    return is_pending(events);
  }

  static gboolean is_pending(sd_event *events) {
    return sd_event_get_state(events) == SD_EVENT_PENDING ? TRUE : FALSE;
  }

  static gboolean dispatch(GSource *self, GSourceFunc, void *) {
    sd_event_dispatch(events_of(self));
    return G_SOURCE_CONTINUE;
  }
};

bus_source::bus_source(sd_bus *bus) : bus_(bus) {
  static GSourceFuncs functions{source::prepare, source::check, source::dispatch,
                                nullptr,         nullptr,       nullptr};
  int result = sd_event_new(&events_);
  if (result >= 0)
    result = sd_bus_attach_event(bus_, events_, SD_EVENT_PRIORITY_NORMAL);
  if (result < 0) {
    sd_event_unref(events_);
    throw failure{std::string("no loop of events: ") + std::strerror(-result), ""};
  }
  source_ = g_source_new(&functions, sizeof(source));
  reinterpret_cast<source *>(source_)->events = events_;
  g_source_add_unix_fd(source_, sd_event_get_fd(events_), G_IO_IN);
  g_source_attach(source_, nullptr);
}

bus_source::~bus_source() {
  g_source_destroy(source_);
  g_source_unref(source_);
  sd_bus_detach_event(bus_);
  sd_event_unref(events_);
}
