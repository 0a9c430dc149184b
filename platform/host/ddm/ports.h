// The ports of this host: the configured table or, without one, the machine's interfaces except loopback.
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
  std::uint32_t phyid = 0;  // for a machine's interface its index
  std::uint32_t type = 1;   // LSM_IF_TYPE_ETHERNET, LLCB_OVERLAY_*
  std::array<std::uint8_t, 6> mac{};
  std::uint32_t interface = 0;  // the machine's interface index; 0: the machine has no such interface
  bool enabled = true;          // by its administrator
  bool has_link = true;
  Medium medium{};

  bool operator==(const Port &) const = default;
};

using Ports = std::vector<Port>;

// The current ports in order of their index. A configured port that exists on the machine (by name) has the machine's address and
// state; any other gets its own locally administered address and is up. Any thread; cheap while nothing changes, because the
// kernel notifies changes.
std::shared_ptr<const Ports> ports();

// Has `changed` called on the loop's thread when the kernel has notified a change, after which ports() returns the new state;
// null removes it. Loop's thread.
void on_change(std::function<void()> changed);

// The counters of a port, at most a tenth of a second old; null when the machine has no such interface. Any thread.
std::shared_ptr<const Counters> counters(const Port &port);

// Enables or disables the port. 0, or an errno: EPERM without the permission, ENODEV when the machine has no such interface. Any
// thread; afterwards ports() returns the new state.
int enable(const Port &port, bool enabled);

}  // namespace host::ddm
