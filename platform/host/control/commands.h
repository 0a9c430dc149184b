// The debug commands that the process registered through ssat.h. Loop's thread.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <stdexcept>

namespace host::control {

// A request that cannot be carried out; the text says what was wrong and what is allowed.
struct Refusal : std::invalid_argument {
  using std::invalid_argument::invalid_argument;
};

// Calls the command that `request` names and gives the answer's members; throws Refusal, and the handler is not called, when
// module, command or arguments do not fit.
nlohmann::json call_command(const nlohmann::json &request);

// Every module with its commands and their formats.
nlohmann::json list_commands();

// Forgets every module.
void clear_commands();

}  // namespace host::control
