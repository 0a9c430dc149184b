// Handles the OpenFlow messages of controllers by a table of message types. Openflow thread.
#pragma once

#include <cstdint>
#include <vector>

#include "host/of_ss/switch/switch.h"

namespace host::of_ss {

// Carries out a controller's message, or answers it with the exact error.
void handle_message(Switch &sw, Connection &connection, Bytes message);

// True if the message leads to work of the daemon, so that it must wait while the daemon is behind.
bool is_for_daemon(Bytes message);

// The messages that controllers may send.
struct MessageKind {
  std::uint8_t type;
  const char *name;
  bool writes;  // changes the switch, so not allowed for a slave
  std::vector<const char *> commands;
};
std::vector<MessageKind> message_kinds();

}  // namespace host::of_ss
