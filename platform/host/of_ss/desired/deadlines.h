// The ends of the flows' hard timeouts in order of time: those that are due are found without a look at the others. Openflow
// thread only.
#pragma once

#include <compare>
#include <cstdint>
#include <vector>

#include "host/of_ss/desired/flow_table.h"

namespace host::of_ss {

class Deadlines {
 public:
  // `table` must outlive this. Deadlines of flows that it no longer holds are dropped as their number grows, so that memory is
  // bounded by the number of flows.
  explicit Deadlines(const FlowTable &table) : table_(table) {}

  // Notes that the flow ends at this time, in monotonic nanoseconds.
  void add(std::uint64_t index, std::int64_t at_ns);
  // Removes the deadlines that are due, and returns their flows, the earliest first. Some may be gone.
  std::vector<std::uint64_t> take_due(std::int64_t now_ns);

 private:
  struct Deadline {
    std::int64_t at_ns;
    std::uint64_t index;
    auto operator<=>(const Deadline &) const = default;
  };
  void drop_stale();

  const FlowTable &table_;
  std::vector<Deadline> heap_;  // the next one in front
  std::size_t limit_ = 0;       // the length at which stale deadlines are looked for
};

}  // namespace host::of_ss
