// What the switch does with each OpenFlow message: one table of message types. Openflow thread.
#pragma once

#include <cstdint>
#include <vector>

#include "host/of_ss/switch/switch.h"

namespace host::of_ss {

// Carries out a message of a controller, or answers it with the exact error.
void handle_message(Switch &sw, Connection &connection, Bytes message);

// Whether it leads to work of the daemon, so that it waits while the daemon is behind.
bool is_for_daemon(Bytes message);

// The messages that controllers may send.
struct MessageKind {
  std::uint8_t type;
  const char *name;
  bool writes;  // a slave may not
  std::vector<const char *> commands;
};
std::vector<MessageKind> message_kinds();

}  // namespace host::of_ss
