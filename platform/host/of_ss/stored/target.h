// Watches what the programming service announces about its target. Loop's thread.
#pragma once

#include <functional>

#include "host/of_ss/wire/abilities.h"
#include "qx_runtime.h"

namespace host::of_ss {

// From now on follows the record, which another process may rewrite or delete, and calls `changed` when the target can do other
// things than before.
void watch_target(qx_global *global, std::function<void(const Abilities &target)> changed);

// The target as announced last; kUnannounced without a record.
const Abilities &announced_target();

}  // namespace host::of_ss
