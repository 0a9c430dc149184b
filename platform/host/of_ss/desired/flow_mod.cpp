#include "host/of_ss/desired/flow_mod.h"

#include <fmt/format.h>

#include "host/of_ss/wire/message_names.h"
#include "southbound.h"

namespace host::of_ss {
namespace {

namespace sb = southbound;

constexpr std::uint16_t kMatchTypeOxm = 1;
// The flags that stay with a flow; the others concern only the request.
constexpr std::uint16_t kLastingFlags = fm::kSendFlowRem | fm::kNoPacketCounts | fm::kNoByteCounts;

Verdict check_head(const FlowMod &mod, std::uint32_t buffer_id) {
  const bool all_tables = mod.deletes() && mod.table_id == kTableAll;
  if (mod.command > fm::kDeleteStrict) return refuse(err::kBadCommand, "command", "unknown command");
  if (mod.table_id >= kTableCount && !all_tables)
    return refuse(err::kBadTableId, "table", "no such table, there are 0 and 1; all tables (255) only for a delete");
  if (mod.flags & ~fm::kKnownFlags) return refuse(err::kBadFlags, "flags", "unknown flag");
  if (buffer_id != kNoBuffer && !mod.deletes()) return refuse(err::kBufferUnknown, "buffer_id", "the switch buffers no packets");
  return {};
}

void read_head(Bytes request, FlowMod &out) {
  out.command = static_cast<fm::Command>(be8(request, fm::kCommand));
  out.table_id = be8(request, fm::kTableId);
  out.flags = be16(request, fm::kFlags);
  out.cookie = be64(request, fm::kCookie);
  out.cookie_mask = be64(request, fm::kCookieMask);
  out.out_port = be32(request, fm::kOutPort);
  out.out_group = be32(request, fm::kOutGroup);
}

bool has_chain_type(const WireMatch &match) {
  return match.has(kOxmAppType) && load_be<std::uint32_t>(match.value[kOxmAppType]) == sb::kServiceChainAppType;
}

// The table determines the application type: in table 1 another one would be lost.
Verdict check_app_type(const WireMatch &match, bool service_chain) {
  if (!service_chain || !match.has(kOxmAppType) || has_chain_type(match)) return {};
  return refuse(err::kBadValue, "app_type", "flows of table 1 have application type 3");
}

// Match and head of the southbound message; the instructions follow at the returned offset.
Verdict put_match(Bytes from, const TargetCapabilities &target, FlowMod &out, WireMatch &match) {
  const bool service_chain = out.table_id == kServiceChainTable;
  if (const Verdict verdict = decode_match(from, target, match); verdict.refused()) return verdict;
  if (const Verdict verdict = check_app_type(match, service_chain); verdict.refused()) return verdict;
  std::memset(out.message, 0, sb::kFlowOxm);
  const std::size_t slots = encode_southbound_match(match, service_chain, out.message + sb::kFlowOxm);
  sb::put(out.message, sb::kFlowTableId, out.table_id);
  sb::put(out.message, sb::kFlowMatchType, kMatchTypeOxm);
  sb::put(out.message, sb::kFlowMatchLen, static_cast<std::uint16_t>(slots));
  const std::size_t block = sb::flow_instruction_offset(static_cast<std::uint16_t>(slots));
  std::memset(out.message + sb::kFlowOxm + slots, 0, block + sb::kInstructionLen - sb::kFlowOxm - slots);
  out.length = block + sb::kInstructionLen;
  return {};
}

void put_instructions(const Instructions &instructions, FlowMod &out) {
  sb::put(out.message, sb::kFlowMeterId, instructions.meter_id);
  sb::put(out.message, sb::kFlowInstructions, instructions.form);
  sb::put(out.message, sb::kFlowApplied, instructions.applied);
  sb::put(out.message, out.length - sb::kInstructionLen, static_cast<std::int32_t>(instructions.length));
  std::memcpy(out.message + out.length, instructions.actions, instructions.length);
  out.length += instructions.length;
}

void put_head(Bytes request, FlowMod &out) {
  sb::put_header(out.message, sb::kFlowMod, kVersion, static_cast<std::uint16_t>(out.length), 0);
  sb::put(out.message, sb::kFlowCookie, out.cookie);
  sb::put(out.message, sb::kFlowPriority, be16(request, fm::kPriority));
  sb::put(out.message, sb::kFlowFlags, static_cast<std::uint16_t>(out.flags & kLastingFlags));
  sb::put(out.message, sb::kFlowCommand, sb::kFlowAdd);
  sb::put(out.message, sb::kFlowIdleTimeout, be16(request, fm::kIdle));
  sb::put(out.message, sb::kFlowHardTimeout, be16(request, fm::kHard));
}

}  // namespace

Verdict decode_flow_mod(Bytes request, const Terms &terms, FlowMod &out) {
  if (request.size() < fm::kMinLength) return refuse(err::kBadLen, "length", "shorter than a flow-mod");
  read_head(request, out);
  if (const Verdict verdict = check_head(out, be32(request, fm::kBufferId)); verdict.refused()) return verdict;
  WireMatch match;
  if (const Verdict verdict = put_match(request.subspan(fm::kMatch), terms.target, out, match); verdict.refused()) return verdict;
  if (!out.deletes()) {
    Instructions instructions;
    const Bytes from = request.subspan(fm::kMatch + match.wire_len);
    const bool translated = out.table_id == kServiceChainTable || has_chain_type(match);
    const Verdict verdict =
        decode_instructions(from, match, translated ? Terms{terms.ports, by_entries(terms.target)} : terms, instructions);
    if (verdict.refused()) return verdict;
    put_instructions(instructions, out);
  }
  put_head(request, out);
  return {};
}

Verdict decode_flow_filter(Bytes request, std::size_t at, std::uint8_t table_id, FlowMod &out) {
  out.command = fm::kDelete;
  out.table_id = table_id;
  WireMatch match;
  return put_match(request.subspan(at), kUnannounced, out, match);
}

std::string flow_mod_text(Bytes request) {
  if (request.size() < fm::kMinLength) return "...";
  const Bytes match = request.subspan(fm::kMatch);
  const std::size_t match_len = (be16(match, 2) + std::size_t{7}) & ~std::size_t{7};
  const std::uint8_t command = be8(request, fm::kCommand);
  std::string text = fmt::format("{} table={},priority={}", command_name(kFlowModMsg, command), be8(request, fm::kTableId),
                                 be16(request, fm::kPriority));
  if (const std::string fields = wire_match_text(match); !fields.empty()) text += "," + fields;
  if (command >= fm::kDelete || text.ends_with("...")) return text;
  return text + " actions=" + (match_len <= match.size() ? wire_actions_text(match.subspan(match_len)) : "...");
}

bool is_flow_mod(Bytes message) {
  if (message.size() < sb::kFlowOxm || message.size() > kMaxFlowMod) return false;
  if (sb::get<std::uint16_t>(message.data(), sb::kType) != sb::kFlowMod) return false;
  if (sb::get<std::uint16_t>(message.data(), sb::kLen) != message.size()) return false;
  if (sb::get<std::uint8_t>(message.data(), sb::kFlowTableId) >= kTableCount) return false;
  const auto match_len = sb::get<std::uint16_t>(message.data(), sb::kFlowMatchLen);
  return match_len <= kMaxSouthboundMatch && sb::flow_instruction_offset(match_len) + sb::kInstructionLen <= message.size();
}

}  // namespace host::of_ss
