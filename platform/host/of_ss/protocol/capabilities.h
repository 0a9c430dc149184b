// What controllers can expect of the agent, built from the tables that drive its decisions. Any thread.
#pragma once

#include <nlohmann/json_fwd.hpp>

namespace host::of_ss {

nlohmann::json capabilities();

}  // namespace host::of_ss
