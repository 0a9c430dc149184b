#include "host/of_ss/switch/port_table.h"

#include <algorithm>
#include <utility>

namespace host::of_ss {

const ddm::Port *PortTable::find(const ddm::Ports &ports, std::uint32_t number) {
  const auto at = std::ranges::lower_bound(ports, number, {}, &ddm::Port::ifx);
  return at != ports.end() && at->ifx == number ? &*at : nullptr;
}

std::vector<PortTable::Change> PortTable::update() {
  const auto now = ddm::ports();
  if (now == ports_) return {};
  const auto before = std::exchange(ports_, now);
  numbers_.clear();
  for (const ddm::Port &port : *now) numbers_.push_back(port.ifx);
  std::vector<Change> changes;
  if (!before) return changes;
  for (const ddm::Port &port : *before)
    if (!find(port.ifx)) changes.push_back({port, PortReason::deleted});
  for (const ddm::Port &port : *now) {
    const ddm::Port *old = find(*before, port.ifx);
    if (!old || !(*old == port)) changes.push_back({port, old ? PortReason::modified : PortReason::added});
  }
  return changes;
}

}  // namespace host::of_ss
