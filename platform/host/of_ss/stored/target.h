// Watches what the programming service announces about its target. Loop's thread.
#pragma once

#include <functional>

#include "host/of_ss/wire/target_capabilities.h"
#include "qx_runtime.h"

namespace host::of_ss {

// Watches the record s_target.capabilities, which another process may rewrite or delete, and calls `changed` with each different
// announcement.
void watch_target(qx_global *global, std::function<void(const TargetCapabilities &target)> changed);

// Reads the record; kUnannounced without one. If the database cannot be read, the announcement known so far.
const TargetCapabilities &announced_target();

}  // namespace host::of_ss
