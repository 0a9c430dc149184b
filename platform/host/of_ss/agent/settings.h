// The agent's settings, from the host's configuration. Loop's thread.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "host/config/config.h"
#include "host/of_ss/desired/flows.h"
#include "host/of_ss/net/connection.h"
#include "host/of_ss/net/endpoints.h"

namespace host::of_ss {

// Why an endpoint is unusable where peers are to be checked and there is nothing to check them against.
inline constexpr char kNoAuthority[] =
    "TLS needs openflow.tls_ca, the authorities that peers are checked against (or openflow.tls_verify = false, which lets "
    "anybody program flows)";

struct Settings {
  std::vector<std::string> controllers;         // every endpoint that is configured, as text
  std::vector<Endpoint> endpoints;              // those of them that can be used
  std::map<std::string, std::string> unusable;  // the others, with the reason
  tls::Context tls;
  std::uint32_t report_cells = 0;  // counter changes in a packed report
  bool prompt = true;              // the daemon is woken when something was handed over
  std::uint64_t datapath_id = 0;
  FlowLimits flows;
  ConnectionLimits connections;
};

// Endpoints that cannot be used (one that listens on a name, TLS without certificate or authorities) are logged and left out.
Settings settings_from(const Config::OpenFlow &key);

}  // namespace host::of_ss
