// The view "capabilities": what controllers can expect of the agent with this target, from the tables that drive its decisions.
// Any thread.
#pragma once

#include <nlohmann/json_fwd.hpp>

#include "host/of_ss/wire/target_capabilities.h"

namespace host::of_ss {

nlohmann::json capabilities(const TargetCapabilities &target);

}  // namespace host::of_ss
