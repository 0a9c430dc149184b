#include "host/of_ss/protocol/protocol.h"

#include <errno.h>

#include <array>

#include "host/ddm/ports.h"
#include "host/of_ss/net/reply.h"
#include "host/of_ss/net/session.h"
#include "host/of_ss/protocol/asynchronous.h"
#include "host/of_ss/protocol/bundles.h"
#include "host/of_ss/protocol/flow_mods.h"
#include "host/of_ss/protocol/groups.h"
#include "host/of_ss/protocol/monitors.h"
#include "host/of_ss/protocol/multipart.h"
#include "host/of_ss/wire/actions.h"
#include "host/of_ss/wire/message_names.h"

namespace host::of_ss {
namespace {

constexpr std::uint32_t kFlowStats = 1, kTableStats = 2, kPortStats = 4, kQueueStats = 64;  // OFPC_*
constexpr std::uint32_t kPortDown = 1;                                                      // OFPPC_PORT_DOWN
constexpr std::size_t kHwAddrLen = 6, kEthHeader = 14;

Verdict bad_length(const char *what) {
  return refuse(err::kBadLen, what, "the length of the message is wrong");
}

// ---- handlers; a refusing verdict becomes the error

Verdict ignore(Switch &, Connection &, Bytes) {
  return {};
}

Verdict experimenter(Switch &sw, Connection &connection, Bytes message) {
  if (Monitors::is_cancel(message)) return sw.monitors.cancel(connection, message);
  if (be32(message, kOfHeader) == kOnfExperimenter) return sw.bundles.handle(connection, message);
  return refuse(err::kBadExperimenter, "experimenter",
                "of experimenters' messages the switch knows bundles and flow monitors only");
}

Verdict features(Switch &sw, Connection &connection, Bytes message) {
  Reply reply(sw.scratch, kFeaturesReply, be32(message, kOfXid));
  reply.out.u64(sw.settings.datapath_id);
  reply.out.u32(0);  // number of buffered packets
  reply.out.u8(kTableCount);
  reply.out.u8(0);  // the main connection
  reply.out.zeros(2);
  reply.out.u32(kFlowStats | kTableStats | kPortStats | (sw.packets.has_data_plane() ? kQueueStats : 0));
  reply.out.u32(0);
  reply.send(connection);
  return {};
}

Verdict get_config(Switch &sw, Connection &connection, Bytes message) {
  Reply reply(sw.scratch, kGetConfigReply, be32(message, kOfXid));
  reply.out.u16(0);  // fragments are handled normally
  reply.out.u16(connection.session().miss_send_len);
  reply.send(connection);
  return {};
}

Verdict set_config(Switch &, Connection &connection, Bytes message) {
  const std::uint16_t flags = be16(message, 8);
  if (flags != 0) return refuse(err::kConfigBadFlags, "flags", "the switch neither drops nor reassembles fragments");
  connection.session().miss_send_len = be16(message, 10);
  return {};
}

Verdict packet_out(Switch &sw, Connection &connection, Bytes message) {
  const std::uint32_t in_port = be32(message, 12);
  const std::size_t length = be16(message, 16);
  if (be32(message, 8) != kNoBuffer) return refuse(err::kBufferUnknown, "buffer_id", "the switch buffers no packets");
  if (in_port != port::kController && in_port != port::kLocal && in_port != port::kAny && !sw.ports.find(in_port))
    return refuse(err::kRequestBadPort, "in_port", "no such port");
  if (length > message.size() - 24) return bad_length("actions");
  Instructions list;
  if (const Verdict verdict = decode_packet_out_actions(message.subspan(24, length), sw.terms(), list); verdict.refused())
    return verdict;
  const Bytes frame = message.subspan(24 + length);
  if (frame.size() < kEthHeader) return bad_length("data");
  return sw.packets.send(connection, in_port, Bytes(list.actions).first(list.length), frame);
}

Verdict flow_mod(Switch &sw, Connection &connection, Bytes message) {
  return carry_out_flow_mod(sw, sw.origin(connection, message), message);
}

Verdict port_mod(Switch &sw, Connection &, Bytes message) {
  const ddm::Port *port = sw.ports.find(be32(message, 8));
  if (!port) return refuse(err::kPortModBadPort, "port", "no such port");
  if (std::memcmp(port->mac.data(), message.data() + 16, kHwAddrLen) != 0)
    return refuse(err::kPortModBadHwAddr, "hw_addr", "not the hardware address of the port");
  const std::uint32_t config = be32(message, 24), mask = be32(message, 28);
  if (mask & ~kPortDown) return refuse(err::kPortModBadConfig, "mask", "of a port only PORT_DOWN can be configured");
  if (be32(message, 32) != 0)
    return refuse(err::kPortModBadAdvertise, "advertise", "what a port advertises cannot be configured");
  if (mask == 0) return {};
  const int error = ddm::enable(*port, !(config & kPortDown));
  if (error == ENODEV) return refuse(err::kPortModEperm, "mask", "the machine has no such interface");
  if (error != 0) return refuse(err::kPortModEperm, "mask", "the process may not configure interfaces (CAP_NET_ADMIN)");
  update_ports(sw);
  return {};
}

Verdict table_mod(Switch &, Connection &, Bytes message) {
  const std::uint8_t table = be8(message, 8);
  if (table >= kTableCount && table != kTableAll)
    return refuse(err::kTableModBadTable, "table", "no such table, there are 0 and 1");
  if (be32(message, 12) != 0) return refuse(err::kTableModBadConfig, "config", "tables have nothing to configure");
  return {};
}

Verdict barrier(Switch &sw, Connection &connection, Bytes message) {
  const Origin origin = sw.origin(connection, message);
  const bool waits = connection.session().barriers++ > 0;
  sw.flows.barrier({connection.number(), origin.xid, connection.peer().address}, origin, waits, sw.now());
  return {};
}

// The hardware's queues are not described; the answer lists none for any port.
Verdict queue_config(Switch &sw, Connection &connection, Bytes message) {
  const std::uint32_t number = be32(message, 8);
  if (number != port::kAny && !sw.ports.find(number)) return refuse(err::kQueueBadPort, "port", "no such port");
  Reply reply(sw.scratch, kQueueGetConfigReply, be32(message, kOfXid));
  reply.out.u32(number);
  reply.out.zeros(4);
  reply.send(connection);
  return {};
}

Verdict role(Switch &sw, Connection &connection, Bytes message) {
  const auto wanted = static_cast<Role>(be32(message, 8));
  const std::uint64_t id = be64(message, 16);
  Controllers::Generation &current = sw.controllers.master_generation();
  if (wanted > Role::slave) return refuse(err::kRoleBad, "role", "unknown role");
  if (wanted == Role::master || wanted == Role::slave) {
    if (current.defined && static_cast<std::int64_t>(id - current.id) < 0)
      return refuse(err::kRoleStale, "generation_id", "older than the latest that was seen");
    current = {true, id};
  }
  if (wanted != Role::no_change) sw.controllers.set_role(connection, wanted);
  Reply reply(sw.scratch, kRoleReply, be32(message, kOfXid));
  reply.out.u32(static_cast<std::uint32_t>(connection.session().role));
  reply.out.zeros(4);
  reply.out.u64(current.id);
  reply.send(connection);
  return {};
}

Verdict get_async(Switch &sw, Connection &connection, Bytes message) {
  Reply reply(sw.scratch, kGetAsyncReply, be32(message, kOfXid));
  for (const std::uint32_t mask : connection.session().async) reply.out.u32(mask);
  reply.send(connection);
  return {};
}

Verdict set_async(Switch &, Connection &connection, Bytes message) {
  for (std::size_t i = 0; i < connection.session().async.size(); ++i) connection.session().async[i] = be32(message, 8 + 4 * i);
  return {};
}

Verdict meter_mod(Switch &sw, Connection &connection, Bytes message) {
  return sw.meters.apply(message, sw.origin(connection, message), sw.now());
}

// ---- the table

enum class Writes : bool { no, yes };

bool never(Bytes) {
  return false;
}
bool always(Bytes) {
  return true;
}

struct MessageRow {
  std::uint8_t type;
  std::size_t min_length = kOfHeader;
  bool fixed = false;                                          // `min_length` is also the maximum
  Writes writes = Writes::no;                                  // changes the switch, so not allowed for a slave
  Verdict (*handle)(Switch &, Connection &, Bytes) = nullptr;  // null: not a message of controllers
  bool (*is_for_daemon)(Bytes) = never;                        // true if it leads to work of the daemon
};

constexpr MessageRow kUnknown{kTypeCount};

constexpr std::array<MessageRow, kTypeCount> kMessages{{
    {kHello},  // HELLO and ECHO do not get here
    {kError, 12, false, Writes::no, ignore},
    {kEchoRequest},
    {kEchoReply},
    {kExperimenter, 16, false, Writes::no, experimenter, Bundles::commits},
    {kFeaturesRequest, 8, true, Writes::no, features},
    {kFeaturesReply},
    {kGetConfigRequest, 8, true, Writes::no, get_config},
    {kGetConfigReply},
    {kSetConfig, 12, true, Writes::no, set_config},
    {kPacketIn},
    {kFlowRemoved},
    {kPortStatus},
    {kPacketOut, 24, false, Writes::yes, packet_out},
    {kFlowModMsg, fm::kMinLength, false, Writes::yes, flow_mod, always},
    {kGroupMod, 16, false, Writes::yes, change_groups, always},
    {kPortMod, 40, true, Writes::yes, port_mod},
    {kTableMod, 16, true, Writes::yes, table_mod},
    {kMultipartRequest, 16, false, Writes::no, handle_multipart, multipart_is_for_daemon},
    {kMultipartReply},
    {kBarrierRequestMsg, 8, true, Writes::no, barrier, always},
    {kBarrierReplyMsg},
    {kQueueGetConfigRequest, 16, true, Writes::no, queue_config},
    {kQueueGetConfigReply},
    {kRoleRequest, 24, true, Writes::no, role},
    {kRoleReply},
    {kGetAsyncRequest, 8, true, Writes::no, get_async},
    {kGetAsyncReply},
    {kSetAsync, 32, true, Writes::no, set_async},
    {kMeterModMsg, 16, false, Writes::yes, meter_mod, always},
}};

const MessageRow &row_of(std::uint8_t type) {
  return type < kMessages.size() ? kMessages[type] : kUnknown;
}

Verdict handle(const MessageRow &row, Switch &sw, Connection &connection, Bytes message) {
  if (!row.handle) return refuse(err::kBadType, message_name(row.type), "controllers do not send this message");
  if (message.size() < row.min_length || (row.fixed && message.size() != row.min_length))
    return bad_length(message_name(row.type));
  if (row.writes == Writes::yes && connection.session().role == Role::slave)
    return refuse(err::kIsSlave, message_name(row.type), "a slave may not change the switch");
  return row.handle(sw, connection, message);
}

}  // namespace

void handle_message(Switch &sw, Connection &connection, Bytes message) {
  const MessageRow &row = row_of(be8(message, kOfType));
  const Verdict verdict = handle(row, sw, connection, message);
  if (verdict.refused())
    sw.refuse(connection, verdict, message);
  else if (!row.is_for_daemon(message))
    sw.trace.note(Step::carried_out);
  connection.session().has_asked = true;
}

bool is_for_daemon(Bytes message) {
  return row_of(be8(message, kOfType)).is_for_daemon(message);
}

std::vector<MessageKind> message_kinds() {
  std::vector<MessageKind> kinds;
  for (const MessageRow &row : kMessages) {
    if (!row.handle && !Connection::takes(row.type)) continue;
    MessageKind kind{row.type, message_name(row.type), row.writes == Writes::yes, {}};
    for (std::uint8_t command = 0; command_name(row.type, command)[0]; ++command)
      kind.commands.push_back(command_name(row.type, command));
    kinds.push_back(std::move(kind));
  }
  return kinds;
}

}  // namespace host::of_ss
