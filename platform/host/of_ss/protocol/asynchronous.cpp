#include "host/of_ss/protocol/asynchronous.h"

#include "host/of_ss/net/reply.h"

namespace host::of_ss {
namespace {

namespace sb = southbound;

constexpr std::uint32_t kPortDown = 1, kLinkDown = 1;  // OFPPC_PORT_DOWN, OFPPS_LINK_DOWN

void send_port_status(Switch &sw, const ddm::Port &port, PortReason reason) {
  Reply reply(sw.scratch, kPortStatus, 0);
  reply.out.u8(static_cast<std::uint8_t>(reason));
  reply.out.zeros(7);
  put_port(reply.out, port);
  sw.controllers.for_each_listener(Async::port_status, static_cast<std::uint8_t>(reason),
                                   [bytes = reply.finish()](Connection &connection) { connection.send(bytes); });
}

}  // namespace

void send_flow_removed(Switch &sw, const FlowEntry &flow, RemovedReason reason) {
  Reply reply(sw.scratch, kFlowRemoved, 0);
  const std::int64_t age = sw.now() - flow.created_ns;
  reply.out.u64(flow.cookie());
  reply.out.u16(flow.priority());
  reply.out.u8(reason);
  reply.out.u8(flow.table_id());
  reply.out.u32(static_cast<std::uint32_t>(age / 1'000'000'000));
  reply.out.u32(static_cast<std::uint32_t>(age % 1'000'000'000));
  reply.out.u16(flow.get<std::uint16_t>(sb::kFlowIdleTimeout));
  reply.out.u16(flow.get<std::uint16_t>(sb::kFlowHardTimeout));
  reply.out.u64(flow.packets());
  reply.out.u64(flow.bytes());
  encode_wire_match(southbound_match(flow.southbound()), flow.table_id() == kServiceChainTable, reply.out);
  sw.controllers.for_each_listener(Async::flow_removed, reason,
                                   [bytes = reply.finish()](Connection &connection) { connection.send(bytes); });
}

void update_ports(Switch &sw) {
  for (const auto &[port, reason] : sw.ports.update()) send_port_status(sw, port, reason);
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
