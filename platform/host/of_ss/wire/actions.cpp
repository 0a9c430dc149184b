#include "host/of_ss/wire/actions.h"

#include <fmt/format.h>

#include <algorithm>

namespace host::of_ss {
namespace {

namespace sb = southbound;

constexpr std::size_t kOutputLen = 16, kShortLen = 8, kMaxActions = 255;
constexpr std::uint16_t kControllerNoBuffer = 0xffff;

// The context in which actions are read.
enum class ListOf { flow, packet_out, bucket };
struct Context {
  const WireMatch *match;  // null if it is not a flow's
  const Terms &terms;
  ListOf list_of;
};

// The southbound list being built.
struct List {
  Instructions &out;
  std::size_t count = 0, groups = 0;
  bool output = false;    // it contains an output
  bool normal = false;    // and that is to NORMAL
  bool in_group = false;  // the buckets of a group are being read
  bool changed = false;   // by a group whose rewrites reach what follows
  int tags = 0;           // VLAN tags that every packet surely has here

  std::byte *add(std::uint16_t type, std::size_t length) {
    if (count == kMaxActions || out.length + length > kMaxSouthboundActions) return nullptr;
    std::byte *at = out.actions + out.length;
    std::memset(at, 0, length);
    sb::put(at, sb::kActionType, type);
    sb::put(at, sb::kActionLen, static_cast<std::uint16_t>(length));
    out.length = static_cast<std::uint16_t>(out.length + length);
    ++count;
    return at;
  }
};

constexpr Verdict kTooManyActions{&err::kTooMany, "actions", "more actions than a flow may have"};
constexpr Verdict kAfterOutput{&err::kUnsupportedOrder, "actions", "the action comes after the output and would act on nothing"};
constexpr Verdict kAfterNormal{&err::kUnsupportedOrder, "actions", "nothing can follow output NORMAL"};
constexpr Verdict kAfterGroup{&err::kUnsupportedOrder, "actions",
                              "the rewrites of the group before the action would reach its packet"};
constexpr Verdict kAnotherPacket{&err::kMatchInconsistent, "actions",
                                 "the action does not fit every packet that the flow matches"};

// An action of a flow other than an output: the target may have to act where the output stands.
Verdict check_place(const Context &context, const List &list) {
  if (list.changed) return kAfterGroup;
  if (!context.match || !list.output || list.in_group) return {};
  return list.normal ? kAfterNormal : context.terms.target.several_outputs ? Verdict{} : kAfterOutput;
}

bool is_port(std::span<const std::uint32_t> ports, std::uint32_t number) {
  return std::binary_search(ports.begin(), ports.end(), number);
}

constexpr ReservedPort kReservedPorts[] = {
    {port::kInPort, "IN_PORT", true, true},        {port::kNormal, "NORMAL", true, false}, {port::kAll, "ALL", true, true},
    {port::kController, "CONTROLLER", true, true}, {port::kTable, "TABLE", false, true},   {port::kFlood, "FLOOD", false, true},
    {port::kLocal, "LOCAL", false, false},
};

const ReservedPort *find_reserved(std::uint32_t number) {
  const auto *found = std::ranges::find(kReservedPorts, number, &ReservedPort::number);
  return found == std::end(kReservedPorts) ? nullptr : found;
}

bool may_output(const Context &context, std::uint32_t number) {
  if (number <= port::kMax) return is_port(context.terms.ports, number);
  const ReservedPort *reserved = find_reserved(number);
  if (!reserved || context.list_of == ListOf::packet_out) return reserved && reserved->for_packets;
  return reserved->for_flows && (context.list_of != ListOf::bucket || number != port::kNormal);
}

Verdict read_output(Bytes action, const Context &context, List &list) {
  if (action.size() != kOutputLen) return refuse(err::kActionBadLen, "output", "the length of the action is not 16");
  const std::uint32_t number = be32(action, 4);
  if (!may_output(context, number))
    return refuse(err::kBadOutPort, "output", "no such port, or a reserved one that cannot be used here");
  if (list.changed) return kAfterGroup;
  if (list.normal && context.match) return kAfterNormal;
  if (list.output && context.match && !context.terms.target.several_outputs)
    return refuse(err::kTooMany, "output", "a flow has one output");
  std::byte *at = list.add(kOutput, kOutputLen);
  if (!at) return kTooManyActions;
  sb::put(at, sb::kActionBody, number);
  sb::put(at, sb::kActionValue, be16(action, 8));
  list.output = true;
  list.normal = number == port::kNormal;
  return {};
}

// An action of 8 bytes.
Verdict add_short(std::uint16_t type, std::uint32_t number, const Context &context, List &list) {
  if (const Verdict verdict = check_place(context, list); verdict.refused()) return verdict;
  std::byte *at = list.add(type, kShortLen);
  if (!at) return kTooManyActions;
  sb::put(at, sb::kActionBody, number);
  return {};
}

Verdict read_set_queue(Bytes action, const Context &context, List &list) {
  if (action.size() != kShortLen) return refuse(err::kActionBadLen, "set_queue", "the length of the action is not 8");
  const std::uint32_t queue = be32(action, 4);
  if (queue < kQueueMin || queue > context.terms.target.queues)
    return refuse(err::kBadQueue, "set_queue", "no such queue; kelimctl capabilities lists those that exist");
  return add_short(kSetQueue, queue, context, list);
}

// ---- tags

Verdict read_push_vlan(Bytes action, const Context &context, List &list) {
  if (action.size() != kShortLen) return refuse(err::kActionBadLen, "push_vlan", "the length of the action is not 8");
  const std::uint16_t type = be16(action, 4);
  if (type != 0x8100 && type != 0x88a8) return refuse(err::kBadArgument, "push_vlan", "a tag has type 0x8100 or 0x88a8");
  ++list.tags;
  return add_short(kPushVlan, type, context, list);
}

Verdict read_pop_vlan(Bytes action, const Context &context, List &list) {
  if (action.size() != kShortLen) return refuse(err::kActionBadLen, "pop_vlan", "the length of the action is not 8");
  if (context.match && list.tags-- == 0) return kAnotherPacket;
  return add_short(kPopVlan, 0, context, list);
}

// ---- time to live

Verdict read_set_ttl(Bytes action, const Context &context, List &list) {
  if (action.size() != kShortLen) return refuse(err::kActionBadLen, "set_nw_ttl", "the length of the action is not 8");
  if (context.match && !satisfies(*context.match, Needs::ip)) return kAnotherPacket;
  return add_short(kSetNwTtl, be8(action, 4), context, list);
}

Verdict read_dec_ttl(Bytes action, const Context &context, List &list) {
  if (action.size() != kShortLen) return refuse(err::kActionBadLen, "dec_nw_ttl", "the length of the action is not 8");
  if (context.match && !satisfies(*context.match, Needs::ip)) return kAnotherPacket;
  return add_short(kDecNwTtl, 0, context, list);
}

Verdict refuse_group(Bytes, const Context &, List &) {
  return refuse(err::kBadOutGroup, "group", "the target carries out no groups");
}

Verdict read_group(Bytes action, const Context &context, List &list);

Verdict refuse_experimenter(Bytes, const Context &, List &) {
  return refuse(err::kActionBadExperimenter, "experimenter action", "the switch knows no experimenter's actions");
}

// The field that a set-field sets; null if it cannot be set.
const OxmField *settable(std::uint32_t header, const TargetCapabilities &target) {
  const std::uint8_t number = header >> 9 & 0x7f;
  return header >> 16 == 0x8000 && !(header >> 8 & 1) && target.sets(number) ? &oxm_field(number) : nullptr;
}

Verdict check_set_field(Bytes action, const OxmField &field, const Context &context, const List &list) {
  if ((be32(action, 4) & 0xff) != field.width || action.size() != sb::action_step(static_cast<std::uint16_t>(8 + field.width)))
    return refuse(err::kBadSetLen, field.name, "the length of the value is wrong");
  if (const Verdict verdict = check_value(field, action.data() + 8, nullptr); verdict.refused())
    return refuse(err::kBadSetArgument, field.name, verdict.why);
  const bool of_tag = field.number == kOxmVlanVid || field.number == kOxmVlanPcp;
  if (context.match && (of_tag ? list.tags == 0 : !satisfies(*context.match, field.needs)))
    return refuse(err::kMatchInconsistent, field.name, "the flow also matches packets that do not have the field");
  return {};
}

Verdict read_set_field(Bytes action, const Context &context, List &list) {
  const OxmField *field = settable(be32(action, 4), context.terms.target);
  if (!field)
    return refuse(err::kBadSetType, "set_field",
                  "a mask, or a field that is not set; kelimctl capabilities lists those that are");
  if (const Verdict verdict = check_set_field(action, *field, context, list); verdict.refused()) return verdict;
  if (const Verdict verdict = check_place(context, list); verdict.refused()) return verdict;
  std::byte *at = list.add(kSetField, action.size());
  if (!at) return kTooManyActions;
  sb::put(at, sb::kActionBody, oxm_header(*field, false));
  put_southbound_value(*field, action.data() + 8, at + sb::kActionValue);
  return {};
}

Verdict refuse_action(Bytes, const Context &, List &) {
  return refuse(err::kBadAction, "actions", "the switch does not carry out this type of action");
}

// Selects the actions of a list to read. Those of an action set act in this order, whatever their order in the list (5.10).
enum class Pass { every, pop, push, dec_ttl, set, group, output };
constexpr Pass kActionSet[] = {Pass::pop, Pass::push, Pass::dec_ttl, Pass::set, Pass::group, Pass::output};

// Every action of OpenFlow 1.3, those that can be supported first.
using Read = Verdict (*)(Bytes action, const Context &context, List &list);
struct ActionRow {
  std::uint16_t type;
  const char *name;
  std::size_t argument = 0;     // bytes of the number behind the header; 2 bytes are an EtherType
  Read read = nullptr;          // null: never supported
  Read refuse = refuse_action;  // if it is not supported
  Pass pass = Pass::set;        // its place in an action set
};
constexpr ActionRow kActions[] = {
    {kOutput, "output", 4, read_output, refuse_action, Pass::output},
    {kSetQueue, "set_queue", 4, read_set_queue},
    {kSetField, "set_field", 0, read_set_field},
    {kPushVlan, "push_vlan", 2, read_push_vlan, refuse_action, Pass::push},
    {kPopVlan, "pop_vlan", 0, read_pop_vlan, refuse_action, Pass::pop},
    {kSetNwTtl, "set_nw_ttl", 1, read_set_ttl},
    {kDecNwTtl, "dec_nw_ttl", 0, read_dec_ttl, refuse_action, Pass::dec_ttl},
    {kGroup, "group", 4, read_group, refuse_group, Pass::group},
    {kActionExperimenter, "experimenter", 4, nullptr, refuse_experimenter},
    {11, "copy_ttl_out"},
    {12, "copy_ttl_in"},
    {15, "set_mpls_ttl", 1},
    {16, "dec_mpls_ttl"},
    {19, "push_mpls", 2},
    {20, "pop_mpls", 2},
    {26, "push_pbb", 2},
    {27, "pop_pbb"},
};
constexpr ActionRow kUnknownAction{0, "action", 2};

bool does(const ActionRow &row, const TargetCapabilities &target) {
  return row.read && target.does(row.type);
}

const ActionRow &row_of(std::uint16_t type) {
  for (const ActionRow &row : kActions)
    if (row.type == type) return row;
  return kUnknownAction;
}

Verdict read_action(Bytes action, const Context &context, List &list) {
  const std::uint16_t type = be16(action, 0);
  const ActionRow &row = row_of(type);
  return (does(row, context.terms.target) ? row.read : row.refuse)(action, context, list);
}

bool wanted(Pass pass, std::uint16_t type) {
  return pass == Pass::every || pass == row_of(type).pass;
}

Verdict read_actions(Bytes from, Pass pass, const Context &context, List &list) {
  int of_pass = 0;
  while (!from.empty()) {
    const std::size_t length = from.size() >= 8 ? be16(from, 2) : 0;
    if (length < 8 || length % 8 || length > from.size())
      return refuse(err::kActionBadLen, "actions", "the length of an action is not a multiple of 8 within the list");
    if (wanted(pass, be16(from, 0))) {
      if (pass != Pass::every && pass != Pass::set && ++of_pass > 1)
        return refuse(err::kTooMany, "write_actions", "an action set has one action of a type");
      if (const Verdict verdict = read_action(from.first(length), context, list); verdict.refused()) return verdict;
    }
    from = from.subspan(length);
  }
  return {};
}

// An action set with a group does not carry out its output (5.10).
Verdict read_action_set(Bytes from, const Context &context, List &list) {
  const std::size_t before = list.groups;
  for (const Pass pass : kActionSet) {
    if (pass == Pass::output && list.groups != before) return {};
    if (const Verdict verdict = read_actions(from, pass, context, list); verdict.refused()) return verdict;
  }
  return {};
}

Verdict read_buckets(const GroupPlan &plan, const Context &context, List &list) {
  for (const GroupPlan::Bucket &bucket : plan.buckets) {
    const int tags = list.tags;
    if (const Verdict verdict = read_action_set(bucket.actions, context, list); verdict.refused()) return verdict;
    if (bucket.pops_back && !list.add(kPopVlan, kShortLen)) return kTooManyActions;
    list.tags = tags;
  }
  return {};
}

// Writes the group's entry and, after it, the actions of its buckets.
Verdict read_group(Bytes action, const Context &context, List &list) {
  if (action.size() != kShortLen) return refuse(err::kActionBadLen, "group", "the length of the action is not 8");
  if (list.in_group || context.list_of == ListOf::bucket)
    return refuse(err::kChaining, "group", "a bucket of a group cannot refer to another group");
  const std::uint32_t number = be32(action, 4);
  const GroupPlan *plan = context.terms.groups ? context.terms.groups->plan_of(number) : nullptr;
  if (!plan) return refuse(err::kBadOutGroup, "group", "there is no group with this number");
  if (const Verdict verdict = check_place(context, list); verdict.refused()) return verdict;
  std::byte *at = list.add(kGroup, sb::kActionGroupLen);
  if (!at) return kTooManyActions;
  const std::size_t begin = list.out.length;
  list.in_group = true;
  if (const Verdict verdict = read_buckets(*plan, context, list); verdict.refused()) return verdict;
  list.in_group = false;
  sb::put(at, sb::kActionBody, number);
  sb::put(at, sb::kActionGroupBytes, static_cast<std::uint32_t>(list.out.length - begin));
  list.output = true;
  list.changed = !plan->leaves_as_is;
  ++list.groups;
  return {};
}

// The instructions of a flow, by kind.
struct Found {
  Bytes applied, written;
  std::uint8_t seen = 0;  // one bit per type
};

Verdict take_actions(Bytes instruction, Bytes &list, std::uint8_t form, Instructions &out) {
  if (instruction.size() < 8) return refuse(err::kInstructionBadLen, "instructions", "the length of an instruction is wrong");
  list = instruction.subspan(8);
  out.form |= form;
  return {};
}

Verdict read_apply(Bytes instruction, Found &found, Instructions &out) {
  return take_actions(instruction, found.applied, kFormApply, out);
}

Verdict read_write(Bytes instruction, Found &found, Instructions &out) {
  return take_actions(instruction, found.written, kFormWrite, out);
}

Verdict read_clear(Bytes instruction, Found &, Instructions &out) {
  if (instruction.size() != 8) return refuse(err::kInstructionBadLen, "clear_actions", "the length of the instruction is not 8");
  out.form |= kFormClear;
  return {};
}

Verdict read_meter(Bytes instruction, Found &, Instructions &out) {
  if (instruction.size() != 8) return refuse(err::kInstructionBadLen, "meter", "the length of the instruction is not 8");
  out.meter_id = be32(instruction, 4);
  if (out.meter_id == 0 || out.meter_id > kMeterMax) return refuse(err::kInvalidMeter, "meter", "not the number of a meter");
  return {};
}

Verdict refuse_goto(Bytes, Found &, Instructions &) {
  return refuse(err::kInstructionBadTable, "goto_table", "the tables of the switch are not a pipeline");
}

Verdict refuse_metadata(Bytes, Found &, Instructions &) {
  return refuse(err::kUnsupportedMetadata, "write_metadata", "the switch has no metadata");
}

// By type, starting at 1.
struct InstructionRow {
  Capability kind;
  Verdict (*read)(Bytes instruction, Found &found, Instructions &out);
};
constexpr std::array<InstructionRow, 6> kInstructions{{
    {{kGotoTable, "goto_table", false}, refuse_goto},
    {{kWriteMetadata, "write_metadata", false}, refuse_metadata},
    {{kWriteActions, "write_actions", true}, read_write},
    {{kApplyActions, "apply_actions", true}, read_apply},
    {{kClearActions, "clear_actions", true}, read_clear},
    {{kMeterInstruction, "meter", true}, read_meter},
}};

Verdict read_instruction(Bytes instruction, Found &found, Instructions &out) {
  const std::uint16_t type = be16(instruction, 0);
  if (type == kInstructionExperimenter)
    return refuse(err::kInstructionExperimenterUnknown, "instructions", "the switch knows no experimenter's instructions");
  if (type == 0 || type > kInstructions.size())
    return refuse(err::kUnknownInstruction, "instructions", "unknown type of instruction");
  if (found.seen >> type & 1) return refuse(err::kUnsupportedInstruction, "instructions", "an instruction appears twice");
  found.seen = static_cast<std::uint8_t>(found.seen | 1 << type);
  return kInstructions[type - 1].read(instruction, found, out);
}

Verdict sort_out(Bytes from, Found &found, Instructions &out) {
  while (!from.empty()) {
    const std::size_t length = from.size() >= 4 ? be16(from, 2) : 0;
    if (length < 4 || length > from.size() || length % 8)
      return refuse(err::kInstructionBadLen, "instructions",
                    "the length of an instruction is not a multiple of 8 within the message");
    if (const Verdict verdict = read_instruction(from.first(length), found, out); verdict.refused()) return verdict;
    from = from.subspan(length);
  }
  return {};
}

// One action of a southbound list.
struct SouthboundAction {
  std::uint16_t type;
  Bytes bytes;
  template <typename T>
  T value(std::size_t at) const {
    return sb::get<T>(bytes.data(), at);
  }
};

bool next_action(Bytes &list, SouthboundAction &action) {
  const sb::action_walk actions(list);
  const Bytes entry = actions.entry();
  if (!actions.whole() || entry.empty() || entry.size() % 8 != 0) return false;
  action = {sb::get<std::uint16_t>(entry.data(), sb::kActionType), entry};
  list = list.subspan(entry.size());
  return true;
}

// Reads the next action that the controller wrote: after a group's entry it skips the actions of the buckets. Returns the number
// of southbound actions consumed; 0 at the end.
std::size_t next_written(Bytes &list, SouthboundAction &action) {
  if (!next_action(list, action)) return 0;
  if (action.type != kGroup || action.bytes.size() != sb::kActionGroupLen) return 1;
  const std::size_t left = list.size() - std::min<std::size_t>(list.size(), action.value<std::uint32_t>(sb::kActionGroupBytes));
  std::size_t consumed = 1;
  for (SouthboundAction of_group; list.size() > left && next_action(list, of_group);) ++consumed;
  return consumed;
}

// Calls `take` with the type and the number of each action of the flow, but not of its groups' buckets.
template <typename Take>
void each_number(Bytes flow_mod, Take &&take) {
  Bytes list = southbound_actions(flow_mod);
  for (SouthboundAction action; next_written(list, action) != 0;) take(action.type, action.value<std::uint32_t>(sb::kActionBody));
}

bool has(Bytes flow_mod, ActionType type, std::uint32_t number) {
  bool found = false;
  each_number(flow_mod, [&](std::uint16_t other, std::uint32_t its) { found = found || (other == type && its == number); });
  return found;
}

const OxmField &set_field_row(const SouthboundAction &action) {
  return oxm_field(std::min<std::size_t>(action.value<std::uint32_t>(sb::kActionBody) >> 9 & 0x7f, kOxmAppType));
}

// True if the action is long enough for the field that it names. Always true for actions written by read_set_field.
bool holds_field(const SouthboundAction &action) {
  return action.bytes.size() >= sb::kActionValue + set_field_row(action).width && kKnownSets >> set_field_row(action).number & 1;
}

void put_number(std::uint32_t number, std::size_t width, Writer &out) {
  if (width == 1) out.u8(static_cast<std::uint8_t>(number));
  if (width == 2) out.u16(static_cast<std::uint16_t>(number));
  if (width == 4) out.u32(number);
}

void put_wire_action(const SouthboundAction &action, Writer &out) {
  const std::size_t start = out.size();
  out.u16(action.type);
  const std::size_t length = action.type == kGroup ? kShortLen : action.bytes.size();
  out.u16(static_cast<std::uint16_t>(length));
  if (action.type == kOutput && action.bytes.size() == kOutputLen) {
    out.u32(action.value<std::uint32_t>(sb::kActionBody));
    out.u16(action.value<std::uint16_t>(sb::kActionValue));
  } else if (action.type == kSetField && holds_field(action)) {
    out.u32(action.value<std::uint32_t>(sb::kActionBody));
    put_wire_value(set_field_row(action), action.bytes.data() + sb::kActionValue, out);
  } else {
    put_number(action.value<std::uint32_t>(sb::kActionBody), row_of(action.type).argument, out);
  }
  out.zeros(start + length - out.size());
}

// Writes one action instruction with the next `count` actions of `list`.
void put_action_instruction(InstructionType type, std::size_t count, Bytes &list, Writer &out) {
  const std::size_t start = out.size();
  out.u16(type);
  out.u16(0);
  out.zeros(4);
  SouthboundAction action;
  for (std::size_t n = 0; count > 0 && (n = next_written(list, action)) != 0; count -= std::min(count, n))
    put_wire_action(action, out);
  out.patch16(start + 2, out.size() - start);
}

std::string output_text(std::uint32_t number, std::uint16_t max_len) {
  const ReservedPort *reserved = find_reserved(number);
  const bool cut = number == port::kController && max_len != kControllerNoBuffer;
  return "output:" + (reserved ? reserved->name : std::to_string(number)) + (cut ? fmt::format(":{}", max_len) : "");
}

std::string number_text(const ActionRow &row, std::uint32_t number) {
  if (row.argument == 0) return row.name;
  return row.argument == 2 ? fmt::format("{}:0x{:04x}", row.name, number) : fmt::format("{}:{}", row.name, number);
}

std::string action_text(const SouthboundAction &action) {
  const auto word = action.value<std::uint32_t>(sb::kActionBody);
  if (action.type == kOutput)
    return output_text(word,
                       action.bytes.size() == kOutputLen ? action.value<std::uint16_t>(sb::kActionValue) : kControllerNoBuffer);
  if (action.type == kSetField && holds_field(action)) {
    const OxmField &field = set_field_row(action);
    return fmt::format("set_field:{}->{}", value_text(field, action.bytes.data() + sb::kActionValue), field.name);
  }
  return number_text(row_of(action.type), word);
}

}  // namespace

Verdict decode_instructions(Bytes from, const WireMatch &match, const Terms &terms, Instructions &out) {
  out.meter_id = 0;
  out.form = 0;
  out.length = 0;
  Found found;
  if (const Verdict verdict = sort_out(from, found, out); verdict.refused()) return verdict;
  const Context context{&match, terms, ListOf::flow};
  List list{out};
  list.tags = satisfies(match, Needs::vlan) ? 1 : 0;
  if (const Verdict verdict = read_actions(found.applied, Pass::every, context, list); verdict.refused()) return verdict;
  out.applied = static_cast<std::uint8_t>(list.count);
  return read_action_set(found.written, context, list);
}

Verdict decode_packet_out_actions(Bytes from, const Terms &terms, Instructions &out) {
  out.length = 0;
  List list{out};
  return read_actions(from, Pass::every, {nullptr, terms, ListOf::packet_out}, list);
}

Verdict decode_bucket(Bytes from, const Terms &terms, BucketEffect &out) {
  Instructions read;
  List list{read};
  const Verdict verdict = read_action_set(from, {nullptr, terms, ListOf::bucket}, list);
  Bytes actions = Bytes(read.actions).first(read.length);
  out = {.outputs = list.output};
  for (SouthboundAction action; !verdict.refused() && next_action(actions, action);) {
    out.pushes |= action.type == kPushVlan;
    out.pops |= action.type == kPopVlan;
    out.decrements |= action.type == kDecNwTtl;
    out.sets_ttl |= action.type == kSetNwTtl;
    out.sets_queue |= action.type == kSetQueue;
    if (action.type == kSetField) out.sets |= bits(set_field_row(action).number);
  }
  return verdict;
}

void encode_wire_instructions(Bytes flow_mod, Writer &out) {
  if (const auto meter = sb::get<std::uint32_t>(flow_mod.data(), sb::kFlowMeterId)) {
    out.u16(kMeterInstruction);
    out.u16(8);
    out.u32(meter);
  }
  const auto form = sb::get<std::uint8_t>(flow_mod.data(), sb::kFlowInstructions);
  const auto applied = sb::get<std::uint8_t>(flow_mod.data(), sb::kFlowApplied);
  Bytes list = southbound_actions(flow_mod);
  if (form & kFormApply) put_action_instruction(kApplyActions, applied, list, out);
  if (form & kFormClear) {
    out.u16(kClearActions);
    out.u16(8);
    out.zeros(4);
  }
  if (form & kFormWrite) put_action_instruction(kWriteActions, kMaxActions, list, out);
}

std::string actions_text(Bytes flow_mod) {
  std::string text;
  const auto add = [&text](const std::string &part) { text += (text.empty() ? "" : ",") + part; };
  if (const auto meter = sb::get<std::uint32_t>(flow_mod.data(), sb::kFlowMeterId)) add(fmt::format("meter:{}", meter));
  Bytes list = southbound_actions(flow_mod);
  SouthboundAction action;
  bool any = false;
  for (; next_written(list, action) != 0; any = true) add(action_text(action));
  if (!any) add("drop");
  return text;
}

namespace {

std::uint32_t number_at(Bytes bytes, std::size_t at, std::size_t width) {
  std::uint32_t number = 0;
  for (std::size_t i = 0; i < width; ++i) number = number << 8 | be8(bytes, at + i);
  return number;
}

// "value->field" from "field=value".
std::string turned(const std::string &field) {
  const std::size_t equals = field.find('=');
  return equals == field.npos ? field : field.substr(equals + 1) + "->" + field.substr(0, equals);
}

std::string wire_action_text(Bytes action) {
  const std::uint16_t type = be16(action, 0);
  const ActionRow &row = row_of(type);
  if (type == kOutput && action.size() == kOutputLen) return output_text(be32(action, 4), be16(action, 8));
  if (type == kSetField) return "set_field:" + turned(wire_field_text(action.subspan(4)));
  if (&row == &kUnknownAction) return fmt::format("action:{}", type);
  return number_text(row, number_at(action, 4, row.argument));
}

// Calls `show` with each piece of a list whose pieces are {type u16, length u16, ...}; "..." is shown where the bytes end early.
template <typename Show>
std::string joined(Bytes from, Show &&show) {
  std::string text;
  const auto add = [&text](const std::string &part) { text += (text.empty() || part.empty() ? "" : ",") + part; };
  while (!from.empty()) {
    const std::size_t length = from.size() >= 8 ? be16(from, 2) : 0;
    if (length < 8 || length > from.size()) {
      add("...");
      break;
    }
    add(show(from.first(length)));
    from = from.subspan(length);
  }
  return text;
}

std::string wire_instruction_text(Bytes instruction) {
  const std::uint16_t type = be16(instruction, 0);
  if (type == kApplyActions || type == kWriteActions) return joined(instruction.subspan(8), wire_action_text);
  if (type == 0 || type > kInstructions.size()) return fmt::format("instruction:{}", type);
  const char *name = kInstructions[type - 1].kind.name;
  if (type == kGotoTable) return fmt::format("{}:{}", name, be8(instruction, 4));
  return type == kMeterInstruction ? fmt::format("{}:{}", name, be32(instruction, 4)) : name;
}

}  // namespace

std::string wire_actions_text(Bytes instructions) {
  const std::string text = joined(instructions, wire_instruction_text);
  return text.empty() ? "drop" : text;
}

std::string wire_list_text(Bytes actions) {
  const std::string text = joined(actions, wire_action_text);
  return text.empty() ? "drop" : text;
}

std::vector<Capability> action_kinds(const TargetCapabilities &target) {
  std::vector<Capability> all;
  for (const ActionRow &row : kActions) all.push_back({row.type, row.name, does(row, target)});
  return all;
}

std::uint64_t known_actions() {
  std::uint64_t known = 0;
  for (const ActionRow &row : kActions)
    if (row.read) known |= bits(row.type);
  return known;
}

std::vector<Capability> instruction_kinds() {
  std::vector<Capability> all;
  all.reserve(std::size(kInstructions));
  for (const InstructionRow &row : kInstructions) all.push_back(row.kind);
  return all;
}

std::span<const ReservedPort> reserved_ports() {
  return kReservedPorts;
}

Outputs outputs_of(Bytes flow_mod) {
  Outputs found;
  each_number(flow_mod, [&found](std::uint16_t type, std::uint32_t number) {
    if (type == kOutput) found.port = found.port == 0 || found.port == number ? number : kSeveralPorts;
    if (type == kGroup) found.group = found.group == kGroupAny || found.group == number ? number : kGroupAll;
  });
  return found;
}

bool uses_group(Bytes flow_mod, std::uint32_t group) {
  return has(flow_mod, kGroup, group);
}

bool outputs_to(Bytes flow_mod, std::uint32_t port) {
  return has(flow_mod, kOutput, port);
}

Bytes southbound_match(Bytes flow_mod) {
  if (flow_mod.size() < sb::kFlowOxm) return {};
  const std::size_t length = sb::get<std::uint16_t>(flow_mod.data(), sb::kFlowMatchLen);
  return length <= flow_mod.size() - sb::kFlowOxm ? flow_mod.subspan(sb::kFlowOxm, length) : Bytes{};
}

Bytes southbound_actions(Bytes flow_mod) {
  if (flow_mod.size() < sb::kFlowOxm) return {};
  const std::size_t block = sb::flow_instruction_offset(sb::get<std::uint16_t>(flow_mod.data(), sb::kFlowMatchLen));
  if (block + sb::kInstructionLen > flow_mod.size()) return {};
  const auto length = sb::get<std::int32_t>(flow_mod.data(), block);
  const std::size_t room = flow_mod.size() - block - sb::kInstructionLen;
  return length > 0 && static_cast<std::size_t>(length) <= room ? flow_mod.subspan(block + sb::kInstructionLen, length) : Bytes{};
}

}  // namespace host::of_ss
