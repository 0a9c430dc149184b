#include "ssc_kelim/sdn/ssc_sdn_proxy_dbg.h"

#include <cstdio>

#include "common/kelim_debug.h"
#include "kelim/common/kelim_debug.h"
#include "southbound.h"
#include "southbound_view.h"
#include "ssc_kelim/sdn/oxm_table.h"
#include "ssc_kelim/sdn/ssc_kelim_flow_parse.h"

namespace {

using Bytes = std::span<const std::byte>;

// ---- match fields and set-fields

// A number of 1, 2 or 4 bytes in host order.
void print_number(const char *label, oxm_format format, Bytes number, const char *end) {
  const auto value = southbound::read<std::uint32_t>(number, 0);
  if (format == oxm_format::hex) {
    std::printf("%s: 0x%x%s", label, value, end);
  } else {
    std::printf("%s: %d%s", label, static_cast<int>(value), end);
  }
}

void print_mac(const char *label, const char *suffix, Bytes mac) {
  std::printf("%s%s: 0x", label, suffix);
  for (std::byte byte : mac) std::printf(" %x ", std::to_integer<unsigned>(byte));
  std::printf("\n");
}

// Deliberate: a VLAN mask is hexadecimal and on the value's line in a match, decimal and on a separate line in a set-field.
void print_field(const oxm_row &row, Bytes payload, bool in_match) {
  const oxm_text &text = row.text;
  const bool masked = oxm::has_mask(row.header);
  const Bytes value = payload.first(oxm::width(row.header)), mask = payload.subspan(value.size());
  if (text.format == oxm_format::mac) {
    print_mac(text.label, "", value);
    if (masked) print_mac(text.label, "_mask", mask);
    return;
  }
  print_number(text.label, text.format, value, masked && in_match ? ", " : ",\n");
  if (!masked) return;
  char mask_label[32];
  std::snprintf(mask_label, sizeof mask_label, "%s_mask", text.label);
  print_number(mask_label, in_match ? oxm_format::hex : oxm_format::decimal, mask, ",\n");
}

// Prints the field of this header, whose payload is at the start of `bytes`; nothing if it is not decoded or is cut off.
void print_field_of(std::uint32_t header, Bytes bytes, bool in_match) {
  const oxm_row *row = oxm_find(header);
  if (!row || !row->text.label || bytes.size() < oxm::payload(header) || (!in_match && !row->text.in_set_field)) return;
  print_field(*row, bytes.first(oxm::payload(header)), in_match);
}

// ---- actions

struct ActionText {
  std::uint16_t type;  // OpenFlow 1.3.5, 7.2.5
  const char *name;
  const char *value_label;  // of the 32-bit word behind type and length; null: no value line
};

constexpr std::uint16_t kSetField = 25;

constexpr ActionText kActionTexts[] = {
    {0, "OF_SSAT_OUTPUT", "port"},
    {11, "OF_SSAT_COPY_TTL_OUT", "COPY_TTL_OUT"},
    {12, "OF_SSAT_COPY_TTL_IN", "COPY_TTL_IN"},
    {15, "OF_SSAT_SET_MPLS_TTL", "SET_MPLS_TTL"},
    {16, "OF_SSAT_DEC_MPLS_TTL", "DEC_MPLS_TTL"},
    {17, "OF_SSAT_PUSH_VLAN", "PUSH_VLAN"},
    {18, "OF_SSAT_POP_VLAN", "POP_VLAN"},
    {19, "OF_SSAT_PUSH_MPLS", "PUSH_MPLS"},
    {20, "OF_SSAT_POP_MPLS", "POP_MPLS"},
    {21, "OF_SSAT_SET_QUEUE", "SET_QUEUE"},
    {22, "OF_SSAT_GROUP", "apply_group"},
    {23, "OF_SSAT_SET_NW_TTL", "SET_NW_TTL"},
    {24, "OF_SSAT_DEC_NW_TTL", "DEC_NW_TTL"},
    {kSetField, "OF_SSAT_SET_FIELD", nullptr},
    {26, "OF_SSAT_PUSH_PBB", "PUSH_PBB"},
    {27, "OF_SSAT_POP_PBB", "POP_PBB"},
    {65535, "OF_SSAT_EXPERIMENTER", nullptr},
};

constexpr ActionText kUnknownAction = {0, "ERROR: Can't  analyze OFSSAT_ACTION_TYPE", nullptr};

const ActionText &action_text(std::uint16_t type) {
  for (const ActionText &text : kActionTexts)
    if (text.type == type) return text;
  return kUnknownAction;
}

void print_oxm_value(std::uint32_t word) {
  std::printf("\n oxm_value: 0x%x,", word);
}

southbound::flow_view view_of(const void *flow) {
  return {flow, southbound::message_len(flow)};
}

}  // namespace

