// Runs the loop of a thread that other threads hand work to, and keeps it awake while that work comes in quick succession.
//
// Putting a thread to sleep and waking it takes longer than most of the work here, so a controller that waits for each answer
// would wait mostly for wake-ups. After several short waits in succession the thread polls for some microseconds before it
// sleeps. It stops polling when nothing has come meanwhile, and when a turn was long: then sleeping lets work add up, which costs
// less.
#pragma once

#include <chrono>

struct event_base;

namespace host {

// One thread uses it.
class LoopRunner {
 public:
  // Runs the loop until it is broken. False when libevent failed.
  bool run(event_base *base);
  // Another thread has handed something over; called by the loop's handler of that.
  void heard();

 private:
  using Clock = std::chrono::steady_clock;

  bool turn(event_base *base, int flags);
  bool stay_awake(event_base *base);

  bool failed_ = false;
  bool heard_ = false;
  bool asleep_ = false;  // in a turn that may have slept
  int short_waits_ = 0;  // in succession
  Clock::time_point since_;
};

}  // namespace host
