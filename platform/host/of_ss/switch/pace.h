// Keeps the agent from running ahead of the daemon's loop.
//
// The agent hands calls over on the openflow thread; the daemon works them off in drains of its handler list on the loop's
// thread. A drain ends when the list is empty, so an agent that hands over as fast as the daemon works would keep the loop in one
// drain: no notification, no result, no operator's question would be served. Here the agent gets a bounded number of calls ahead;
// it goes on when the loop has turned since the drain, when few enough writes are in flight and when the programming service is
// not too far behind. A service that is silent is waited for once, for a second at most, until it says something again.
//
// Threads: stated per call; the two sides share atomic counters and one flag.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>

#include "host/base/clock.h"
#include "host/base/timer.h"

namespace host::of_ss {

class Pace {
 public:
  // `prompt`: the daemon is woken after each turn of the agent and does not wait for its own period; the agent may then be less
  // far ahead. `wake` has the openflow thread ask open() again; it is called on the loop's thread.
  Pace(bool prompt, std::function<void()> wake);
  Pace(const Pace &) = delete;
  Pace &operator=(const Pace &) = delete;

  // The index of the newest flow that there was before; before the openflow thread starts.
  void begin_at(std::uint64_t newest) { newest_ = answered_ = newest; }

  // ---- openflow thread

  // Whether another call may be handed over after `calls` so far. After false, `wake` is called later. `spare` allows a few calls
  // beyond the bound, for a connection that has handed over little lately: a busy neighbour must not hold it up.
  bool open(std::uint64_t calls, bool spare);
  // Changes whenever the agent may continue.
  std::uint64_t granted() const { return granted_.load(std::memory_order_relaxed); }
  // The end of a turn of the agent's loop: so many calls in all were handed over, up to this index of a flow.
  void turn_ended(std::uint64_t calls, std::uint64_t newest);

  // ---- loop's thread

  // The daemon has drained its list.
  void drained();
  // The programming service has answered for the flow with this index, or has taken its answer back.
  void answered(std::uint64_t index);

 private:
  std::uint64_t handed_over() const { return calls_.load(std::memory_order_acquire); }
  void turned();
  bool writes_are_behind() const;
  bool answers_are_behind() const;
  void grant();

  const bool prompt_;
  const std::uint64_t bound_;  // calls
  const std::function<void()> wake_;

  // Written by the openflow thread.
  std::atomic<std::uint64_t> calls_{0}, newest_{0};
  std::atomic<bool> waits_{false};
  // Written by the loop's thread: the calls after which the loop has turned.
  std::atomic<std::uint64_t> granted_{0};

  // Loop's thread.
  std::uint64_t drained_ = 0, answered_ = 0;
  std::uint64_t written_ = 0;   // writes that were finished at the latest look
  bool held_ = false;           // the loop has turned, but writes or answers are behind
  bool service_talks_ = false;  // it has answered, and not been silent for the longest wait since
  bool writes_stand_ = false;   // none was finished for the longest wait
  clock::Time heard_{};         // while held: when writes or answers moved last
  Timer turn_{[this] { turned(); }};
};

}  // namespace host::of_ss
