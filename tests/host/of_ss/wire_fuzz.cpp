// Any bytes where the OpenFlow agent reads: a flow-mod, a statistics filter, a packet-out or a meter-mod of a controller. What is
// accepted must hold together: it is a message that could be stored and taken over, it is given back to the controller as a
// message that reads as the same flow, and it matches itself.
#include <cstring>
#include <vector>

#include "host/of_ss/desired/groups.h"
#include "host/of_ss/desired/meters.h"
#include "support/require.h"

namespace {

using namespace host::of_ss;

constexpr std::uint32_t kPorts[] = {1, 2, 7};

// A target that carries out everything, with one group.
struct OneGroup final : GroupSource {
  static constexpr std::byte kPushAndOutput[24] = {
      std::byte{0}, std::byte{17}, std::byte{0}, std::byte{8}, std::byte{0x81}, {}, {}, {}, {}, {}, {}, std::byte{16}, {}, {},
      {},           std::byte{1}};
  const GroupPlan plan{{{kPushAndOutput, true}}};
  const GroupPlan *plan_of(std::uint32_t group) const override { return group == 1 ? &plan : nullptr; }
};
const OneGroup kGroups;
constexpr TargetCapabilities kAll{.set_fields = kKnownSets, .actions = ~std::uint64_t{0}, .several_outputs = true};
const Terms kTerms[] = {{kPorts}, {kPorts, kAll, &kGroups}};

struct Nobody final : FlowEvents {
  void flow_failed(const Origin &, const Error &, Bytes) override {}
  void flow_removed(const FlowEntry &, RemovedReason) override {}
  void flow_changed(const FlowEntry &, const FlowChange &) override {}
  void barrier_answered(const Origin &) override {}
  void overdue(std::vector<std::uint64_t>) override {}
};

int take(void *) {
  return 0;
}

constexpr Callbacks kDaemon{take, take, take, take, [] {}, take, take, take, take, [] {}, take, take, take, take, take, [] {}};

struct Engine {
  Nobody nobody;
  const FlowLimits limits{};
  static inline Trace trace;
  Flows flows{kDaemon, nobody, trace, limits};
  Meters meters{flows, kUnannounced};
};

// Shows the flow in every way there is: for people, and behind `wire` for its controller.
std::vector<std::byte> show(Bytes flow_mod, std::vector<std::byte> wire = {}) {
  Writer out(wire);
  encode_wire_match(southbound_match(flow_mod), flow_mod[southbound::kFlowTableId] == std::byte{1}, out);
  encode_wire_instructions(flow_mod, out);
  require(wire.size() % 8 == 0);
  match_text(southbound_match(flow_mod));
  actions_text(flow_mod);
  outputs_of(flow_mod);
  return wire;
}

void flow_mod(Bytes bytes, const Terms &terms) {
  Engine engine;
  FlowMod mod, again;
  flow_mod_text(bytes);
  if (decode_flow_mod(bytes, terms, mod).refused()) return;
  const Bytes slots = southbound_match(mod.southbound());
  require(mod.length <= sizeof mod.message && slots.size() % 8 == 0);
  require(match_covers(slots, slots) && matches_overlap(slots, slots));
  if (mod.command == fm::kAdd) {
    require(is_flow_mod(mod.southbound()));
    const auto wire = show(mod.southbound(), {bytes.begin(), bytes.begin() + fm::kMatch});
    require(!decode_flow_mod(wire, terms, again).refused());
    require(again.length == mod.length && std::memcmp(again.message, mod.message, mod.length) == 0);
  }
  for (std::uint32_t xid : {1, 2}) engine.flows.apply(mod, {1, xid}, bytes, xid);
  mod.command = fm::kDelete;
  mod.out_port = port::kAny, mod.out_group = kGroupAny, mod.cookie_mask = 0;
  engine.flows.apply(mod, {1, 3}, bytes, 3);
  require(engine.flows.table().size() == 0);
}

void group_mod(Bytes bytes, const Terms &terms) {
  GroupEntry group;
  if (bytes.size() >= 16) decode_group(bytes, terms, group);
}

void meter_mod(Bytes bytes, const Terms &) {
  Engine engine, next;
  if (bytes.size() < 16 || engine.meters.apply(bytes, {1, 1}, 0).refused()) return;
  for (const auto &[id, meter] : engine.meters.all()) require(next.meters.restore(meter.message, 0));
}

void filter(Bytes bytes, const Terms &) {
  FlowMod mod;
  if (!bytes.empty() && !decode_flow_filter(bytes, 1, be8(bytes, 0) & 1, mod).refused()) show(mod.southbound());
}

void packet_out(Bytes bytes, const Terms &terms) {
  Instructions list;
  decode_packet_out_actions(bytes, terms, list);
}

constexpr void (*kReaders[])(Bytes, const Terms &) = {flow_mod, meter_mod, filter, packet_out, group_mod};

}  // namespace

// The first byte chooses the reader, and by its highest bit the target.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  if (size == 0 || size > kMaxMessage) return 0;
  const std::vector<std::uint8_t> bytes(data + 1, data + size);  // where a read beyond the end is seen
  kReaders[(data[0] & 0x7f) % std::size(kReaders)](std::as_bytes(std::span(bytes)), kTerms[data[0] >> 7]);
  return 0;
}
