#include "host/of_ss/switch/pace.h"

#include <algorithm>
#include <utility>

#include "host/base/owner_timer.h"
#include "host/cgst/cgst.h"

namespace host::of_ss {
namespace {

// The most calls ahead of the loop. Each costs the daemon some microseconds, so this bounds the length of one drain and the wait
// of a quiet controller behind a busy one; several hundred keep both threads busy. Without the prompt timer there is a drain only
// every 50 ms, which must process more for the same rate.
constexpr std::uint64_t kCalls = 384, kCallsATick = 16384;
// The loop is notified after so many calls, also within a turn, so that it works on them while the agent reads on. More often,
// the threads would be in each other's way.
constexpr std::uint64_t kCallsANotice = 32;
// Calls beyond the bound for connections that have handed over little.
constexpr std::uint64_t kSpare = 1024;
// The most writes in flight to the database, and unanswered flows: enough for several round trips. Higher bounds gain nothing and
// make everybody wait longer.
constexpr std::uint64_t kWrites = 1024, kAnswers = 1536;
constexpr auto kLongestWait = std::chrono::seconds(1);
constexpr auto kLook = std::chrono::milliseconds(20);  // interval of checks for progress without answers

}  // namespace

Pace::Pace(bool prompt, std::function<void()> wake)
    : prompt_(prompt), bound_(prompt ? kCalls : kCallsATick), wake_(std::move(wake)) {}

// ---- openflow thread

bool Pace::open(std::uint64_t calls, bool spare) {
  if (calls - calls_.load(std::memory_order_relaxed) >= kCallsANotice) notify(calls);
  const std::uint64_t bound = spare ? bound_ + kSpare : bound_;
  if (calls - granted_.load(std::memory_order_acquire) < bound) return true;
  waits_ = true;  // before the second check, so that a later grant sees the waiter
  return calls - granted_ < bound;
}

void Pace::turn_ended(std::uint64_t calls, std::uint64_t newest) {
  newest_.store(newest, std::memory_order_relaxed);
  if (calls != calls_.load(std::memory_order_relaxed)) notify(calls);
}

void Pace::notify(std::uint64_t calls) {
  calls_.store(calls, std::memory_order_release);
  handed_to_owner(prompt_);
}

// ---- loop's thread

void Pace::drained() {
  if (held_ || drained_ == handed_over()) return;
  drained_ = handed_over();
  turn_.arm(clock::Time::zero());
}

bool Pace::writes_are_behind() const {
  return cgst::pipeline().writes >= kWrites;
}

bool Pace::answers_are_behind() const {
  return service_talks_ && newest_.load(std::memory_order_relaxed) > answered_ + kAnswers;
}

void Pace::turned() {
  const bool writes_behind = writes_are_behind();
  if (!writes_behind) writes_stand_ = false;
  if (!answers_are_behind() && (!writes_behind || writes_stand_)) return grant();
  const clock::Time now = clock::now();
  const std::uint64_t written = cgst::pipeline().total - cgst::pipeline().writes;
  if (std::exchange(written_, written) != written || !held_) heard_ = now;
  held_ = true;
  if (now - heard_ < kLongestWait) {
    turn_.arm(kLook);
    return;
  }
  service_talks_ = false;
  writes_stand_ = writes_behind;
  grant();
}

void Pace::grant() {
  held_ = false;
  granted_ = drained_;
  if (waits_.exchange(false)) wake_();
}

void Pace::answered(std::uint64_t index) {
  answered_ = std::max(answered_, index);
  service_talks_ = true;
  if (!held_) return;
  heard_ = clock::now();
  if (!answers_are_behind() && !writes_are_behind()) grant();
}

}  // namespace host::of_ss
