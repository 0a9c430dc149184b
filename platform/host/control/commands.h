// The debug commands that the process registered through ssat.h. Loop's thread.
#pragma once

#include <nlohmann/json_fwd.hpp>

namespace host::control {

// Calls the command that `request` names and returns the answer's members; throws Refusal, without calling the handler, when
// module, command or arguments do not match.
nlohmann::json call_command(const nlohmann::json &request);

// Every module with its commands and their formats.
nlohmann::json list_commands();

// Removes every module.
void clear_commands();

}  // namespace host::control
