// Finds the flows that a request, a meter or a group concerns. Openflow thread only.
#pragma once

#include <algorithm>
#include <vector>

#include "host/of_ss/desired/flow_mod.h"
#include "host/of_ss/desired/flow_table.h"

namespace host::of_ss {

// True if the flow fits the table, match, port, group and cookie filter of a delete or of a statistics request.
bool selected(const FlowEntry &flow, const FlowMod &filter);

// The flows that a modify or a delete concerns, the oldest first. `scratch` is overwritten.
std::vector<FlowEntry *> targets(const FlowTable &table, const FlowMod &mod, bool strict, std::vector<std::byte> &scratch);

// The flows that use the meter; kMeterAll: any meter.
std::vector<FlowEntry *> users_of_meter(const FlowTable &table, std::uint32_t meter_id);

// The flows that use the group; kGroupAll: any group.
std::vector<FlowEntry *> users_of_group(const FlowTable &table, std::uint32_t group);

// The flows in force among the wanted ones that fit, the oldest first, which is the order of the answer.
template <typename Fits>
std::vector<FlowEntry *> flows_in_force(const FlowTable &table, const FlowCriteria &wanted, Fits &&fits) {
  std::vector<FlowEntry *> found;
  table.each_candidate(wanted, [&found, &fits](FlowEntry &flow) {
    if (fits(flow)) found.push_back(&flow);
  });
  std::ranges::sort(found, {}, [](const FlowEntry *flow) { return flow->index(); });
  return found;
}

}  // namespace host::of_ss
