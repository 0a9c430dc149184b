#include "host/base/timer_queue.h"

#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <new>
#include <utility>

#include "host/base/loop.h"
#include "host/base/timer.h"

namespace host {

// Edge-triggered: an expiry need not be read, because the timer is set again before the next one.
TimerQueue::TimerQueue(event_base *base)
    : fd_(timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC)),
      wakeup_(event_new(
          base, fd_, EV_READ | EV_PERSIST | EV_ET,
          [](evutil_socket_t, short, void *self) { static_cast<TimerQueue *>(self)->woken(); }, this)),
      next_turn_(evtimer_new(
          base, [](evutil_socket_t, short, void *self) { static_cast<TimerQueue *>(self)->run_due(); }, this)) {
  if (fd_ >= 0 && wakeup_ && next_turn_ && event_add(wakeup_.get(), nullptr) == 0) return;
  if (fd_ >= 0) ::close(fd_);
  throw std::bad_alloc();
}

TimerQueue::~TimerQueue() {
  wakeup_.reset();
  ::close(fd_);
}

TimerQueue::Id TimerQueue::next_id() {
  static std::atomic<Id> last{0};
  return last.fetch_add(1, std::memory_order_relaxed) + 1;
}

void TimerQueue::arm(Id id, clock::Time deadline, std::function<void()> fire) {
  deadlines_.emplace(id, deadline);
  try {
    due_.emplace(std::pair(deadline, id), std::move(fire));
  } catch (...) {
    deadlines_.erase(id);
    throw;
  }
  if (due_.begin()->first.second == id) reschedule();
}

bool TimerQueue::cancel(Id id) {
  const auto it = deadlines_.find(id);
  if (it == deadlines_.end()) return false;
  due_.erase({it->second, id});
  deadlines_.erase(it);
  return true;  // a needless wake-up is cheaper than setting the kernel's timer
}

void TimerQueue::hasten(Id id) {
  const auto it = deadlines_.find(id);
  const clock::Time at = clock::now();
  if (it == deadlines_.end() || clock::stopped() || it->second <= at) return;
  auto node = due_.extract({it->second, id});
  node.key().first = it->second = at;
  due_.insert(std::move(node));
  reschedule();
}

void TimerQueue::clear() {
  due_.clear();
  deadlines_.clear();
  reschedule();
}

void TimerQueue::reschedule() {
  const clock::Time at = clock::now();
  if (due_.empty() || (clock::stopped() && due_.begin()->first.first > at)) {
    evtimer_del(next_turn_.get());
    return;
  }
  const clock::Time left = due_.begin()->first.first - at;
  if (left > clock::Time::zero()) return wake_at(std::chrono::steady_clock::now().time_since_epoch() + left);
  const timeval now{};
  evtimer_add(next_turn_.get(), &now);
}

void TimerQueue::wake_at(clock::Time at) {
  if (set_for_ <= at) return;
  set_for_ = at;
  const auto whole = std::chrono::floor<std::chrono::seconds>(at);
  const itimerspec expiry{.it_interval = {}, .it_value = {.tv_sec = whole.count(), .tv_nsec = (at - whole).count()}};
  timerfd_settime(fd_, TFD_TIMER_ABSTIME, &expiry, nullptr);
}

void TimerQueue::woken() {
  set_for_ = clock::Time::max();
  run_due();
}

// A timer that a callback re-arms waits for the next turn, however short its delay: its deadline is not before `at`, and its id
// is newer.
void TimerQueue::run_due() {
  const clock::Time at = clock::now();
  const Id newer = next_id();
  while (!due_.empty()) {
    const auto [deadline, id] = due_.begin()->first;
    if (deadline > at || id > newer) break;
    const auto node = due_.extract(due_.begin());
    deadlines_.erase(id);
    node.mapped()();
  }
  reschedule();
}

bool Timer::arm(clock::Time delay) {
  assert_loop_thread();
  cancel();
  TimerQueue *timers = detail::host_timers();
  if (!timers) return false;
  id_ = TimerQueue::next_id();
  timers->arm(id_, clock::now() + delay, [this] {
    const auto fire = fire_;  // outlives a timer that its own callback destroys
    fire();
  });
  return true;
}

void Timer::cancel() {
  if (TimerQueue *timers = detail::host_timers(); timers && id_ != 0) timers->cancel(id_);
}

bool Timer::armed() const {
  const TimerQueue *timers = detail::host_timers();
  return timers && timers->armed(id_);
}

}  // namespace host
