#include "programmer/actions.h"

#include <algorithm>
#include <iterator>

namespace programmer {
namespace {

namespace sb = southbound;

// The fields that can be set.
struct FieldRow {
  std::uint8_t number;
  std::uint8_t width;
  bool in_entries;  // a member of a flow's entries
};
constexpr FieldRow kFields[] = {
    {3, 6, true},     // eth_dst
    {4, 6, true},     // eth_src
    {6, 2, true},     // vlan_vid
    {7, 1, true},     // vlan_pcp
    {8, 1, true},     // ip_dscp
    {11, 4, false},   // ipv4_src
    {12, 4, false},   // ipv4_dst
    {13, 2, false},   // tcp_src
    {14, 2, false},   // tcp_dst
    {15, 2, false},   // udp_src
    {16, 2, false},   // udp_dst
    {26, 16, false},  // ipv6_src
    {27, 16, false},  // ipv6_dst
};
const FieldRow *row_of(std::uint32_t field) {
  const auto *row = std::ranges::find(kFields, field, &FieldRow::number);
  return row == std::end(kFields) ? nullptr : row;
}

constexpr std::uint16_t kGroup = 22;
constexpr Action::Type kTypes[] = {Action::kOutput, Action::kPushVlan, Action::kPopVlan, Action::kSetQueue,
                                   Action::kSetTtl, Action::kDecTtl,   Action::kSetField};

const char *read_field(sb::bytes action, Action &out) {
  const auto header = sb::read<std::uint32_t>(action, sb::kActionBody);
  const FieldRow *row = header >> 16 == 0x8000 ? row_of(header >> 9 & 0x7f) : nullptr;
  if (!row) return "a field that cannot be set";
  if (action.size() < sb::kActionValue + row->width) return "an action of a wrong width";
  out.field = row->number;
  const sb::bytes value = action.subspan(sb::kActionValue, row->width);
  out.number = sb::read<std::uint32_t>(value, 0);
  std::ranges::transform(value, out.bytes.begin(), [](std::byte byte) { return static_cast<std::uint8_t>(byte); });
  return nullptr;
}

const char *read_action(const sb::action_walk &at, Action &out) {
  if (!at.whole() || at.word() >> 16 < sb::kActionValue) return "actions that cannot be read";
  const auto *type = std::ranges::find(kTypes, static_cast<std::uint16_t>(at.word()));
  if (type == std::end(kTypes)) return "an action of an unknown type";
  out.type = *type;
  if (out.type == Action::kSetField) return read_field(at.entry(), out);
  out.number = sb::read<std::uint32_t>(at.entry(), sb::kActionBody);
  return nullptr;
}

bool is_in_entries(const Action &action) {
  if (action.type == Action::kSetField) return row_of(action.field)->in_entries;
  return action.type == Action::kOutput || action.type == Action::kSetQueue;
}

}  // namespace

const char *read_actions(sb::bytes list, std::vector<Action> &out) {
  out.clear();
  for (sb::action_walk at(list); at.more(); at.next()) {
    if (at.whole() && static_cast<std::uint16_t>(at.word()) == kGroup) continue;
    Action action;
    if (const char *fault = read_action(at, action)) return fault;
    out.push_back(action);
  }
  return nullptr;
}

bool says_more(const std::vector<Action> &list) {
  if (!std::ranges::all_of(list, is_in_entries)) return true;
  const auto output = std::ranges::find(list, Action::kOutput, &Action::type);
  return output != list.end() && std::next(output) != list.end();
}

}  // namespace programmer
