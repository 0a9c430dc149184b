// What the programming service tells of flows, straight from the database. The daemon tells of a failure only while it waits
// for the flow's answer, and not for what reason it failed: a flow that fails later, as after a restart of the programming
// service, disappears from the database without a word, and a shortage looks like any other failure.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>

#include "host/of_ss/wire/wire.h"

namespace host::of_ss {

// From now on gives `take` every answer that says that a flow has failed, before the daemon acts on it, and what is told of
// counters, as messages (results.h); and `seen` the index and the status of the flow with every
// answer; no status where it is taken back. Loop's thread.
using Seen = std::function<void(std::uint64_t index, std::optional<std::uint32_t> status)>;
void watch_answers(std::function<void(Bytes)> take, Seen seen);

}  // namespace host::of_ss
