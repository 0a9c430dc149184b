#include "host/base/loop_runner.h"

#include <event2/event.h>

#include <thread>
#include <utility>

namespace host {
namespace {

using namespace std::chrono_literals;

constexpr auto kPollFor = 60us;     // about as long as it takes to sleep and to be woken
constexpr auto kShortWait = 150us;  // including the wake-up
constexpr auto kShortTurn = 40us;
constexpr int kEnoughShortWaits = 3;

// A single processor is needed by the thread that would hand something over.
bool may_stay_awake() {
  static const bool may = std::thread::hardware_concurrency() > 1;
  return may;
}

}  // namespace

void LoopRunner::heard() {
  heard_ = true;
  if (std::exchange(asleep_, false)) short_waits_ = Clock::now() - since_ < kShortWait ? short_waits_ + 1 : 0;
}

bool LoopRunner::turn(event_base *base, int flags) {
  failed_ = event_base_loop(base, EVLOOP_ONCE | EVLOOP_NO_EXIT_ON_EMPTY | flags) < 0;
  return !failed_ && !event_base_got_break(base);
}

bool LoopRunner::run(event_base *base) {
  for (bool goes_on = true; goes_on;) {
    asleep_ = true;
    since_ = Clock::now();
    goes_on = turn(base, 0);
    if (goes_on && short_waits_ >= kEnoughShortWaits && may_stay_awake()) goes_on = stay_awake(base);
  }
  return !failed_;
}

// False when the loop has ended.
bool LoopRunner::stay_awake(event_base *base) {
  asleep_ = heard_ = false;
  auto now = Clock::now(), quiet_since = now;
  while (turn(base, EVLOOP_NONBLOCK)) {
    const auto before = std::exchange(now, Clock::now());
    if (std::exchange(heard_, false)) quiet_since = now;
    if (now - before > kShortTurn || now - quiet_since > kPollFor) return short_waits_ = 0, true;
    std::this_thread::yield();  // in favour of threads that have something to hand over
  }
  return false;
}

}  // namespace host
