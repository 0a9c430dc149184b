// Reads the network interfaces of the caller's network namespace from the kernel over rtnetlink. Every call opens its own socket.
// Any thread; its namespace counts.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace host::ddm {

// In the order of OpenFlow's port statistics (1.3.5, 7.3.5.6): packets, bytes, drops and errors, each received and sent; frame,
// overrun and checksum errors; collisions.
using Counters = std::array<std::uint64_t, 12>;

struct Interface {
  std::uint32_t index = 0;
  std::string name;
  std::array<std::uint8_t, 6> mac{};
  bool loopback = false;
  bool enabled = false;  // by its administrator
  bool carrier = false;  // a peer is connected, and lower layers are ready
  Counters counters{};
};

// std::nullopt, with errno, when the kernel does not answer.
std::optional<std::vector<Interface>> read_interfaces();

// Enables or disables an interface. 0, or an errno: EPERM without CAP_NET_ADMIN, ENODEV when it no longer exists.
int enable_interface(std::uint32_t index, bool enable);

// A socket that becomes readable when an interface appears, disappears or changes. Negative, with errno, on failure.
int open_link_notices();

}  // namespace host::ddm