int libproxy_fp_sdn_dump_flow_key_field(std::span<const std::byte> value, std::uint32_t oxm_header) {
  print_field_of(oxm_header, value, true);
  return 0;
}

int libproxy_fp_sdn_dump_flow_key(std::span<const std::byte> key) {
  constexpr std::size_t kLength = 2, kFields = 4;
  const auto length = southbound::read<std::uint16_t>(key, kLength);
  std::puts("**key start**");
  std::printf("type: 0x%x, length: %d.\n", southbound::read<std::uint16_t>(key, 0), length);
  for (southbound::match_walk at(key.subspan(std::min(kFields, key.size())), length); at.more(); at.next()) {
    print_oxm_value(at.word());
    if (libproxy_fp_sdn_get_key_field_len(at.word()) < 1 || !at.whole()) break;
    libproxy_fp_sdn_dump_flow_key_field(at.body(), at.word());
  }
  std::puts("**key end**\n");
  return 0;
}

int libproxy_fp_sdn_dump_one_action(std::span<const std::byte> action, std::uint16_t len) {
  if (!action.data()) {
    std::puts("p_action null.");
    return 0;
  }
  const auto type = southbound::read<std::uint16_t>(action, southbound::kActionType);
  const auto word = southbound::read<std::uint32_t>(action, southbound::kActionBody);
  const ActionText &text = action_text(type);
  std::printf("type: %d(%s), len: %d, ", type, text.name, len);
  if (text.value_label) std::printf("%s: %d\n", text.value_label, static_cast<int>(word));
  if (type == kSetField && action.size() >= southbound::kActionValue)
    print_field_of(word, action.subspan(southbound::kActionValue), false);
  return 0;
}

int libproxy_fp_sdn_dump_flow_action(const void *flow) {
  const southbound::flow_view view = view_of(flow);
  if (view.ends_at_match()) {
    std::puts("has no action.");
    return 0;
  }
  const std::int32_t total = view.actions_len();
  std::puts("**action start**");
  std::printf("total_actions_len: %d\n", total);
  int dumped = 0;
  if (total >= 1) {
    for (auto at = view.actions(); at.more() && at.whole(); at.next()) {
      const std::span<const std::byte> action = at.entry();
      print_oxm_value(southbound::read<std::uint32_t>(action, southbound::kActionBody));
      libproxy_fp_sdn_dump_one_action(action, southbound::read<std::uint16_t>(action, southbound::kActionLen));
      ++dumped;
    }
  }
  std::printf("**action end, aciton_num: %d**\n", dumped);
  return 0;
}

int libproxy_fp_sdn_dump_flow(const void *flow) {
  if (!flow) {
    std::puts("Error: invalid para -- flow is NULL.");
    return 0;
  }
  const Bytes bytes = southbound::message_bytes(flow);
  std::puts("\n********flow info*********");
  std::printf("total_len: %d, index: %lu, priority: %d, command: %d, meter_id: %u.\n", southbound::message_len(flow),
              southbound::read<std::uint64_t>(bytes, southbound::kFlowIndex),
              southbound::read<std::uint16_t>(bytes, southbound::kFlowPriority),
              southbound::read<std::uint8_t>(bytes, southbound::kFlowCommand),
              southbound::read<std::uint32_t>(bytes, southbound::kFlowMeterId));
  libproxy_fp_sdn_dump_flow_key(bytes.subspan(std::min(southbound::kFlowMatchType, bytes.size())));
  libproxy_fp_sdn_dump_flow_action(flow);
  return 0;
}

// ---- debug commands

