// Reads what the agent has in the object database: the southbound messages in flow and meter records, which outlive the daemon,
// the answers to flows, and the addresses of controllers. Loop's thread.
#pragma once

#include <cstdint>
#include <vector>

#include "host/of_ss/agent/agent.h"
#include "qx_runtime.h"

namespace host::of_ss {

// A service-chain flow for which database 4 holds the request to the application or its answer.
struct Translation {
  std::uint32_t type;
  std::uint64_t index;
};

// Also withdraws the translations that were never answered: their flows have gone. 0, or the code of the call that failed.
int read_stored(qx_global *global, StoredState &out);

// Those of the given flows whose stored status is "installed", in the same order.
std::vector<std::uint64_t> installed_flows(qx_global *global, const std::vector<std::uint64_t> &indexes);

// 0, or the code of the call that failed.
int stored_translations(qx_global *global, std::vector<Translation> &out);
int withdraw(qx_global *global, const std::vector<Translation> &translations);

// The addresses of controllers, laid out as in Peer. 0, or the code of the scan that failed.
int stored_addresses(qx_global *global, std::vector<std::uint32_t> &out);

}  // namespace host::of_ss
