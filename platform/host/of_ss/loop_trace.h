// The loop's share of the trace: the fate of flows' records in the database and the programming service's answers. Loop's thread.
#pragma once

#include <cstdint>
#include <optional>

#include "host/of_ss/desired/trace.h"

namespace host::of_ss::loop_trace {

// From now on notes every write and deletion of flows' records by this process.
void start();
// The programming service has answered for the flow with this status; std::nullopt: it has withdrawn its answer.
void answered(std::uint64_t index, std::optional<std::uint32_t> status);

const EventRing &ring();

}  // namespace host::of_ss::loop_trace
