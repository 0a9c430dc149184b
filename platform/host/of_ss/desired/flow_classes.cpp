#include "host/of_ss/desired/flow_classes.h"

#include "host/of_ss/desired/flow_hash.h"

namespace host::of_ss {
namespace {

namespace sb = southbound;

bool fits(const FlowClasses::Class &flow_class, const FlowCriteria &wanted) {
  const auto [port, group] = flow_class.outputs;
  if (wanted.port && *wanted.port != port && port != kSeveralPorts) return false;
  if (wanted.group_id &&
      (group == kGroupAny || (*wanted.group_id != kGroupAll && group != kGroupAll && group != *wanted.group_id)))
    return false;
  return !wanted.meter_id || (*wanted.meter_id == kMeterAll ? flow_class.meter_id != 0 : flow_class.meter_id == *wanted.meter_id);
}

}  // namespace

std::uint32_t FlowClasses::shape_of(std::uint8_t table_id, Bytes match) {
  std::byte buffer[kMaxSouthboundMatch];
  const Bytes bits = match_shape(match, buffer);
  const std::uint32_t hash = match_hash(table_id, bits);
  const std::uint32_t known =
      shapes_.find(hash, [&](const Shape &shape) { return shape.table_id == table_id && same_bytes(shape.bits, bits); });
  return known != kNoSlot ? known : shapes_.add({hash, table_id, {bits.begin(), bits.end()}, 0});
}

std::uint32_t FlowClasses::join(Bytes flow_mod) {
  Class flow_class{.shape = shape_of(sb::get<std::uint8_t>(flow_mod.data(), sb::kFlowTableId), southbound_match(flow_mod)),
                   .outputs = outputs_of(flow_mod),
                   .meter_id = sb::get<std::uint32_t>(flow_mod.data(), sb::kFlowMeterId)};
  const auto [port, group] = flow_class.outputs;
  flow_class.hash = fold(mix(mix(mix(flow_class.shape, port), group), flow_class.meter_id));
  std::uint32_t number = classes_.find(flow_class.hash, [&flow_class](const Class &other) {
    return other.shape == flow_class.shape && other.outputs == flow_class.outputs && other.meter_id == flow_class.meter_id;
  });
  if (number == kNoSlot) {
    ++shapes_[flow_class.shape].classes;
    number = classes_.add(flow_class);
  }
  ++classes_[number].flows;
  return number;
}

void FlowClasses::leave(std::uint32_t number) {
  if (--classes_[number].flows > 0) return;
  const std::uint32_t shape = classes_[number].shape;
  classes_.drop(number);
  if (--shapes_[shape].classes == 0) shapes_.drop(shape);
}

std::vector<std::uint32_t> FlowClasses::covered(const FlowCriteria &wanted, std::size_t &flows) const {
  std::byte buffer[kMaxSouthboundMatch];
  const Bytes bits = match_shape(wanted.match, buffer);
  std::vector<bool> candidates(shapes_.size());
  for (std::uint32_t n = 0; n < shapes_.size(); ++n) {
    const Shape &shape = shapes_[n];
    candidates[n] = (!wanted.table_id || *wanted.table_id == shape.table_id) && match_covers(bits, shape.bits) &&
                    !same_bytes(bits, shape.bits);
  }
  std::vector<std::uint32_t> firsts;
  for (std::uint32_t n = 0; n < classes_.size(); ++n) {
    const Class &flow_class = classes_[n];
    if (flow_class.flows == 0 || !candidates[flow_class.shape] || !fits(flow_class, wanted)) continue;
    firsts.push_back(flow_class.first);
    flows += flow_class.flows;
  }
  return firsts;
}

}  // namespace host::of_ss
