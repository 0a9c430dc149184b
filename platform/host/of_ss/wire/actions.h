// Actions and instructions: the table of the actions the switch carries out, and their way from the wire into the southbound
// instruction block and back. Pure functions, any thread.
//
// Wire layout: OpenFlow 1.3.5, 7.2.4 and 7.2.5; southbound layout: southbound.h.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "host/of_ss/wire/oxm.h"
#include "host/of_ss/wire/wire.h"

namespace host::of_ss {

// Which instructions a flow came with; kept in the flow-mod's kFlowInstructions, so that it can be given back as it came.
enum InstructionForm : std::uint8_t { kFormApply = 1, kFormWrite = 2, kFormClear = 4 };

// The southbound outcome of a flow's instructions.
inline constexpr std::size_t kMaxSouthboundActions = 1024;
struct Instructions {
  std::uint32_t meter_id = 0;  // 0: none
  std::uint8_t form = 0;       // InstructionForm
  std::uint8_t applied = 0;    // how many of the actions are those of APPLY_ACTIONS, the others are of WRITE_ACTIONS
  std::uint16_t length = 0;    // of `actions`
  std::byte actions[kMaxSouthboundActions];
};

// Checks and reads the instructions of a flow that matches on `match`; `ports` are the numbers of the switch's ports, ascending.
// The southbound actions come in the order in which they act: those of APPLY_ACTIONS, then those of WRITE_ACTIONS with the output
// last.
Verdict decode_instructions(Bytes from, const WireMatch &match, std::span<const std::uint32_t> ports, Instructions &out);

// Checks and reads the actions of a packet-out, which may output more than once. The southbound actions come in their order.
Verdict decode_packet_out_actions(Bytes from, std::span<const std::uint32_t> ports, Instructions &out);

// Writes the instructions of a southbound flow-mod for the wire.
void encode_wire_instructions(Bytes flow_mod, Writer &out);

// "output:2,set_queue:3", "drop"; with "meter:5," in front where the flow has one.
std::string actions_text(Bytes flow_mod);

// The instructions of a flow-mod as they came on the wire, in the same words whatever they hold; "..." where the bytes end within
// them.
std::string wire_actions_text(Bytes instructions);

// All kinds that OpenFlow has, and whether the switch supports each.
struct Capability {
  std::uint16_t type;
  const char *name;
  bool supported;
};
std::vector<Capability> action_kinds();
std::vector<Capability> instruction_kinds();
// Whether set-field may set the field.
bool can_set(std::uint8_t field);
// The reserved ports that have a name, and whether flows and packet-outs may output to them.
struct ReservedPort {
  std::uint32_t number;
  const char *name;
  bool for_flows, for_packets;
};
std::span<const ReservedPort> reserved_ports();
inline constexpr std::uint32_t kQueueMin = 1, kQueueMax = 8;

// The port of the flow's output; 0 when it has none.
std::uint32_t output_port(Bytes flow_mod);

// The parts of a southbound flow-mod, bounded by its length; empty where the bytes are not there.
Bytes southbound_match(Bytes flow_mod);
Bytes southbound_actions(Bytes flow_mod);

}  // namespace host::of_ss
