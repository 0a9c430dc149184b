// Reports idle flows: checks the flows with an idle timeout several times a second, and publishes a flow_counter record for each
// that has matched nothing for that long. Loop's thread.
//
// The record is never stored. It holds the final sums, and is repeated at growing intervals until the flow is removed, because
// its reader may be absent or busy. The time begins when the flow is installed, and again when the service restarts.
#pragma once

#include <cstdint>
#include <vector>

#include "programmer/context.h"
#include "programmer/known_flows.h"
#include "programmer/target.h"
#include "programmer/timer.h"

namespace programmer {

class IdleWatch {
 public:
  // All arguments must outlive the notifications. If not `enabled`, no flow is ever idle.
  IdleWatch(Context &context, const KnownFlows &table, Target &target, bool enabled);

  // The slot has been assigned to a flow with this idle timeout in seconds; 0: none.
  void watch(std::uint32_t slot, std::uint16_t timeout_s);

 private:
  struct Watched {
    std::uint32_t packets = 0;    // matched at the latest look, modulo 2^32
    std::uint32_t quiet_ms = 0;   // time since which that number has not changed
    std::uint16_t timeout_s = 0;  // 0: the slot is not watched
    std::uint8_t told = 0;        // how often the flow has been published
  };

  void turn();
  void look(std::uint32_t slot, std::uint32_t now_ms);
  bool tell(const KnownFlow &flow, std::uint32_t slot);

  Context &context_;
  const KnownFlows &table_;
  Target &target_;
  const bool enabled_;
  std::vector<Watched> watched_;  // by slot
  std::uint32_t next_slot_ = 0;
  std::uint32_t seen_ = 0;  // flows watched, in this round
  std::uint64_t begun_us_ = 0;
  Timer timer_;
};

}  // namespace programmer
