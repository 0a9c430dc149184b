// The ports of this host: the configured table, or the machine's interfaces but the loopback where none is configured.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "host/ddm/ethtool.h"
#include "host/ddm/netlink.h"

namespace host::ddm {

struct Port {
  std::uint32_t ifx = 0;
  std::string name;
  std::uint32_t phyid = 0;  // the interface index itself for a machine's interface
  std::uint32_t type = 1;   // LSM_IF_TYPE_ETHERNET, LLCB_OVERLAY_*
  std::array<std::uint8_t, 6> mac{};
  std::uint32_t interface = 0;  // the machine's index of it; 0: the machine has no such interface
  bool enabled = true;          // by its administrator
  bool has_link = true;
  Medium medium{};

  bool operator==(const Port &) const = default;
};

using Ports = std::vector<Port>;

// The ports as they are now, in order of their index. A configured port that the machine has (by name) shows the machine's
// address and state; one that it does not have shows a locally administered address of its own and is up. Any thread; cheap while
// nothing changes: the kernel's notifications tell when to look again.
std::shared_ptr<const Ports> ports();

// Has `changed` called on the loop's thread when the kernel has told of a change, after which ports() gives the new state; null
// for nothing. Loop's thread.
void on_change(std::function<void()> changed);

// The counters of a port as they were at most a tenth of a second ago; null when the machine has no such interface. Any thread.
std::shared_ptr<const Counters> counters(const Port &port);

// Enables or disables the port. 0, or an errno: EPERM without the right to, ENODEV when the machine has no such interface. Any
// thread; ports() gives the new state then.
int enable(const Port &port, bool enabled);

}  // namespace host::ddm
