// Grace periods: lets one pass on a thread of its own, after which every packet that was being looked up before has gone.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <thread>

namespace programmer::dataplane {

class Grace {
 public:
  // Whether the kernel can tell; without it nobody may make one of these.
  static bool possible();
  // Lets one pass, some 10 ms.
  static void pass();

  Grace();
  ~Grace();
  Grace(const Grace &) = delete;
  Grace &operator=(const Grace &) = delete;

  // Begins one; the one before is over.
  void begin();
  bool over() const { return !under_way_.load(std::memory_order_acquire); }
  // Waits for the one that is under way, some 10 ms.
  void wait();

  // While one of these lives, no grace period ends that begins: for the one thread that reads the tables beside the programs.
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
  std::atomic<std::uint32_t> readings_ = 0;  // begun and ended; odd while one is under way
  bool end_ = false;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::thread thread_;
};

}  // namespace programmer::dataplane
