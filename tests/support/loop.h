// The main loop, the system clock, the bus binding and the log, all in the test's hand. Main-loop
// timers fire only where a test says so; one that is deleted after it has ended is a failure. Each
// is an allocation of its own, so that the sanitizers see what becomes of it.
#pragma once

#include <E_DBus.h>
#include <Ecore.h>

#include <ctime>
#include <memory>
#include <string>
#include <vector>

struct loop_timer {
  double seconds;
  Ecore_Task_Cb callback;
  void *data;
  bool frozen = false;
  bool running = false;
  std::string made_while =
      {}; // the daemon's flags and the finish marker, as "trusted 1 awake 1 finish"
};

const std::vector<std::unique_ptr<loop_timer>> &live_timers();
const loop_timer *find_timer(const void *handle);  // null when it has ended
std::vector<double> waits(Ecore_Task_Cb callback); // the seconds left to such timers, in order
int pending(Ecore_Task_Cb callback);               // how many there are
void pass(double seconds);                         // without any of them firing
bool fire(const loop_timer &timer);                // true when it goes on
bool fire(Ecore_Task_Cb callback);                 // the first of them
void forget_timers();                              // ends all of them
void run_idle_steps(double later = 1);             // so much later, in seconds

void set_system_clock(std::time_t now); // 0: the machine's own

// The methods that the daemon exports, and the signals that it has sent, as "dravel_expired 1".
struct bound_method {
  std::string name;
  std::string signature;
  std::string reply_signature;
  E_DBus_Method_Cb handler;
};
const std::vector<bound_method> &bound_methods();
// What the state object has sent at the end of this pass, as "Added 1, Removed 2 fired, Armed".
std::string state_changes();

// The log since the last call, as "init_dravel > text", a line for each entry.
std::string logged();
// Their priorities, a letter for each: Debug, Info, Error, Progress.
std::string logged_levels();
// What was kept as an event since the last call, as "fired 1, removed 1 fired".
std::string logged_events();
std::string last_logged_text(); // of such an event
