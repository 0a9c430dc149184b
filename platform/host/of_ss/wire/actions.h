// Actions and instructions: the table of the switch's actions, and their conversion from the wire to the southbound instruction
// block and back. Pure functions, any thread.
//
// Wire layout: OpenFlow 1.3.5, 7.2.4 and 7.2.5; southbound layout: southbound.h.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "host/of_ss/wire/oxm.h"
#include "host/of_ss/wire/target_capabilities.h"
#include "host/of_ss/wire/wire.h"

namespace host::of_ss {

// The instructions of a flow as received; kept in the flow-mod's kFlowInstructions, so that they can be returned unchanged.
enum InstructionForm : std::uint8_t { kFormApply = 1, kFormWrite = 2, kFormClear = 4 };

// The southbound outcome of a flow's instructions.
inline constexpr std::size_t kMaxSouthboundActions = 2048;
struct Instructions {
  std::uint32_t meter_id = 0;  // 0: none
  std::uint8_t form = 0;       // InstructionForm
  std::uint8_t applied = 0;    // number of actions from APPLY_ACTIONS; the others are from WRITE_ACTIONS
  std::uint16_t length = 0;    // of `actions`
  std::byte actions[kMaxSouthboundActions];
};

// Checks and reads the instructions of a flow that matches on `match`. The southbound actions are in the order in which they act:
// those of APPLY_ACTIONS, then those of WRITE_ACTIONS with the output last.
Verdict decode_instructions(Bytes from, const WireMatch &match, const Terms &terms, Instructions &out);

// Checks and reads the actions of a packet-out, which may output more than once. The southbound actions keep their order.
Verdict decode_packet_out_actions(Bytes from, const Terms &terms, Instructions &out);

// Checks the actions of a group's bucket, which are an action set, and says what they do to a packet.
struct BucketEffect {
  bool outputs = false, pushes = false, pops = false;
  bool decrements = false, sets_ttl = false, sets_queue = false;
  std::uint64_t sets = 0;  // bit n: field n
};
Verdict decode_bucket(Bytes actions, const Terms &terms, BucketEffect &out);

// Writes the instructions of a southbound flow-mod for the wire.
void encode_wire_instructions(Bytes flow_mod, Writer &out);

// "output:2,set_queue:3", "drop"; preceded by "meter:5," if the flow has a meter.
std::string actions_text(Bytes flow_mod);

// The instructions of a flow-mod from the wire, valid or not, in the same form; "..." where the bytes end early.
std::string wire_actions_text(Bytes instructions);
// Likewise of an action list from the wire, such as a bucket's.
std::string wire_list_text(Bytes actions);

// A type of action or instruction, and whether the switch supports it with that target.
struct Capability {
  std::uint16_t type;
  const char *name;
  bool supported;
};
std::vector<Capability> action_kinds(const TargetCapabilities &target);
std::vector<Capability> instruction_kinds();
// The actions that the library can ask of a target, as bits.
std::uint64_t known_actions();
// A named reserved port, and whether flows and packet-outs may output to it.
struct ReservedPort {
  std::uint32_t number;
  const char *name;
  bool for_flows, for_packets;
};
std::span<const ReservedPort> reserved_ports();

// Where a flow's own list outputs, without the buckets of its groups.
inline constexpr std::uint32_t kSeveralPorts = 0xfffffff0;
struct Outputs {
  std::uint32_t port = 0;           // 0: none; kSeveralPorts: different ones
  std::uint32_t group = kGroupAny;  // kGroupAny: none; kGroupAll: different ones

  bool operator==(const Outputs &) const = default;
};
Outputs outputs_of(Bytes flow_mod);
bool outputs_to(Bytes flow_mod, std::uint32_t port);
bool uses_group(Bytes flow_mod, std::uint32_t group);

// The parts of a southbound flow-mod, bounded by its length; empty if the bytes are missing.
Bytes southbound_match(Bytes flow_mod);
Bytes southbound_actions(Bytes flow_mod);

}  // namespace host::of_ss
