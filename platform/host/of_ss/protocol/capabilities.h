// What controllers can expect of the agent, made of the tables that it decides by. Any thread.
#pragma once

#include <nlohmann/json_fwd.hpp>

namespace host::of_ss {

nlohmann::json capabilities();

}  // namespace host::of_ss
