// Reads the medium of a network interface, in OpenFlow's vocabulary (1.3.5, 7.2.1: OFPPF_*). Any thread.
#pragma once

#include <cstdint>
#include <string>

namespace host::ddm {

// Zero for values that the interface does not report.
struct Medium {
  std::uint32_t current = 0, advertised = 0, supported = 0, peer = 0;  // OFPPF_*
  std::uint32_t speed_kbps = 0, max_speed_kbps = 0;

  bool operator==(const Medium &) const = default;
};

Medium read_medium(const std::string &interface);

}  // namespace host::ddm
