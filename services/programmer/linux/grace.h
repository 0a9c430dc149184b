// Grace periods: lets one pass on a thread of its own, after which every packet that was being looked up before has gone.
#pragma once

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace programmer::dataplane {

class Grace {
 public:
  // Whether the kernel can tell; without it nobody may make one of these.
  static bool possible();

  Grace();
  ~Grace();
  Grace(const Grace &) = delete;
  Grace &operator=(const Grace &) = delete;

  // Begins one; the one before is over.
  void begin();
  bool over() const { return !under_way_.load(std::memory_order_acquire); }
  // Waits for the one that is under way, some 10 ms.
  void wait();

 private:
  void run();

  std::atomic<bool> under_way_ = false;
  bool end_ = false;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::thread thread_;
};

}  // namespace programmer::dataplane
