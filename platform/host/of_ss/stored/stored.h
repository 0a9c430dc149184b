// What the object database holds of the agent's: the southbound messages in the flow and meter records, which an earlier life of
// the daemon left, answers to flows, and addresses of controllers. Loop's thread.
#pragma once

#include <cstdint>
#include <vector>

#include "host/of_ss/agent/agent.h"
#include "qx_runtime.h"

namespace host::of_ss {

// A service-chain flow of which database 4 holds what the application is asked for, or told.
struct Translation {
  std::uint32_t type;
  std::uint64_t index;
};

// Also withdraws the translations that were never answered: their flows have gone. 0, or the code of the call that failed.
int read_stored(qx_global *global, StoredState &out);

// Of these flows those whose stored status says that they are installed, in the same order.
std::vector<std::uint64_t> installed_flows(qx_global *global, const std::vector<std::uint64_t> &indexes);

// 0, or the code of the call that failed.
int stored_translations(qx_global *global, std::vector<Translation> &out);
int withdraw(qx_global *global, const std::vector<Translation> &translations);

// The addresses of controllers, laid out as in Peer. 0, or the code of the scan that failed.
int stored_addresses(qx_global *global, std::vector<std::uint32_t> &out);

}  // namespace host::of_ss
