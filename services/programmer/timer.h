// A one-shot platform timer with an owner. The platform cannot disarm a timer, so it must outlive the loop.
#pragma once

#include <cstdint>

#include "qx_runtime.h"

namespace programmer {

class Timer {
 public:
  using Action = void (*)(void *owner);

  Timer(qx_thread_master *master, Action action, void *owner, const char *name)
      : master_(master), action_(action), owner_(owner), name_(name) {}
  Timer(const Timer &) = delete;
  Timer &operator=(const Timer &) = delete;

  bool armed() const { return armed_; }

  // Runs the action after that many microseconds; does nothing if the timer is already armed.
  bool arm(std::uint64_t us) {
    if (armed_) return true;
    constexpr std::uint64_t kSecond = 1'000'000;
    armed_ = qx_thread_insert_timer_timeval(master_, &record_, &Timer::fire, this, static_cast<long>(us / kSecond),
                                            static_cast<long>(us % kSecond), name_) == 0;
    return armed_;
  }

 private:
  static int fire(qx_thread *record) {
    auto *self = static_cast<Timer *>(record->arg);
    self->armed_ = false;
    self->action_(self->owner_);
    return 0;
  }

  qx_thread_master *master_;
  Action action_;
  void *owner_;
  const char *name_;
  qx_thread record_{};
  bool armed_ = false;
};

inline std::uint64_t now_us() {
  return qx_timeval_to_us(qx_monotime());
}

}  // namespace programmer
