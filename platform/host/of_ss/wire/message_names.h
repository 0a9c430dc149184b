// Names of OpenFlow messages and of their commands. Any thread.
#pragma once

#include <cstdint>

namespace host::of_ss {

// "FLOW_MOD"; "unknown" for a number that is not a type.
const char *message_name(std::uint8_t type);
// The name of a command of such a message, or of the type of a multipart request; "" for others.
const char *command_name(std::uint8_t type, std::uint8_t command);

}  // namespace host::of_ss
