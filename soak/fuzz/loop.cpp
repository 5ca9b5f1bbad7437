#include "loop.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <utility>
#include <vector>

static std::vector<std::unique_ptr<loop_timer>> live_timers;
static std::time_t system_clock;
static Ecore_Task_Cb end_of_pass;

void breach(const char *what) {
  std::fprintf(stderr, "BREACH: %s\n", what);
  std::abort();
}

static auto find_live(const void *timer) {
  return std::ranges::find(live_timers, timer, [](const auto &live) { return live.get(); });
}

extern "C" {

std::time_t time(std::time_t *out) noexcept {
  return out == nullptr ? system_clock : *out = system_clock;
}

Ecore_Timer *ecore_timer_add(double seconds, Ecore_Task_Cb callback, const void *data) {
  if (!std::isfinite(seconds) || seconds < 0)
    breach("a main-loop timer for no time");
  live_timers.push_back(std::make_unique<loop_timer>(
      loop_timer{.seconds = seconds, .callback = callback, .data = const_cast<void *>(data)}));
  return reinterpret_cast<Ecore_Timer *>(live_timers.back().get());
}

void *ecore_timer_del(Ecore_Timer *timer) {
  const auto found = find_live(timer);
  if (found == live_timers.end())
    breach("a main-loop timer is deleted that has ended");
  void *data = (*found)->data;
  if ((*found)->running)
    (*found)->deleted = true;
  else
    live_timers.erase(found);
  return data;
}

void ecore_timer_freeze(Ecore_Timer *timer) {
  if (find_live(timer) == live_timers.end())
    breach("a main-loop timer is stopped that has ended");
}

Ecore_Idle_Enterer *ecore_idle_enterer_add(Ecore_Task_Cb callback, const void *) {
  end_of_pass = callback;
  return reinterpret_cast<Ecore_Idle_Enterer *>(&end_of_pass);
}
}

std::size_t live_timer_count() { return live_timers.size(); }

const loop_timer &live_timer(std::size_t index) { return *live_timers[index]; }

void fire_timer(std::size_t index) {
  loop_timer *timer = live_timers[index].get();
  timer->running = true;
  const bool again = timer->callback(timer->data) != ECORE_CALLBACK_CANCEL;
  timer->running = false;
  if (!again || timer->deleted)
    live_timers.erase(find_live(timer));
}

void end_pass() {
  if (const Ecore_Task_Cb callback = std::exchange(end_of_pass, nullptr))
    callback(nullptr);
}

void set_system_clock(std::time_t now) { system_clock = now; }
