// Synchronises one part of the service with the database, and retries until that succeeds. Loop's thread.
#pragma once

#include "programmer/timer.h"

namespace programmer {

class CatchUp {
 public:
  // False when the database could not be read, or did not accept an answer.
  using Work = bool (*)(void *owner);

  CatchUp(qx_thread_master *master, Work work, void *owner, const char *name)
      : work_(work), owner_(owner), timer_(master, &CatchUp::again, this, name) {}

  void now() {
    behind_ = !work_(owner_);
    if (behind_) timer_.arm(kAgainUs);
  }
  // To be called when an answer has been lost.
  void soon() {
    behind_ = true;
    timer_.arm(kAgainUs);
  }

 private:
  static constexpr std::uint64_t kAgainUs = 200'000;

  static void again(void *self) {
    if (static_cast<CatchUp *>(self)->behind_) static_cast<CatchUp *>(self)->now();
  }

  Work work_;
  void *owner_;
  bool behind_ = false;
  Timer timer_;
};

}  // namespace programmer
