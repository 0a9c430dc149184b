#include "host/of_ss/desired/flow_selection.h"

namespace host::of_ss {
namespace {

namespace sb = southbound;

FlowCriteria criteria_of(const FlowMod &mod) {
  FlowCriteria wanted{.match = southbound_match(mod.southbound())};
  if (mod.table_id != kTableAll) wanted.table_id = mod.table_id;
  if (mod.deletes() && mod.out_port != port::kAny) wanted.port = mod.out_port;
  if (mod.deletes() && mod.out_group != kGroupAny) wanted.group_id = mod.out_group;
  if (~mod.cookie_mask == 0) wanted.cookie = mod.cookie;
  return wanted;
}

// A request for all tables names its flow as in table 0; in table 1 the application type is added.
FlowEntry *find_in_table(const FlowTable &table, const FlowMod &mod, std::uint8_t table_id, std::vector<std::byte> &scratch) {
  if (mod.table_id == table_id) return table.find(mod.southbound()).entry;
  const Bytes match = southbound_match(mod.southbound());
  scratch.assign(mod.message, mod.message + sb::kFlowOxm + match.size());
  if (table_id == kServiceChainTable) {
    scratch.resize(scratch.size() + 8);
    sb::put(scratch.data(), sb::kFlowOxm + match.size(), sb::kOxmExpAppType);
    sb::put(scratch.data(), sb::kFlowOxm + match.size() + 4, sb::kServiceChainAppType);
  }
  sb::put(scratch.data(), sb::kFlowTableId, table_id);
  sb::put(scratch.data(), sb::kFlowMatchLen, static_cast<std::uint16_t>(scratch.size() - sb::kFlowOxm));
  return table.find(scratch).entry;
}

}  // namespace

bool selected(const FlowEntry &flow, const FlowMod &filter) {
  if (filter.table_id != kTableAll && filter.table_id != flow.table_id()) return false;
  if ((flow.cookie() ^ filter.cookie) & filter.cookie_mask) return false;
  if (filter.deletes() && filter.out_group != kGroupAny && !uses_group(flow.southbound(), filter.out_group)) return false;
  if (filter.deletes() && filter.out_port != port::kAny && !outputs_to(flow.southbound(), filter.out_port)) return false;
  return match_covers(southbound_match(filter.southbound()), southbound_match(flow.southbound()));
}

std::vector<FlowEntry *> targets(const FlowTable &table, const FlowMod &mod, bool strict, std::vector<std::byte> &scratch) {
  if (!strict) return flows_in_force(table, criteria_of(mod), [&mod](const FlowEntry &flow) { return selected(flow, mod); });
  std::vector<FlowEntry *> found;
  for (std::uint8_t table_id = 0; table_id < kTableCount; ++table_id) {
    if (mod.table_id != kTableAll && mod.table_id != table_id) continue;
    if (FlowEntry *flow = find_in_table(table, mod, table_id, scratch); flow && selected(*flow, mod)) found.push_back(flow);
  }
  return found;
}

std::vector<FlowEntry *> users_of_meter(const FlowTable &table, std::uint32_t meter_id) {
  return flows_in_force(table, {.meter_id = meter_id}, [meter_id](const FlowEntry &flow) {
    const auto used = flow.get<std::uint32_t>(sb::kFlowMeterId);
    return meter_id == kMeterAll ? used != 0 : used == meter_id;
  });
}

std::vector<FlowEntry *> users_of_group(const FlowTable &table, std::uint32_t group) {
  return flows_in_force(table, {.group_id = group}, [group](const FlowEntry &flow) {
    return group == kGroupAll ? outputs_of(flow.southbound()).group != kGroupAny : uses_group(flow.southbound(), group);
  });
}

}  // namespace host::of_ss
