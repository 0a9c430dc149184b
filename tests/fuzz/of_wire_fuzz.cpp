// Any bytes where the OpenFlow agent reads: a flow-mod, a statistics filter, a packet-out or a meter-mod of a controller, and a
// stored flow or meter of an earlier life. What is accepted must hold together: it is a message that could be stored and taken
// over, it is given back to the controller as a message that reads as the same flow, and it matches itself.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "host/of_ss/flows.h"
#include "host/of_ss/meters.h"

namespace {

using namespace host::of_ss;

constexpr std::uint32_t kPorts[] = {1, 2, 7};

void require(bool holds) {
  if (!holds) std::abort();
}

struct Nobody final : FlowEvents {
  void flow_failed(const Origin &, const Error &, Bytes) override {}
  void flow_removed(const FlowEntry &, RemovedReason) override {}
  void barrier_answered(const Origin &) override {}
  void overdue(std::vector<std::uint64_t>) override {}
};

int take(void *message) {
  require(southbound::get<std::uint16_t>(message, southbound::kLen) >= southbound::kHeaderLen);
  return 0;
}

constexpr Callbacks kDaemon{take, take, take, take, [] {}, take, take, take, take, [] {}, take, take, take, take, take, [] {}};

// Shows the flow in every way there is.
void show(Bytes flow_mod) {
  std::vector<std::byte> wire;
  Writer out(wire);
  encode_wire_match(southbound_match(flow_mod), flow_mod[southbound::kFlowTableId] == std::byte{1}, out);
  encode_wire_instructions(flow_mod, out);
  require(wire.size() % 8 == 0);
  match_text(southbound_match(flow_mod));
  actions_text(flow_mod);
  output_port(flow_mod);
}

// The accepted flow, given back as its controller would see it, reads as the same.
void give_back(Bytes request, const FlowMod &mod) {
  std::vector<std::byte> wire(request.begin(), request.begin() + fm::kMatch);
  Writer out(wire);
  encode_wire_match(southbound_match(mod.southbound()), mod.table_id == kServiceChainTable, out);
  encode_wire_instructions(mod.southbound(), out);
  FlowMod again;
  require(!decode_flow_mod(wire, kPorts, again).refused());
  require(again.length == mod.length && std::memcmp(again.message, mod.message, mod.length) == 0);
}

void flow_mod(Bytes bytes) {
  Nobody nobody;
  Flows flows(kDaemon, nobody, {});
  FlowMod mod;
  if (decode_flow_mod(bytes, kPorts, mod).refused()) return;
  require(mod.length <= sizeof mod.message && southbound_match(mod.southbound()).size() % 8 == 0);
  require(match_covers(southbound_match(mod.southbound()), southbound_match(mod.southbound())));
  require(matches_overlap(southbound_match(mod.southbound()), southbound_match(mod.southbound())));
  if (mod.command == fm::kAdd) {
    require(is_flow_mod(mod.southbound()));
    show(mod.southbound());
    give_back(bytes, mod);
  }
  flows.apply(mod, {1, 1}, bytes, 0);
  flows.apply(mod, {1, 2}, bytes, 1);
  mod.command = fm::kDelete;
  mod.out_port = port::kAny, mod.out_group = kGroupAny, mod.cookie_mask = 0;
  flows.apply(mod, {1, 3}, bytes, 2);
  require(flows.table().size() == 0);
}

void stored_flow(Bytes bytes) {
  Nobody nobody;
  Flows flows(kDaemon, nobody, {});
  if (!flows.restore(bytes, 0)) return;
  show(bytes);
  FlowMod everything{};
  everything.command = fm::kModify;
  everything.table_id = kTableAll;
  everything.length = southbound::flow_instruction_offset(0) + southbound::kInstructionLen;
  flows.apply(everything, {1, 1}, bytes, 1);
  flows.replay();
}

void meter_mod(Bytes bytes) {
  if (bytes.size() < 16) return;
  Nobody nobody;
  Flows flows(kDaemon, nobody, {});
  Meters meters(flows), next(flows);
  if (meters.apply(bytes, {1, 1}, 0).refused()) return;
  for (const auto &[id, meter] : meters.all()) require(next.restore(meter.message, 0));
}

void stored_meter(Bytes bytes) {
  Nobody nobody;
  Flows flows(kDaemon, nobody, {});
  Meters meters(flows);
  if (meters.restore(bytes, 0)) meters.replay();
}

void filter(Bytes bytes) {
  FlowMod mod;
  if (!bytes.empty() && !decode_flow_filter(bytes, 1, std::to_integer<std::uint8_t>(bytes[0]) & 1, mod).refused())
    show(mod.southbound());
}

void packet_out(Bytes bytes) {
  check_packet_out_actions(bytes, kPorts);
}

constexpr void (*kReaders[])(Bytes) = {flow_mod, stored_flow, meter_mod, stored_meter, filter, packet_out};

}  // namespace

// The first byte chooses the reader.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  if (size == 0 || size > kMaxMessage) return 0;
  const std::unique_ptr<std::byte[]> bytes(new std::byte[size - 1]);
  std::memcpy(bytes.get(), data + 1, size - 1);
  kReaders[data[0] % std::size(kReaders)](Bytes(bytes.get(), size - 1));
  return 0;
}
