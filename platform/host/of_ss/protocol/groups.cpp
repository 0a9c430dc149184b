#include "host/of_ss/protocol/groups.h"

#include <algorithm>

#include "host/of_ss/desired/flow_selection.h"
#include "host/of_ss/protocol/flow_mods.h"
#include "host/of_ss/protocol/parts.h"

namespace host::of_ss {
namespace {

constexpr std::uint64_t kUnknown = ~std::uint64_t{0};  // a counter that the switch does not have
enum Command : std::uint16_t { kAdd = 0, kModify = 1, kDelete = 2 };

// An OFPT_FLOW_MOD (modify strict) of the flow with its own instructions: decoded again, it carries the present buckets of its
// groups.
Bytes as_request(const FlowEntry &flow, std::vector<std::byte> &buffer) {
  Reply request(buffer, kFlowModMsg, 0);
  Writer &out = request.out;
  out.u64(flow.cookie());
  out.u64(0);
  out.u8(flow.table_id());
  out.u8(fm::kModifyStrict);
  out.zeros(4);
  out.u16(flow.priority());
  out.u32(kNoBuffer);
  out.u32(port::kAny);
  out.u32(kGroupAny);
  out.zeros(4);
  encode_wire_match(southbound_match(flow.southbound()), flow.table_id() == kServiceChainTable, out);
  encode_wire_instructions(flow.southbound(), out);
  return request.finish();
}

// Decodes each flow that uses the group again, into sw.flow_mod, and calls `take`; stops at the first refusal.
template <typename Take>
Verdict each_user(Switch &sw, std::uint32_t group, Take &&take) {
  for (FlowEntry *flow : users_of_group(sw.flows.table(), group)) {
    const Verdict verdict = decode_flow_mod(as_request(*flow, sw.scratch), sw.terms(), sw.flow_mod);
    if (verdict.refused()) return refuse(err::kBadBucket, verdict.what, verdict.why);
    take();
  }
  return {};
}

// Hands over the flows that use the group, with its present buckets.
void change_users(Switch &sw, std::uint32_t group, const Origin &origin, Bytes message) {
  each_user(sw, group, [&] { sw.flows.apply(sw.flow_mod, origin, message, sw.now()); });
}

Verdict refuse_without_groups(std::uint16_t command) {
  if (command == kAdd) return refuse(err::kOutOfGroups, "group", "the target carries out no groups");
  return refuse(err::kUnknownGroup, "group", "the target carries out no groups");
}

// Flows may refer to the group already: the groups of an earlier run of the daemon are not stored, but its flows are.
Verdict add(Switch &sw, std::uint32_t group, const Origin &origin, Bytes message) {
  if (group > kGroupMax) return refuse(err::kInvalidGroup, "group", "not the number of a group, allowed are 0 to 0xffffff00");
  if (sw.groups.knows(group)) return refuse(err::kGroupExists, "group", "there is a group with this number");
  if (sw.groups.all().size() >= kMaxGroups) return refuse(err::kOutOfGroups, "group", "there is no room for another group");
  GroupEntry made{.created_ns = sw.now()};
  if (const Verdict verdict = decode_group(message, sw.terms(), made); verdict.refused()) return verdict;
  sw.groups.add(group, std::move(made));
  if (const Verdict verdict = each_user(sw, group, [] {}); verdict.refused()) {
    sw.groups.remove(group);
    return verdict;
  }
  change_users(sw, group, origin, message);
  return {};
}

Verdict modify(Switch &sw, std::uint32_t group, const Origin &origin, Bytes message) {
  const auto known = sw.groups.all().find(group);
  if (known == sw.groups.all().end()) return refuse(err::kUnknownGroup, "group", "there is no group with this number");
  GroupEntry made{.created_ns = known->second.created_ns};
  if (const Verdict verdict = decode_group(message, sw.terms(), made); verdict.refused()) return verdict;
  GroupEntry before = sw.groups.exchange(group, std::move(made));
  if (const Verdict verdict = each_user(sw, group, [] {}); verdict.refused()) {
    sw.groups.exchange(group, std::move(before));
    return verdict;
  }
  change_users(sw, group, origin, message);
  return {};
}

// Deliberate: deleting a missing group is not an error.
Verdict remove(Switch &sw, std::uint32_t group) {
  sw.flows.remove_users_of_group(group);
  if (group == kGroupAll)
    sw.groups.forget();
  else
    sw.groups.remove(group);
  return {};
}

void put_stats(Writer &out, Switch &sw, std::uint32_t number, const GroupEntry &group) {
  const std::size_t start = out.size();
  out.u16(0);
  out.zeros(2);
  out.u32(number);
  out.u32(static_cast<std::uint32_t>(users_of_group(sw.flows.table(), number).size()));
  out.zeros(4);
  out.u64(kUnknown);
  out.u64(kUnknown);
  const std::int64_t age = std::max<std::int64_t>(sw.now() - group.created_ns, 0);
  out.u32(static_cast<std::uint32_t>(age / kSecondNs));
  out.u32(static_cast<std::uint32_t>(age % kSecondNs));
  group.each_bucket([&out](Bytes) {
    out.u64(kUnknown);
    out.u64(kUnknown);
  });
  out.patch16(start, out.size() - start);
}

}  // namespace

Verdict change_groups(Switch &sw, Connection &connection, Bytes message) {
  const std::uint16_t command = be16(message, 8);
  const std::uint32_t group = be32(message, 12);
  if (command > kDelete) return refuse(err::kGroupBadCommand, "command", "unknown command");
  if (command == kDelete) return remove(sw, group);
  if (!sw.target().does(kGroup)) return refuse_without_groups(command);
  return (command == kAdd ? add : modify)(sw, group, sw.origin(connection, message), message);
}

Verdict group_stats(Switch &sw, Connection &connection, Bytes request) {
  const std::uint32_t wanted = be32(request, kBody);
  Parts parts(sw.scratch, connection, request);
  for (const auto &[number, group] : sw.groups.all())
    if (wanted == kGroupAll || wanted == number) put_stats(parts.entry(), sw, number, group);
  parts.end();
  return {};
}

Verdict group_desc(Switch &sw, Connection &connection, Bytes request) {
  Parts parts(sw.scratch, connection, request);
  for (const auto &[number, group] : sw.groups.all()) {
    Writer &out = parts.entry();
    out.u16(static_cast<std::uint16_t>(8 + group.buckets.size()));
    out.u8(group.type);
    out.u8(0);
    out.u32(number);
    out.bytes(group.buckets);
  }
  parts.end();
  return {};
}

// Zeros for a target without groups.
Verdict group_features(Switch &sw, Connection &connection, Bytes request) {
  constexpr std::uint32_t kTypes = 4;
  const bool has_groups = sw.target().does(kGroup);
  const auto of_type = [has_groups](std::uint32_t type, std::uint64_t value) {
    return has_groups && kGroupTypes >> type & 1 ? static_cast<std::uint32_t>(value) : 0;
  };
  Parts parts(sw.scratch, connection, request);
  Writer &out = parts.entry();
  out.u32(has_groups ? kGroupTypes : 0);
  out.u32(0);  // neither weights, liveness nor chaining
  for (std::uint32_t type = 0; type < kTypes; ++type) out.u32(of_type(type, kMaxGroups));
  for (std::uint32_t type = 0; type < kTypes; ++type)
    out.u32(of_type(type, sw.target().actions & known_actions() & ~bits(kGroup)));
  parts.end();
  return {};
}

}  // namespace host::of_ss
