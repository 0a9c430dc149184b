// Grace periods: once one has passed, no packet is left whose look-up had begun before it. A separate thread waits for it.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <thread>

namespace programmer::dataplane {

class Grace {
 public:
  // True if the kernel supports grace periods; required for everything else here.
  static bool possible();
  // Blocks for one grace period, some 10 ms.
  static void pass();

  Grace();
  ~Grace();
  Grace(const Grace &) = delete;
  Grace &operator=(const Grace &) = delete;

  // Begins a grace period on the thread; the previous one must be over.
  void begin();
  bool over() const { return !under_way_.load(std::memory_order_acquire); }
  // Blocks until the current grace period is over, some 10 ms.
  void wait();

  // Protects a reader in user space: no grace period that begins during its life ends before it. For one thread only.
  class Reading {
   public:
    explicit Reading(Grace &grace) : grace_(grace) { grace_.readings_.fetch_add(1); }
    ~Reading() { grace_.readings_.fetch_add(1); }
    Reading(const Reading &) = delete;
    Reading &operator=(const Reading &) = delete;

   private:
    Grace &grace_;
  };

 private:
  void run();
  void wait_for_reading();

  std::atomic<bool> under_way_ = false;
  std::atomic<std::uint32_t> readings_ = 0;  // counts begins and ends, so it is odd during a reading
  bool end_ = false;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::thread thread_;
};

}  // namespace programmer::dataplane
