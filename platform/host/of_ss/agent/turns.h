// Decides which connection's message is carried out next: requests wait while the daemon is behind, and waiting connections take
// turns, each with its share. Openflow thread.
#pragma once

#include <cstdint>
#include <utility>

#include "host/of_ss/net/connection.h"
#include "host/of_ss/protocol/bundles.h"
#include "host/of_ss/switch/switch.h"

namespace host::of_ss {

class Turns {
 public:
  Turns(Switch &sw, const Bundles &bundles) : sw_(sw), bundles_(bundles) {}

  // To be called when a connection begins a batch of messages.
  void begin(Connection &connection);
  // True if it may hand on this message, which is then charged to its share.
  bool may_take(Connection &connection, Bytes message);
  // Resumes the waiting connections, each with its share, beginning with the one that was next when the pace was used up.
  void resume_waiting();
  // To be called when waiting connections may continue: they do so in the next turn of the loop.
  void ask_for_next() { next_is_due_ = true; }
  // True when a connection waits for nothing but the next turn of the loop; resets it. Called once, at the end of each turn.
  bool take_next_is_due() { return std::exchange(next_is_due_, false); }

 private:
  bool may_hand_over(Session &session);

  Switch &sw_;
  const Bundles &bundles_;
  std::size_t next_ = 0;  // the connection whose turn comes first
  std::uint32_t share_ = kShareMax;
  bool next_is_due_ = false;

  // Messages per turn of the loop: of all waiting connections together, and the most and the least of one of them.
  static constexpr std::uint32_t kMessages = 1024, kShareMax = 256, kShareMin = 8;
};

}  // namespace host::of_ss
