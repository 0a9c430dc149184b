// Reads the agent's state from the object database: the southbound messages in flow and meter records, which outlive the daemon,
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

// Reads flows and meters, and withdraws unanswered translations, whose flows are lost. 0, or the code of the failed call.
int read_stored(qx_global *global, StoredState &out);

// The given flows whose stored status is "installed", in the same order.
std::vector<std::uint64_t> installed_flows(qx_global *global, const std::vector<std::uint64_t> &indexes);

// Reads all translations. 0, or the code of the failed call.
int stored_translations(qx_global *global, std::vector<Translation> &out);
int withdraw(qx_global *global, const std::vector<Translation> &translations);

// The addresses of controllers, laid out as in Peer. 0, or the code of the failed scan.
int stored_addresses(qx_global *global, std::vector<std::uint32_t> &out);

}  // namespace host::of_ss
