// A timer of the host's own services on the host's clock. Loop's thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <utility>

#include "host/base/clock.h"

namespace host {

// One-shot; its owner may re-arm, cancel or destroy it at any time, also from inside its callback. An armed timer is dropped when
// the runtime is released.
class Timer {
 public:
  explicit Timer(std::function<void()> fire) : fire_(std::move(fire)) {}
  ~Timer() { cancel(); }
  Timer(const Timer &) = delete;
  Timer &operator=(const Timer &) = delete;

  // Arms the timer, or moves it when it is armed. False without a runtime.
  bool arm(clock::Time delay);
  void cancel();
  bool armed() const;

 private:
  std::function<void()> fire_;
  std::uint64_t id_ = 0;  // in the runtime's timer queue; 0 before the first arm()
};

}  // namespace host
