#include "programmer/entry.h"

#include <algorithm>

#include "s_policy_kelim.pb-c.h"
#include "southbound.h"

namespace programmer {
namespace {

namespace sb = southbound;

// Field numbers of the schema.
enum : std::uint32_t { kFlowData = 8, kFlowAction = 10, kFlowAce = 11 };
enum : std::uint32_t { kAceSn = 1, kAceMatch = 3, kAceActions = 4, kBitmap = 1, kInPort = 2, kWrapped = 1 };
constexpr std::uint64_t kNoSequenceNumber = ~std::uint64_t{0};  // of an ordinary flow's only entry

constexpr std::uint64_t bit(unsigned number) {
  return std::uint64_t{1} << number;
}

// The fields of one message by number; of repeated ones the last.
struct Message {
  static constexpr std::size_t kFields = 37;
  std::array<records::Field, kFields> fields{};

  bool read(Bytes bytes) {
    records::Reader reader(bytes);
    for (records::Field field; reader.next(field);)
      if (field.number < kFields) fields[field.number] = field;
    return !reader.broken();
  }
  std::uint64_t number(std::uint32_t field) const { return fields[field].value; }
};

// ---- one field, into a member

// Unwraps an address, which is a message with a single field.
records::Field unwrapped(const records::Field &field) {
  records::Field found;
  records::Reader reader(field.bytes);
  for (records::Field inner; reader.next(inner);)
    if (inner.number == kWrapped) found = inner;
  return found;
}

template <typename T>
bool take(const records::Field &field, T &to) {
  to = static_cast<T>(field.value);
  return true;
}

bool take(const records::Field &field, std::array<std::uint8_t, 4> &to) {
  const std::uint64_t address = unwrapped(field).value;
  for (std::size_t i = 0; i < to.size(); ++i) to[i] = static_cast<std::uint8_t>(address >> (24 - 8 * i));
  return true;
}

template <std::size_t N>
bool take(const records::Field &field, std::array<std::uint8_t, N> &to) {
  const Bytes bytes = unwrapped(field).bytes;
  if (bytes.size() != N) return false;
  std::ranges::copy(bytes, to.begin());
  return true;
}

template <typename T>
void keep(T &value, T mask) {
  value = static_cast<T>(value & mask);
}
template <std::size_t N>
void keep(std::array<std::uint8_t, N> &value, const std::array<std::uint8_t, N> &mask) {
  for (std::size_t i = 0; i < N; ++i) keep(value[i], mask[i]);
}

// ---- the match

using Rule = bool (*)(const Message &from, std::uint32_t number, Fields &value, Fields &mask);

// Reads the member from field `number` and its mask from the next one. Bits outside `Width` are not part of the field.
template <auto Member, auto... Width>
bool rule(const Message &from, std::uint32_t number, Fields &value, Fields &mask) {
  if (!take(from.fields[number], value.*Member) || !take(from.fields[number + 1], mask.*Member)) return false;
  (keep(mask.*Member, Width), ...);
  keep(value.*Member, mask.*Member);
  return true;
}

// A field of the tag: the packet must have one.
template <auto Member, auto Width>
bool tag_rule(const Message &from, std::uint32_t number, Fields &value, Fields &mask) {
  value.tagged = mask.tagged = true;
  return rule<Member, Width>(from, number, value, mask);
}

// The mask OFPVID_PRESENT (OpenFlow 1.3.5, 7.2.3.7) asks for packets without a tag, the mask 0 for those with any.
bool vid_rule(const Message &from, std::uint32_t number, Fields &value, Fields &mask) {
  constexpr std::uint16_t kPresent = 0x1000;
  std::uint16_t bits = 0;
  if (!take(from.fields[number + 1], bits)) return false;
  if (bits != kPresent) return tag_rule<&Fields::vlan_id, std::uint16_t{0xfff}>(from, number, value, mask);
  mask.tagged = true;
  return true;
}

struct RuleRow {
  SPolicyKelim__FlowAceRuleE bit;
  std::uint32_t number;  // of the value's field in the schema
  Rule read;
};
#define RULE(name) S_POLICY_KELIM__FLOW_ACE_RULE_E__SS_FP_RULE_##name
constexpr RuleRow kRules[] = {
    {RULE(MAC_DST), 3, rule<&Fields::eth_dst>},
    {RULE(MAC_SRC), 5, rule<&Fields::eth_src>},
    {RULE(ETYPE), 7, rule<&Fields::eth_type>},
    {RULE(COS), 9, tag_rule<&Fields::vlan_pcp, std::uint8_t{7}>},
    {RULE(VID), 11, vid_rule},
    {RULE(IPV4_DSCP), 13, rule<&Fields::dscp, std::uint8_t{0x3f}>},
    {RULE(IPV4_PROTOCOL), 15, rule<&Fields::proto>},
    {RULE(IPV4_SRC), 17, rule<&Fields::ipv4_src>},
    {RULE(IPV4_DST), 19, rule<&Fields::ipv4_dst>},
    {RULE(ICMP_TYPE), 21, rule<&Fields::l4_src, std::uint16_t{0xff}>},
    {RULE(ICMP_CODE), 23, rule<&Fields::l4_dst, std::uint16_t{0xff}>},
    {RULE(SRC_L4PORT), 25, rule<&Fields::l4_src>},
    {RULE(DST_L4PORT), 27, rule<&Fields::l4_dst>},
    {RULE(IPV6_SRC), 29, rule<&Fields::ipv6_src>},
    {RULE(IPV6_DST), 31, rule<&Fields::ipv6_dst>},
    {RULE(IPV6_NEXT_HDR), 35, rule<&Fields::ext_headers, std::uint16_t{0x1ff}>},
};
constexpr std::uint64_t kKnownRules = [] {
  std::uint64_t known = 0;
  for (const RuleRow &row : kRules) known |= bit(row.bit);
  return known;
}();
#undef RULE

const char *read_match(Bytes bytes, Entry &entry) {
  Message match;
  if (!match.read(bytes)) return "a match that cannot be read";
  const std::uint64_t wanted = match.number(kBitmap);
  if ((wanted & ~kKnownRules) != 0) return "a match on an unsupported field";
  entry.value.in_port = static_cast<std::uint32_t>(match.number(kInPort));
  entry.mask.in_port = entry.value.in_port != 0 ? ~std::uint32_t{0} : 0;
  for (const RuleRow &row : kRules)
    if ((wanted & bit(row.bit)) != 0 && !row.read(match, row.number, entry.value, entry.mask)) return "a match of a wrong width";
  return nullptr;
}

// ---- the actions

template <auto Member, auto... Width>
bool rewrite(const records::Field &from, EntryActions &to) {
  if (!take(from, to.*Member)) return false;
  (keep(to.*Member, Width), ...);
  return true;
}

struct RewriteRow {
  SPolicyKelim__FlowAceActionE bit;
  std::uint32_t number;
  std::uint8_t set;
  bool (*read)(const records::Field &, EntryActions &);
};
#define ACTION(name) S_POLICY_KELIM__FLOW_ACE_ACTION_E__SS_FP_ACTION_##name
constexpr RewriteRow kRewrites[] = {
    {ACTION(VID), 3, EntryActions::kVlanId, rewrite<&EntryActions::vlan_id, std::uint16_t{0xfff}>},
    {ACTION(COS), 4, EntryActions::kVlanPcp, rewrite<&EntryActions::vlan_pcp, std::uint8_t{7}>},
    {ACTION(IPV4_DSCP), 5, EntryActions::kDscp, rewrite<&EntryActions::dscp, std::uint8_t{0x3f}>},
    {ACTION(SET_DMAC), 7, EntryActions::kEthDst, rewrite<&EntryActions::eth_dst>},
    {ACTION(SET_SMAC), 9, EntryActions::kEthSrc, rewrite<&EntryActions::eth_src>},
    {ACTION(PRIO_IN), 11, EntryActions::kQueue, rewrite<&EntryActions::queue>},
};
constexpr std::uint32_t kRedirectIfx = 12;

const char *read_actions(Bytes bytes, bool sets_priority, EntryActions &out) {
  Message actions;
  if (!actions.read(bytes)) return "actions that cannot be read";
  std::uint64_t wanted = actions.number(kBitmap);
  if ((wanted & bit(ACTION(L3_SWITCH))) != 0) return "an unsupported action, routing";
  if (!sets_priority) wanted &= ~bit(ACTION(COS));
  for (const RewriteRow &row : kRewrites) {
    if ((wanted & bit(row.bit)) == 0) continue;
    if (!row.read(actions.fields[row.number], out)) return "an action of a wrong width";
    out.sets = static_cast<std::uint8_t>(out.sets | row.set);
  }
  if ((wanted & bit(ACTION(REDIRECT))) != 0) out.output = static_cast<std::uint32_t>(actions.number(kRedirectIfx));
  return nullptr;
}
#undef ACTION

// ---- the record

// Deliberate: the bit of the VLAN priority is present with every output to IN_PORT, ALL or CONTROLLER; for an ordinary flow only
// the flow's own actions tell whether the priority is set.
const char *read_entry(Bytes bytes, bool flow_sets_priority, Entry &entry, bool &ordinary) {
  Message ace;
  if (!ace.read(bytes)) return "an entry that cannot be read";
  ordinary = ace.number(kAceSn) == kNoSequenceNumber;
  if (const char *fault = read_match(ace.fields[kAceMatch].bytes, entry)) return fault;
  return read_actions(ace.fields[kAceActions].bytes, !ordinary || flow_sets_priority, entry.actions);
}

bool read_flow_mod(Bytes flow_mod, FlowProgram &out) {
  if (flow_mod.size() < sb::kFlowOxm) return false;
  const std::uint32_t priority = sb::get<std::uint16_t>(flow_mod.data(), sb::kFlowPriority);
  const bool second_table = sb::get<std::uint8_t>(flow_mod.data(), sb::kFlowTableId) == 1;
  out.rank = (priority << 1 | (second_table ? 1U : 0U)) + 1;
  out.cookie = sb::get<std::uint64_t>(flow_mod.data(), sb::kFlowCookie);
  out.meter = sb::get<std::uint32_t>(flow_mod.data(), sb::kFlowMeterId);
  return true;
}

const char *read_list(Bytes flow_mod, FlowProgram &out) {
  if (const char *fault = read_actions(sb::flow_view(flow_mod.data(), flow_mod.size()).action_bytes(), out.list)) return fault;
  if (!says_more(out.list)) out.list.clear();
  return nullptr;
}

bool sets_priority(Bytes flow_action) {
  Message action;
  return action.read(flow_action) && (action.number(kBitmap) & bit(S_POLICY_KELIM__FLOW_ACTION_E__SET_VLAN_PCP)) != 0;
}

}  // namespace

const char *read_program(Bytes flow_record, FlowProgram &out) {
  out.entries.clear();
  out.list.clear();
  Bytes flow_mod, flow_action;
  records::Reader reader(flow_record);
  for (records::Field field; reader.next(field);) {
    if (field.number == kFlowData) flow_mod = field.bytes;
    if (field.number == kFlowAction) flow_action = field.bytes;
  }
  if (reader.broken()) return "a record that cannot be read";
  if (!read_flow_mod(flow_mod, out)) return "a record without its flow-mod";
  const bool priority = sets_priority(flow_action);
  bool ordinary = false;
  records::Reader entries(flow_record);
  for (records::Field field; entries.next(field);) {
    if (field.number != kFlowAce) continue;
    if (const char *fault = read_entry(field.bytes, priority, out.entries.emplace_back(), ordinary)) return fault;
  }
  if (out.entries.empty()) return "a record without an entry";
  return ordinary && out.entries.size() == 1 ? read_list(flow_mod, out) : nullptr;
}

}  // namespace programmer
