// Keeps the agent from running ahead of the daemon's loop.
//
// The agent hands calls over on the openflow thread; the daemon processes them in drains of its handler list on the loop's
// thread. A drain ends when the list is empty, so an agent that hands over as fast as the daemon works would keep the loop in one
// drain, without service for notifications, results or operators. So the agent may be ahead by a bounded number of calls; it
// continues once the loop has turned since the drain, few enough writes are in flight and the programming service is not too far
// behind. A silent service is waited for once, at most a second, until it answers again.
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
  // `prompt`: hand-overs wake the daemon, which need not finish its own period, so that the agent needs less lead. `wake` makes
  // the openflow thread call open() again; it is called on the loop's thread.
  Pace(bool prompt, std::function<void()> wake);
  Pace(const Pace &) = delete;
  Pace &operator=(const Pace &) = delete;

  // Sets the index of the newest stored flow; before the openflow thread starts.
  void begin_at(std::uint64_t newest) { newest_ = answered_ = newest; }

  // ---- openflow thread

  // True if another call may be handed over after `calls` so far; notifies the loop when enough of them are new. After false,
  // `wake` is called later. `spare` allows a few calls beyond the bound, for a connection that has handed over little lately, so
  // that busy neighbours do not delay it.
  bool open(std::uint64_t calls, bool spare);
  // Changes whenever the agent may continue.
  std::uint64_t granted() const { return granted_.load(std::memory_order_relaxed); }
  // To be called at the end of a turn of the agent's loop, with the total number of calls handed over and the newest flow index.
  void turn_ended(std::uint64_t calls, std::uint64_t newest);

  // ---- loop's thread

  // The daemon has drained its list.
  void drained();
  // The programming service has answered for the flow with this index, or has withdrawn its answer.
  void answered(std::uint64_t index);

 private:
  void notify(std::uint64_t calls);
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
  // Written by the loop's thread: the number of calls after which the loop has turned.
  std::atomic<std::uint64_t> granted_{0};

  // Loop's thread.
  std::uint64_t drained_ = 0, answered_ = 0;
  std::uint64_t written_ = 0;   // writes finished at the latest check
  bool held_ = false;           // the loop has turned, but writes or answers are behind
  bool service_talks_ = false;  // it has answered, and not been silent for the longest wait since then
  bool writes_stand_ = false;   // no write was finished during the longest wait
  clock::Time heard_{};         // while held: time of the last progress of writes or answers
  Timer turn_{[this] { turned(); }};
};

}  // namespace host::of_ss
