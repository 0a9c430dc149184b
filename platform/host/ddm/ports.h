// The ports of this host: the configured table, or the machine's interfaces where none is configured.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace host::ddm {

struct Port {
  std::uint32_t ifx = 0;
  std::string name;
  std::uint32_t phyid = 0;  // the interface index itself for a machine's interface
  std::uint32_t type = 1;   // LSM_IF_TYPE_ETHERNET, LLCB_OVERLAY_*
  std::array<std::uint8_t, 6> mac{};
  bool up = false;

  bool operator==(const Port &) const = default;
};

using Ports = std::vector<Port>;

// The ports as they are now, in order of their index. A configured port that the machine has (by name) shows the machine's
// address and state; one that it does not have shows a locally administered address of its own and is up. Any thread; cheap while
// nothing changes: the kernel's notifications tell when to look again.
std::shared_ptr<const Ports> ports();

}  // namespace host::ddm
