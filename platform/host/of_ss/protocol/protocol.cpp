#include "host/of_ss/protocol/protocol.h"

#include <errno.h>

#include <array>

#include "host/of_ss/agent/agent.h"

namespace host::of_ss {
namespace {

constexpr std::uint32_t kFlowStats = 1, kTableStats = 2, kPortStats = 4;  // OFPC_*
constexpr std::uint32_t kPortDown = 1, kLinkDown = 1;                     // OFPPC_PORT_DOWN, OFPPS_LINK_DOWN
constexpr std::size_t kHwAddrLen = 6;

Origin origin_of(Agent &agent, const Connection &connection, Bytes message) {
  return {connection.generation(), be32(message, kOfXid), connection.peer().controller, agent.trace().request()};
}

Verdict bad_length(const char *what) {
  return refuse(err::kBadLen, what, "the length of the message is wrong");
}

// ---- handlers; a verdict that refuses becomes the error

Verdict ignore(Agent &, Connection &, Bytes) {
  return {};
}

Verdict experimenter(Agent &agent, Connection &connection, Bytes message) {
  if (Monitors::is_cancel(message)) return agent.monitors().cancel(connection, message);
  if (be32(message, kOfHeader) == kOnfExperimenter) return agent.bundles().handle(connection, message);
  return refuse(err::kBadExperimenter, "experimenter",
                "of experimenters' messages the switch knows bundles and flow monitors only");
}

Verdict features(Agent &agent, Connection &connection, Bytes message) {
  Reply reply(agent.scratch(), kFeaturesReply, be32(message, kOfXid));
  reply.out.u64(agent.datapath_id());
  reply.out.u32(0);  // packets that are buffered
  reply.out.u8(kTableCount);
  reply.out.u8(0);  // the main connection
  reply.out.zeros(2);
  reply.out.u32(kFlowStats | kTableStats | kPortStats);
  reply.out.u32(0);
  reply.send(connection);
  return {};
}

Verdict get_config(Agent &agent, Connection &connection, Bytes message) {
  Reply reply(agent.scratch(), kGetConfigReply, be32(message, kOfXid));
  reply.out.u16(0);  // no special handling of fragments
  reply.out.u16(connection.session().miss_send_len);
  reply.send(connection);
  return {};
}

Verdict set_config(Agent &, Connection &connection, Bytes message) {
  const std::uint16_t flags = be16(message, 8);
  if (flags != 0) return refuse(err::kConfigBadFlags, "flags", "the switch neither drops nor reassembles fragments");
  connection.session().miss_send_len = be16(message, 10);
  return {};
}

Verdict packet_out(Agent &agent, Connection &, Bytes message) {
  const std::uint32_t in_port = be32(message, 12);
  const std::size_t length = be16(message, 16);
  if (be32(message, 8) != kNoBuffer) return refuse(err::kBufferUnknown, "buffer_id", "the switch buffers no packets");
  if (in_port != port::kController && in_port != port::kLocal && in_port != port::kAny && !agent.find_port(in_port))
    return refuse(err::kRequestBadPort, "in_port", "no such port");
  if (length > message.size() - 24) return bad_length("actions");
  return check_packet_out_actions(message.subspan(24, length), agent.port_numbers());
}

Verdict flow_mod(Agent &agent, Connection &connection, Bytes message) {
  return carry_out_flow_mod(agent, origin_of(agent, connection, message), message);
}

Verdict group_mod(Agent &, Connection &, Bytes message) {
  constexpr std::uint16_t kAdd = 0, kModify = 1, kDelete = 2;
  const std::uint16_t command = be16(message, 8);
  if (command == kAdd) return refuse(err::kOutOfGroups, "group", "the switch has no groups");
  if (command == kModify) return refuse(err::kUnknownGroup, "group", "the switch has no groups");
  if (command != kDelete) return refuse(err::kGroupBadCommand, "command", "unknown command");
  return {};
}

Verdict port_mod(Agent &agent, Connection &, Bytes message) {
  const ddm::Port *port = agent.find_port(be32(message, 8));
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
  agent.update_ports();
  return {};
}

Verdict table_mod(Agent &, Connection &, Bytes message) {
  const std::uint8_t table = be8(message, 8);
  if (table >= kTableCount && table != kTableAll)
    return refuse(err::kTableModBadTable, "table", "no such table, there are 0 and 1");
  if (be32(message, 12) != 0) return refuse(err::kTableModBadConfig, "config", "tables have nothing to configure");
  return {};
}

Verdict barrier(Agent &agent, Connection &connection, Bytes message) {
  const Origin origin = origin_of(agent, connection, message);
  const bool waits = connection.session().barriers++ > 0;
  agent.flows().barrier({connection.number(), origin.xid, connection.peer().address}, origin, waits, agent.now());
  return {};
}

// Queues are those of the hardware and are not described; every port answers with none.
Verdict queue_config(Agent &agent, Connection &connection, Bytes message) {
  const std::uint32_t number = be32(message, 8);
  if (number != port::kAny && !agent.find_port(number)) return refuse(err::kQueueBadPort, "port", "no such port");
  Reply reply(agent.scratch(), kQueueGetConfigReply, be32(message, kOfXid));
  reply.out.u32(number);
  reply.out.zeros(4);
  reply.send(connection);
  return {};
}

Verdict role(Agent &agent, Connection &connection, Bytes message) {
  const auto wanted = static_cast<Role>(be32(message, 8));
  const std::uint64_t id = be64(message, 16);
  Agent::Generation &current = agent.master_generation();
  if (wanted > Role::slave) return refuse(err::kRoleBad, "role", "unknown role");
  if (wanted == Role::master || wanted == Role::slave) {
    if (current.defined && static_cast<std::int64_t>(id - current.id) < 0)
      return refuse(err::kRoleStale, "generation_id", "older than the latest that was seen");
    current = {true, id};
  }
  if (wanted != Role::no_change) agent.set_role(connection, wanted);
  Reply reply(agent.scratch(), kRoleReply, be32(message, kOfXid));
  reply.out.u32(static_cast<std::uint32_t>(connection.session().role));
  reply.out.zeros(4);
  reply.out.u64(current.id);
  reply.send(connection);
  return {};
}

Verdict get_async(Agent &agent, Connection &connection, Bytes message) {
  Reply reply(agent.scratch(), kGetAsyncReply, be32(message, kOfXid));
  for (const std::uint32_t mask : connection.session().async) reply.out.u32(mask);
  reply.send(connection);
  return {};
}

Verdict set_async(Agent &, Connection &connection, Bytes message) {
  for (std::size_t i = 0; i < connection.session().async.size(); ++i) connection.session().async[i] = be32(message, 8 + 4 * i);
  return {};
}

Verdict meter_mod(Agent &agent, Connection &connection, Bytes message) {
  return agent.meters().apply(message, origin_of(agent, connection, message), agent.now());
}

// ---- the table

enum class Writes : bool { no, yes };

bool never(Bytes) {
  return false;
}
bool always(Bytes) {
  return true;
}

// Commands of the messages that have one, for people.
const char *no_command(std::uint8_t) {
  return "";
}
const char *flow_command(std::uint8_t command) {
  constexpr const char *kNames[] = {"add", "modify", "modify strict", "delete", "delete strict"};
  return command < std::size(kNames) ? kNames[command] : "";
}
const char *three_commands(std::uint8_t command) {
  constexpr const char *kNames[] = {"add", "modify", "delete"};
  return command < std::size(kNames) ? kNames[command] : "";
}

struct MessageRow {
  const char *name;
  std::size_t min_length = kOfHeader;
  bool fixed = false;                                         // no longer than that either
  Writes writes = Writes::no;                                 // not for a slave
  Verdict (*handle)(Agent &, Connection &, Bytes) = nullptr;  // null: not a message of controllers
  bool (*is_for_daemon)(Bytes) = never;                       // whether it leads to work of the daemon
  const char *(*command)(std::uint8_t) = no_command;
};

constexpr MessageRow kUnknown{"unknown"};

constexpr std::array<MessageRow, kTypeCount> kMessages{{
    {"HELLO"},  // HELLO and ECHO do not come this far
    {"ERROR", 12, false, Writes::no, ignore},
    {"ECHO_REQUEST"},
    {"ECHO_REPLY"},
    {"EXPERIMENTER", 16, false, Writes::no, experimenter, Bundles::commits},
    {"FEATURES_REQUEST", 8, true, Writes::no, features},
    {"FEATURES_REPLY"},
    {"GET_CONFIG_REQUEST", 8, true, Writes::no, get_config},
    {"GET_CONFIG_REPLY"},
    {"SET_CONFIG", 12, true, Writes::no, set_config},
    {"PACKET_IN"},
    {"FLOW_REMOVED"},
    {"PORT_STATUS"},
    {"PACKET_OUT", 24, false, Writes::yes, packet_out},
    {"FLOW_MOD", fm::kMinLength, false, Writes::yes, flow_mod, always, flow_command},
    {"GROUP_MOD", 16, false, Writes::yes, group_mod, never, three_commands},
    {"PORT_MOD", 40, true, Writes::yes, port_mod},
    {"TABLE_MOD", 16, true, Writes::yes, table_mod},
    {"MULTIPART_REQUEST", 16, false, Writes::no, handle_multipart, multipart_is_for_daemon, multipart_name},
    {"MULTIPART_REPLY"},
    {"BARRIER_REQUEST", 8, true, Writes::no, barrier, always},
    {"BARRIER_REPLY"},
    {"QUEUE_GET_CONFIG_REQUEST", 16, true, Writes::no, queue_config},
    {"QUEUE_GET_CONFIG_REPLY"},
    {"ROLE_REQUEST", 24, true, Writes::no, role},
    {"ROLE_REPLY"},
    {"GET_ASYNC_REQUEST", 8, true, Writes::no, get_async},
    {"GET_ASYNC_REPLY"},
    {"SET_ASYNC", 32, true, Writes::no, set_async},
    {"METER_MOD", 16, false, Writes::yes, meter_mod, always, three_commands},
}};

const MessageRow &row_of(std::uint8_t type) {
  return type < kMessages.size() ? kMessages[type] : kUnknown;
}

Verdict handle(const MessageRow &row, Agent &agent, Connection &connection, Bytes message) {
  if (!row.handle) return refuse(err::kBadType, row.name, "controllers do not send this message");
  if (message.size() < row.min_length || (row.fixed && message.size() != row.min_length)) return bad_length(row.name);
  if (row.writes == Writes::yes && connection.session().role == Role::slave)
    return refuse(err::kIsSlave, row.name, "a slave may not change the switch");
  return row.handle(agent, connection, message);
}

}  // namespace

void handle_message(Agent &agent, Connection &connection, Bytes message) {
  const MessageRow &row = row_of(be8(message, kOfType));
  const Verdict verdict = handle(row, agent, connection, message);
  if (verdict.refused())
    agent.refuse(connection, verdict, message);
  else if (!row.is_for_daemon(message))
    agent.trace().note(Step::carried_out);
  connection.session().has_asked = true;
}

Verdict carry_out_flow_mod(Agent &agent, const Origin &origin, Bytes message) {
  FlowMod &mod = agent.flow_mod();
  if (const Verdict verdict = decode_flow_mod(message, agent.port_numbers(), mod); verdict.refused()) return verdict;
  const auto meter = southbound::get<std::uint32_t>(mod.message, southbound::kFlowMeterId);
  if (meter && !mod.deletes() && !agent.meters().knows(meter))
    return refuse(err::kUnknownMeter, "meter", "there is no meter with this number");
  return agent.flows().apply(mod, origin, message, agent.now());
}

bool is_for_daemon(Bytes message) {
  return row_of(be8(message, kOfType)).is_for_daemon(message);
}

const char *message_name(std::uint8_t type) {
  return row_of(type).name;
}

const char *command_name(std::uint8_t type, std::uint8_t command) {
  return row_of(type).command(command);
}

std::vector<MessageKind> message_kinds() {
  std::vector<MessageKind> kinds;
  for (std::uint8_t type = 0; type < kTypeCount; ++type) {
    const MessageRow &row = kMessages[type];
    if (!row.handle && !Connection::takes(type)) continue;
    MessageKind kind{type, row.name, row.writes == Writes::yes, {}};
    for (std::uint8_t command = 0; row.command(command)[0]; ++command) kind.commands.push_back(row.command(command));
    kinds.push_back(std::move(kind));
  }
  return kinds;
}

Bytes Reply::finish() {
  out.patch16(kOfLength, buffer_.size());
  return buffer_;
}

void Reply::send(Connection &connection) {
  connection.send(finish());
}

void put_port(Writer &out, const ddm::Port &port) {
  out.u32(port.ifx);
  out.zeros(4);
  out.bytes(std::as_bytes(std::span(port.mac)));
  out.zeros(2);
  out.text(port.name, 16);
  out.u32(port.enabled ? 0 : kPortDown);
  out.u32(port.has_link ? 0 : kLinkDown);
  const ddm::Medium &medium = port.medium;
  for (const std::uint32_t word : {medium.current, medium.advertised, medium.supported, medium.peer}) out.u32(word);
  out.u32(medium.speed_kbps);
  out.u32(medium.max_speed_kbps);
}

}  // namespace host::of_ss
