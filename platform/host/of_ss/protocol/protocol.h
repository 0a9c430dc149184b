// What the agent does with each OpenFlow message: one table of message types. Openflow thread.
#pragma once

#include "host/ddm/ports.h"
#include "host/of_ss/desired/ledger.h"
#include "host/of_ss/wire/wire.h"

namespace host::of_ss {

class Agent;
class Connection;

// Carries out a message of a controller, or answers it with the exact error.
void handle_message(Agent &agent, Connection &connection, Bytes message);

// Whether it leads to work of the daemon, so that it waits while the daemon is behind.
bool is_for_daemon(Bytes message);

// "FLOW_MOD"; "unknown" for a number that is no type.
const char *message_name(std::uint8_t type);
// The name of a command of such a message, or of the type of a multipart request; "" for others.
const char *command_name(std::uint8_t type, std::uint8_t command);

// The messages that controllers may send.
struct MessageKind {
  std::uint8_t type;
  const char *name;
  bool writes;  // a slave may not
  std::vector<const char *> commands;
};
std::vector<MessageKind> message_kinds();

// Carries out an OFPT_FLOW_MOD.
Verdict carry_out_flow_mod(Agent &agent, const Origin &origin, Bytes message);

// OFPT_MULTIPART_REQUEST (multipart.cpp), with its own table of types.
Verdict handle_multipart(Agent &agent, Connection &connection, Bytes request);
bool multipart_is_for_daemon(Bytes request);
// By the last byte of its type; "" for an unknown one.
const char *multipart_name(std::uint8_t type);

// Goes on with a multipart reply that waited for the peer to read, or for counters.
void continue_dump(Agent &agent, Connection &connection);

// An ofp_port (7.2.1).
void put_port(Writer &out, const ddm::Port &port);

// One message being written; `send` completes its length and hands it to the connection.
class Reply {
 public:
  Reply(std::vector<std::byte> &buffer, OfType type, std::uint32_t xid) : buffer_(buffer), out(buffer) {
    buffer_.clear();
    out.u8(kVersion);
    out.u8(type);
    out.u16(0);
    out.u32(xid);
  }
  void send(Connection &connection);
  // The finished bytes, to be sent more than once.
  Bytes finish();

 private:
  std::vector<std::byte> &buffer_;

 public:
  Writer out;
};

}  // namespace host::of_ss
