#include "programmer/linux/grace.h"

#include <linux/membarrier.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace programmer::dataplane {
namespace {

long membarrier(int command) {
  return syscall(__NR_membarrier, command, 0, 0);
}

}  // namespace

bool Grace::possible() {
  const long commands = membarrier(MEMBARRIER_CMD_QUERY);
  return commands > 0 && (commands & MEMBARRIER_CMD_GLOBAL) != 0;
}

void Grace::pass() {
  membarrier(MEMBARRIER_CMD_GLOBAL);
}

Grace::Grace() : thread_(&Grace::run, this) {}

Grace::~Grace() {
  {
    const std::lock_guard lock(mutex_);
    end_ = true;
  }
  changed_.notify_all();
  thread_.join();
}

void Grace::begin() {
  {
    const std::lock_guard lock(mutex_);
    under_way_ = true;
  }
  changed_.notify_all();
}

void Grace::wait() {
  std::unique_lock lock(mutex_);
  changed_.wait(lock, [this] { return over(); });
}

// pass() has been a memory barrier for the reader's thread too, so a reading that begins later sees the changed table.
void Grace::wait_for_reading() {
  const std::uint32_t seen = readings_.load();
  while (seen % 2 != 0 && readings_.load() == seen) std::this_thread::yield();
}

// pass() uses the global membarrier command, which waits in the kernel for all current RCU readers, and so for programs that are
// handling a packet.
void Grace::run() {
  std::unique_lock lock(mutex_);
  while (true) {
    changed_.wait(lock, [this] { return end_ || !over(); });
    if (end_) return;
    lock.unlock();
    pass();
    wait_for_reading();
    lock.lock();
    under_way_ = false;
    changed_.notify_all();
  }
}

}  // namespace programmer::dataplane
