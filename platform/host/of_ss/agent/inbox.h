// Queue from other threads to the openflow thread: southbound messages, which are bounded, and work, each in order.
//
// put, post and run may be called from any thread; take and fd belong to the openflow thread. One system call wakes the thread
// for everything put before its next look.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "host/base/mutex.h"
#include "host/of_ss/wire/wire.h"

namespace host::of_ss {

class Inbox {
 public:
  Inbox();
  ~Inbox();
  Inbox(const Inbox &) = delete;
  Inbox &operator=(const Inbox &) = delete;

  // Copies one southbound message; the length in its header is ignored. False when the inbox is full.
  bool put(Bytes message);
  // Queues `work` for the openflow thread. Not bounded: callers post a few pieces of work at a time.
  void post(std::function<void()> work);
  // The same, and waits until it has run, at most 3 s. False if it has not run, and then it never will. Not from the openflow
  // thread, which would wait for itself.
  bool run(std::function<void()> work);

  // Makes fd readable, because something outside the inbox has changed.
  void nudge();
  // Drops everything put so far.
  void clear();

  // Readable while anything waits to be taken.
  int fd() const { return fd_; }
  // Everything put so far; valid until the next take.
  struct Taken {
    Bytes framed;
    std::vector<std::function<void()>> work;
    // The next message; empty after the last.
    Bytes next_message();
  };
  Taken take();

 private:
  void wake();

  const int fd_;
  Mutex mutex_;
  bool woken_ KELIM_GUARDED_BY(mutex_) = false;
  std::vector<std::byte> filling_ KELIM_GUARDED_BY(mutex_);
  std::vector<std::byte> taken_;  // openflow thread
  std::vector<std::function<void()>> work_ KELIM_GUARDED_BY(mutex_);
};

}  // namespace host::of_ss
