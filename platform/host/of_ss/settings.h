// The agent's settings, from the host's configuration. Loop's thread.
#pragma once

#include <cstdint>
#include <vector>

#include "host/of_ss/connection.h"
#include "host/of_ss/endpoints.h"
#include "host/of_ss/flows.h"

namespace host {
struct Config;
}

namespace host::of_ss {

struct Settings {
  std::vector<Endpoint> endpoints;
  TlsContext tls;
  std::uint64_t datapath_id = 0;
  FlowLimits flows;
  ConnectionLimits connections;
};

// Endpoints that cannot be used (a name that is not found, TLS without certificate) are logged and left out.
Settings settings_from(const Config &config);

}  // namespace host::of_ss
