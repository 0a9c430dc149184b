// Turns an OFPT_FLOW_MOD into the southbound flow-mod, and refuses whatever must be refused before the daemon sees it. Pure
// functions, any thread.
//
// Wire layout: OpenFlow 1.3.5, 7.3.4.1; southbound layout: southbound.h.
#pragma once

#include <cstdint>
#include <string>

#include "host/of_ss/wire/actions.h"
#include "host/of_ss/wire/wire.h"

namespace host::of_ss {

inline constexpr std::size_t kMaxFlowMod =
    southbound::kFlowOxm + kMaxSouthboundMatch + 8 + southbound::kInstructionLen + kMaxSouthboundActions;

// A decoded request. The object is large and is meant to be reused for the next request.
struct FlowMod {
  fm::Command command;
  std::uint8_t table_id;
  std::uint16_t flags;
  std::uint64_t cookie, cookie_mask;
  std::uint32_t out_port, out_group;  // filters of the deletes
  // The southbound message: an add with index 0. For a delete only table, priority and match are valid.
  std::size_t length;
  alignas(8) std::byte message[kMaxFlowMod];

  bool deletes() const { return command == fm::kDelete || command == fm::kDeleteStrict; }
  bool modifies() const { return command == fm::kModify || command == fm::kModifyStrict; }
  Bytes southbound() const { return Bytes(message, length); }
};

// Reads the whole OpenFlow message `request`.
Verdict decode_flow_mod(Bytes request, const Terms &terms, FlowMod &out);

// Decodes a match with a table, as in flow and aggregate statistics requests, into `out` in the same way; `at` is the match's
// offset in `request`.
Verdict decode_flow_filter(Bytes request, std::size_t at, std::uint8_t table_id, FlowMod &out);

// A flow-mod from the wire, valid or not, as text: "modify table=0,priority=100 MATCH actions=ACTIONS", with match and actions as
// in match_text and actions_text; "..." where the bytes end early.
std::string flow_mod_text(Bytes request);

// True if the bytes are a whole southbound flow-mod that this library could have written, so that a stored one can be adopted.
bool is_flow_mod(Bytes message);

}  // namespace host::of_ss
