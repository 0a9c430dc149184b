// The periodic report of flow counters: reads them from the target and writes a flow_counter record for each that has changed.
// The rate of writes is limited, so a round takes longer the more counters have changed. Loop's thread.
#pragma once

#include <cstdint>

#include "programmer/context.h"
#include "programmer/known_flows.h"
#include "programmer/target.h"
#include "programmer/timer.h"

namespace programmer {

class CounterReport {
 public:
  // All arguments must outlive the notifications. With an interval of 0 ms it never reports.
  CounterReport(Context &context, KnownFlows &table, Target &target, std::uint32_t interval_ms);

  // False when the first timer cannot be armed.
  bool start();
  std::uint64_t written() const { return written_; }

 private:
  void turn();
  bool may_write();
  bool report(KnownFlow &entry, std::uint32_t slot);

  Context &context_;
  KnownFlows &table_;
  Target &target_;
  std::uint64_t interval_us_;
  std::uint64_t begun_us_ = 0;
  std::uint32_t next_slot_ = 0;
  bool in_round_ = false;
  std::uint64_t written_ = 0;
  std::uint64_t slice_began_us_ = 0, slice_writes_ = 0;
  Timer timer_;
};

}  // namespace programmer
