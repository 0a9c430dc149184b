// Watches the programming service's answers for flows directly in the database. The daemon reports a failure only while it waits
// for the flow's answer, and without the reason: a flow that fails later, as after a restart of the programming service, would
// disappear from the database unreported, and a shortage would look like any other failure.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>

#include "host/of_ss/wire/wire.h"

namespace host::of_ss {

// From now on passes to `take`, as messages (results.h), every failure of a flow, before the daemon acts on it, and the reports
// on counters; and to `seen` the index and status of every answer, without a status when it is withdrawn. Loop's thread.
using Seen = std::function<void(std::uint64_t index, std::optional<std::uint32_t> status)>;
void watch_answers(std::function<void(Bytes)> take, Seen seen);

}  // namespace host::of_ss
