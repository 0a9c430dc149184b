// The agent's settings, from the host's configuration. Loop's thread.
#pragma once

#include <cstdint>

#include "host/config/config.h"
#include "host/of_ss/net/endpoint_set.h"
#include "host/of_ss/switch/switch.h"

namespace host::of_ss {

struct Settings {
  EndpointSettings endpoints;
  SwitchSettings own;
  std::uint32_t report_cells = 0;  // counter changes in a packed report
};

// Endpoints that cannot be used (listening on a name, TLS without certificate or authorities) are logged and left out.
Settings settings_from(const Config::OpenFlow &key);

}  // namespace host::of_ss