namespace {

constexpr const char *kModule = "ssc_kelim_proxy";

constexpr ssat_command kCommands[] = {
    {"set-debug", "ver=%d,err=%d,not=%d",
     [](const std::int64_t *args, std::uint32_t) {
       return libproxy_sdn_debug_set(static_cast<std::int32_t>(args[0]), static_cast<std::int32_t>(args[1]),
                                     static_cast<std::int32_t>(args[2]));
     }},
    {"show-cnt", "nil", [](const std::int64_t *, std::uint32_t) { return libproxy_sdn_show_op_cnt(); }},
    {"clear-cnt", "nil", [](const std::int64_t *, std::uint32_t) { return libproxy_sdn_clear_op_cnt(); }},
};

long long op_count(libproxy_sdn_op op) {
  return static_cast<long long>(libproxy_sdn_op_cnt[op].load());
}

void print_separator() {
  std::puts("---------------------------------- ");
}

// Counters of one kind of request, in the order shown.
struct CountPair {
  const char *label;
  libproxy_sdn_op add, del;
};
constexpr CountPair kCountPairs[] = {
    {"FLOW", PROXY_OP_FLOW_ADD, PROXY_OP_FLOW_DEL}, {"METER", PROXY_OP_METER_ADD, PROXY_OP_METER_DEL},
    {"ENABLE", PROXY_OP_OPEN, PROXY_OP_CLOSE},      {"DS", PROXY_OP_DS_START, PROXY_OP_DS_END},
    {"PKT", PROXY_OP_PKT_START, PROXY_OP_PKT_END},  {"ONC", PROXY_OP_ONC_ADD, PROXY_OP_ONC_DEL},
};
struct CountSingle {
  const char *label;
  libproxy_sdn_op op;
};
constexpr CountSingle kCountSingles[] = {
    {"CONNECT", PROXY_OP_CONNECT},     {"CONFIG", PROXY_OP_CONFIG},     {"DEL_ALL_FLOW", PROXY_OP_DEL_ALL_FLOW},
    {"STATISTIC", PROXY_OP_STATISTIC}, {"FETCH", PROXY_OP_FETCH},       {"BARRIER", PROXY_OP_BARRIER},
    {"DEL_ALL", PROXY_OP_DEL_ALL},     {"CAPACITY", PROXY_OP_CAPACITY},
};

}  // namespace

std::int32_t libproxy_sdn_debug_init(qx_global *global) {
  if (const auto value = ssc_sdn_read_switch_file("/var/ssc_kelim_proxy_dbg")) libproxy_sdn_debug_sw = *value;
  const std::int32_t rv = ssc_sdn_register_commands(global, kModule, kCommands);
  if (rv != 0) PROXY_SERVICE_ERROR("reg ssat fail\n");
  return rv;
}

std::int32_t ut_ssc_sdn_proxy_regcmd(const char *name, const char *format, ssat_handler handler) {
  ssat_reg_mod_cmd(kModule, name, format, handler);
  return 0;
}

std::int32_t libproxy_sdn_debug_set(std::int32_t ver, std::int32_t err, std::int32_t notice) {
  std::uint32_t value = libproxy_sdn_debug_sw;
  const auto set = [&value](std::uint32_t bit, bool on) { value = on ? value | bit : value & ~bit; };
  set(PROXY_DBG_VER, ver != 0);
  set(PROXY_DBG_ERROR, err != 0);
  set(PROXY_DBG_NOTICE, notice != 0);
  libproxy_sdn_debug_sw = value;
  std::puts(" -------------------  ");
  std::printf("  SET DEBUG: 0x%04x   \n", value);
  std::puts(" -------------------  ");
  return 0;
}

std::int32_t libproxy_sdn_show_op_cnt() {
  std::printf(" %-10s%-10s%-10s \n", "ITEM", "ADD", "DEL");
  print_separator();
  for (const CountPair &row : kCountPairs)
    std::printf(" %-10s%-10lld%-10lld \n", row.label, op_count(row.add), op_count(row.del));
  print_separator();
  for (const CountSingle &row : kCountSingles) std::printf(" %-15s%-10lld \n", row.label, op_count(row.op));
  print_separator();
  return 0;
}

std::int32_t libproxy_sdn_clear_op_cnt() {
  for (auto &counter : libproxy_sdn_op_cnt) counter = 0;
  return 0;
}
