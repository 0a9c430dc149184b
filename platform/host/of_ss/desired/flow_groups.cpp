#include "host/of_ss/desired/flow_groups.h"

#include <algorithm>

#include "host/of_ss/desired/flow_hash.h"
#include "host/of_ss/wire/actions.h"

namespace host::of_ss {
namespace {

namespace sb = southbound;

bool fits(const FlowGroups::Group &group, const Wanted &wanted) {
  if (wanted.port && *wanted.port != group.port && group.port != kSeveralPorts) return false;
  if (wanted.group_id && (group.group_id == kGroupAny ||
                          (*wanted.group_id != kGroupAll && group.group_id != kGroupAll && group.group_id != *wanted.group_id)))
    return false;
  return !wanted.meter_id || (*wanted.meter_id == kMeterAll ? group.meter_id != 0 : group.meter_id == *wanted.meter_id);
}

}  // namespace

std::uint32_t FlowGroups::shape_of(std::uint8_t table_id, Bytes match) {
  std::byte buffer[kMaxSouthboundMatch];
  const Bytes bits = match_shape(match, buffer);
  const std::uint32_t hash = match_hash(table_id, bits);
  const std::uint32_t known =
      shapes_.find(hash, [&](const Shape &shape) { return shape.table_id == table_id && std::ranges::equal(shape.bits, bits); });
  return known != kNoSlot ? known : shapes_.add({hash, table_id, {bits.begin(), bits.end()}, 0});
}

std::uint32_t FlowGroups::join(Bytes flow_mod) {
  Group group{.shape = shape_of(sb::get<std::uint8_t>(flow_mod.data(), sb::kFlowTableId), southbound_match(flow_mod)),
              .port = output_port(flow_mod),
              .meter_id = sb::get<std::uint32_t>(flow_mod.data(), sb::kFlowMeterId),
              .group_id = output_group(flow_mod)};
  group.hash = fold(mix(mix(mix(group.shape, group.port), group.group_id), group.meter_id));
  std::uint32_t number = groups_.find(group.hash, [&group](const Group &other) {
    return other.shape == group.shape && other.port == group.port && other.meter_id == group.meter_id &&
           other.group_id == group.group_id;
  });
  if (number == kNoSlot) {
    ++shapes_[group.shape].groups;
    number = groups_.add(group);
  }
  ++groups_[number].flows;
  return number;
}

void FlowGroups::leave(std::uint32_t number) {
  if (--groups_[number].flows > 0) return;
  const std::uint32_t shape = groups_[number].shape;
  groups_.drop(number);
  if (--shapes_[shape].groups == 0) shapes_.drop(shape);
}

std::vector<std::uint32_t> FlowGroups::covered(const Wanted &wanted, std::size_t &flows) const {
  std::byte buffer[kMaxSouthboundMatch];
  const Bytes bits = match_shape(wanted.match, buffer);
  std::vector<bool> candidates(shapes_.size());
  for (std::uint32_t n = 0; n < shapes_.size(); ++n) {
    const Shape &shape = shapes_[n];
    candidates[n] = (!wanted.table_id || *wanted.table_id == shape.table_id) && match_covers(bits, shape.bits) &&
                    !std::ranges::equal(bits, shape.bits);
  }
  std::vector<std::uint32_t> firsts;
  for (std::uint32_t n = 0; n < groups_.size(); ++n) {
    const Group &group = groups_[n];
    if (group.flows == 0 || !candidates[group.shape] || !fits(group, wanted)) continue;
    firsts.push_back(group.first);
    flows += group.flows;
  }
  return firsts;
}

}  // namespace host::of_ss
