// The timers of one owner, ordered by deadline on the host's clock, behind one timer of the kernel. Loop's thread.
//
// The kernel's timer is finer than those of libevent. It is set only for a deadline before the one that it is already set for: a
// timer that is postponed again and again costs a needless wake-up now and then, not a system call each time.
#pragma once

#include <event2/event.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <unordered_map>

#include "host/base/clock.h"

namespace host {

struct EventDeleter {
  void operator()(event *e) const { event_free(e); }
};
using EventPtr = std::unique_ptr<event, EventDeleter>;

class TimerQueue {
 public:
  using Id = std::uint64_t;  // never 0, never reused in the process

  // Throws std::bad_alloc, also when the process has no file descriptor left.
  explicit TimerQueue(event_base *base);
  ~TimerQueue();
  TimerQueue(const TimerQueue &) = delete;
  TimerQueue &operator=(const TimerQueue &) = delete;

  // An id for the next arm(), so that the callback can know its own.
  static Id next_id();

  // Calls `fire` once, not before `deadline` and in a later turn of the loop. May throw std::bad_alloc; nothing is armed then.
  void arm(Id id, clock::Time deadline, std::function<void()> fire);
  bool cancel(Id id);
  // Makes an armed timer due now. While a test has stopped the clock, the timer keeps its deadline.
  void hasten(Id id);
  bool armed(Id id) const { return deadlines_.contains(id); }
  void clear();

  // Reads the clock again after it was stopped, warped or resumed.
  void reschedule();

 private:
  void wake_at(clock::Time at);
  void woken();
  void run_due();

  std::map<std::pair<clock::Time, Id>, std::function<void()>> due_;
  std::unordered_map<Id, clock::Time> deadlines_;
  const int fd_;                              // timerfd
  clock::Time set_for_ = clock::Time::max();  // CLOCK_MONOTONIC; max: not set
  EventPtr wakeup_, next_turn_;
};

namespace detail {

// The queue of the host's own timers; null without a runtime.
TimerQueue *host_timers();

}  // namespace detail
}  // namespace host
