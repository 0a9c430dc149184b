// Which flows failed for want of hardware resources. The daemon's message about a flow that failed after it was stored does not
// say so; the answer of the programming service in the database does.
#pragma once

#include <array>
#include <span>

#include "southbound.h"

namespace host::of_ss {

// Sees every answer from now on, before the daemon acts on it. Loop's thread.
void watch_shortages();

// `message`, or a copy of it in `room` that gives the shortage as the reason when it is the result of a flow that failed for one.
// Any thread; results of stored flows come on the loop's.
std::span<const std::byte> with_reason(std::span<const std::byte> message,
                                       std::array<std::byte, southbound::kFlowResultLen> &room);

}  // namespace host::of_ss
