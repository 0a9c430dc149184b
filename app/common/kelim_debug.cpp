#include "common/kelim_debug.h"

#include <cstdio>
#include <cstdlib>
#include <memory>

#include "kelim/common/kelim_debug.h"
#include "s_policy_kelim.pb-c.h"
#include "ssc_kelim/sdn/ssc_kelim_ds_stage.h"
#include "ssc_kelim/sdn/ssc_kelim_flow_db.h"
#include "ssc_kelim/sdn/ssc_kelim_requests.h"
#include "ssc_kelim/sdn/ssc_sdn_msg_queue.h"

namespace {

constexpr const char *kModule = "ssc_kelim";

constexpr ssat_command kCommands[] = {
    {"kelim_set_dbg", "dbg_val=%x",
     [](const std::int64_t *args, std::uint32_t) { return kelim_set_dbg(static_cast<std::uint32_t>(args[0])); }},
    {"kelim_set_count_dbg_sw", "sw=%d(0/1)",
     [](const std::int64_t *args, std::uint32_t) { return kelim_set_count_dbg_sw(static_cast<std::uint32_t>(args[0])); }},
    {"kelim_pkt_start", "", [](const std::int64_t *, std::uint32_t) { return kelim_pkt_start(); }},
    {"kelim_pkt_end", "", [](const std::int64_t *, std::uint32_t) { return kelim_pkt_end(); }},
    {"dump_ssc_sdn_msg_queue", "", [](const std::int64_t *, std::uint32_t) { return dump_ssc_sdn_msg_queue(); }},
    {"dump_ssc_all_flow_info", "", [](const std::int64_t *, std::uint32_t) { return dump_ssc_all_flow_info(); }},
    {"dump_ssc_primitive_flow_entry", "index=%d, vsd_id=%d",
     [](const std::int64_t *args, std::uint32_t) {
       return dump_ssc_primitive_flow_entry(static_cast<std::uint64_t>(args[0]), static_cast<std::uint32_t>(args[1]));
     }},
    {"dump_ssc_ds_status", "", [](const std::int64_t *, std::uint32_t) { return dump_ssc_ds_status(); }},
};

const char *on_off(std::uint32_t value) {
  return value != 0 ? "On" : "Off";
}

// ---- one flow, group by group

template <std::size_t N>
void print_mac(const char *label, const std::uint8_t (&mac)[N], const char *end) {
  std::printf("%s", label);
  for (std::uint8_t byte : mac) std::printf("%02x:", byte);
  std::printf("%s", end);
}

template <std::size_t N>
void print_ipv6(const char *label, const std::uint8_t (&address)[N]) {
  std::printf("%s", label);
  for (std::size_t i = 0; i < N; i += 2) std::printf("%02x%02x:", address[i], address[i + 1]);
}

using Group = void (*)(const flow_info_node &);

constexpr int as_int(std::uint32_t value) {
  return static_cast<int>(value);
}

constexpr Group kSport = [](const flow_info_node &n) { std::printf("sport: %d, sport_mask:%d\n", n.sport, n.sport_mask); };
constexpr Group kDport = [](const flow_info_node &n) { std::printf("dport: %d, dport_mask:%d\n", n.dport, n.dport_mask); };

// By bit of flow_field_e; null: nothing is printed for it.
constexpr Group kFieldGroups[S_POLICY_KELIM__FLOW_FIELD_E__OXM_SS_FIELD_MAX] = {
    /* in port */ [](const flow_info_node &n) { std::printf("in_port_ifx:  %d\n", as_int(n.in_port)); },
    /* application type, printed for every flow */ nullptr,
    /* physical in port */ nullptr,
    /* Ethernet destination */
    [](const flow_info_node &n) {
      print_mac("dmac: ", n.dst_mac, "");
      print_mac("  dmac_mask: ", n.dst_mac_mask, "\n");
    },
    /* Ethernet source */
    [](const flow_info_node &n) {
      print_mac("smac: ", n.src_mac, "");
      print_mac("  smac_mask:", n.src_mac_mask, "\n");
    },
    /* Ethernet type */ [](const flow_info_node &n) { std::printf("etype: %d, etype_mask:%d\n", n.etype, n.etype_mask); },
    /* VLAN id */
    [](const flow_info_node &n) { std::printf("vid: %d, vid_mask:%d\n", as_int(n.vid), as_int(n.vid_mask)); },
    /* VLAN priority */ [](const flow_info_node &n) { std::printf("cos: %d, cos_mask:%d\n", n.cos, n.cos_mask); },
    /* DSCP */
    [](const flow_info_node &n) { std::printf("ipv4_dscp: %d, ipv4_dscp_mask:%d\n", n.ipv4_dscp, n.ipv4_dscp_mask); },
    /* IP protocol */
    [](const flow_info_node &n) { std::printf("protocol: %d, protocol_mask:%d\n", n.protocol, n.protocol_mask); },
    /* IPv4 source */
    [](const flow_info_node &n) { std::printf("src_ipv4: %d, src_ipv4_mask:%d\n", as_int(n.src_ipv4), as_int(n.src_ipv4_mask)); },
    /* IPv4 destination */
    [](const flow_info_node &n) { std::printf("dst_ipv4: %d, dst_ipv4_mask:%d\n", as_int(n.dst_ipv4), as_int(n.dst_ipv4_mask)); },
    /* TCP source */ kSport,
    /* UDP source */ kSport,
    /* TCP destination */ kDport,
    /* UDP destination */ kDport,
    /* ICMP type */
    [](const flow_info_node &n) { std::printf("icmp_type: %d, icmp_type_mask:%d\n", n.icmp_type, n.icmp_type_mask); },
    /* ICMP code */
    [](const flow_info_node &n) { std::printf("icmp_code: %d, icmp_code_mask:%d\n", n.icmp_code, n.icmp_code_mask); },
    /* IPv6 source */
    [](const flow_info_node &n) {
      print_ipv6("ipv6: ", n.ipv6_src);
      print_ipv6("\nipv6_mask: ", n.ipv6_src_mask);
    },
    /* IPv6 destination */
    [](const flow_info_node &n) {
      print_ipv6("ipv6: ", n.ipv6_dst);
      print_ipv6("\nipv6_mask: ", n.ipv6_dst_mask);
    },
    /* IPv6 extension headers */
    [](const flow_info_node &n) { std::printf("next_header: %d, next_header_mask:%d\n", n.next_header, n.next_header_mask); },
};

// By bit of flow_action_e.
constexpr Group kActionGroups[S_POLICY_KELIM__FLOW_ACTION_E__FLOW_ACTION_MAX] = {
    /* output */ [](const flow_info_node &n) { std::printf("output_ifx:  0x%x\n", n.output_ifx); },
    /* set queue */ [](const flow_info_node &n) { std::printf("mod_queue_pri:  %d\n", as_int(n.mod_queue_pri)); },
    /* set Ethernet destination */ [](const flow_info_node &n) { print_mac("mod_dmac: ", n.mod_dst_mac, "\n"); },
    /* set Ethernet source */ [](const flow_info_node &n) { print_mac("mod_smac: ", n.mod_src_mac, "\n"); },
    /* set VLAN id */ [](const flow_info_node &n) { std::printf("mod_vid:  %d\n", n.mod_vid); },
    /* set VLAN priority */ [](const flow_info_node &n) { std::printf("mod_cos:  %d\n", n.mod_cos); },
    /* set DSCP */ [](const flow_info_node &n) { std::printf("mod_ipv4_dscp:  %d\n", n.mod_ipv4_dscp); },
};

void print_groups(std::span<const Group> groups, std::uint64_t bitmap, const flow_info_node &node) {
  for (std::size_t bit = 0; bit < groups.size(); ++bit)
    if ((bitmap >> bit & 1) != 0 && groups[bit]) groups[bit](node);
}

void print_summary(const flow_info_node &node) {
  std::printf("flow_index:%lu, vsd_id:%d, exp_app_type:%d, rule_bitmap:%lu, action_bitmap:%lu\n", node.flow_index,
              as_int(node.vsd_id), as_int(node.exp_app_type), node.rule_bitmap, node.action_bitmap);
}

}  // namespace

std::optional<std::uint32_t> ssc_sdn_read_switch_file(const char *path) {
  constexpr std::size_t kMostBytes = 8;
  const std::unique_ptr<std::FILE, int (*)(std::FILE *)> file(std::fopen(path, "r"),
                                                              [](std::FILE *f) { return f ? std::fclose(f) : 0; });
  char text[kMostBytes + 1] = {};
  if (!file || std::fread(text, 1, kMostBytes, file.get()) == 0) return std::nullopt;
  return static_cast<std::uint32_t>(std::strtoul(text, nullptr, 10));
}

std::int32_t ssc_sdn_register_commands(qx_global *global, const char *module, std::span<const ssat_command> commands) {
  if (const std::int32_t rv = ssat_lib_init(global, module); rv != 0) return rv;
  for (const ssat_command &command : commands) ssat_reg_mod_cmd(module, command.name, command.format, command.handler);
  return 0;
}

void ut_ssc_sdn_dbg_init(qx_global *global) {
  if (const auto value = ssc_sdn_read_switch_file("/var/ssc_kelim_dbg")) kelim_set_dbg(*value);
  const std::int32_t rv = ssc_sdn_register_commands(global, kModule, kCommands);
  if (rv != 0) SDN_ERROR("reg ssat fail! rv:%d\n", rv);
}

std::int32_t kelim_set_dbg(std::uint32_t value) {
  ssc_sdn_debug_sw = value;
  std::printf(" Debug kelim - VER: %s, ERROR: %s, DS: %s, barrier: %s, count: %s, packet: %s, assert: %s \n",
              on_off(value & SDN_DBG_VER), on_off(value & SDN_DBG_ERROR), on_off(value & SDN_DBG_DS),
              on_off(value & SDN_DBG_BARRIER), on_off(value & SDN_DBG_COUNT), on_off(value & SDN_DBG_PACKET),
              on_off(value & SDN_DBG_ASSERT));
  return 0;
}

std::int32_t kelim_set_count_dbg_sw(std::uint32_t value) {
  g_sdn_count_dbg_sw = value;
  std::printf(" Debug kelim - count_dbg_sw : %s\n", on_off(value));
  return 0;
}

std::int32_t dump_ssc_sdn_msg_queue() {
  if (ssc_sdn_msg_queue_empty()) {
    std::puts("msg queue is empty");
    return 0;
  }
  int number = 0;
  for (const ssc_sdn_msg_queue_link *link = g_ssc_sdn_msg_queue.next; link != &g_ssc_sdn_msg_queue; link = link->next) {
    const auto &node = static_cast<const ssc_sdn_msg_queue_node &>(*link);
    std::printf("\n %d :type:%s - msg id = %lu is ret: %d, type:%d, is_ds: %d, is_set: %d\n", number++,
                sdn_oprate_text(node.type), node.msg_id, node.is_ret, as_int(node.type), node.is_ds, node.is_set);
  }
  return 0;
}

std::int32_t dump_ssc_all_flow_info() {
  const std::int32_t rv = ssc_kelim_for_each_flow_node_op(
      [](flow_info_node *node, void *) {
        print_summary(*node);
        return 0;
      },
      nullptr);
  if (rv != 0) SDN_ERROR("for_each_db_flow_info_op failed, rv:%d\n", rv);
  return rv;
}

std::int32_t dump_ssc_primitive_flow_entry(std::uint64_t flow_index, std::uint32_t vsd_id) {
  const flow_info_key key{flow_index, vsd_id, 0};
  const flow_info_node *node = ssc_kelim_find_flow_node(&key);
  if (!node) {
    SDN_ERROR("flow info cache flow_index:%lu, vsd_id:%d get failed.", flow_index, as_int(vsd_id));
    return QX_NOT_FOUND;
  }
  print_summary(*node);
  std::printf("exp_app_type: %d\n", as_int(node->exp_app_type));
  print_groups(kFieldGroups, node->flow_field_bitmap, *node);
  print_groups(kActionGroups, node->flow_action_bitmap, *node);
  return 0;
}

std::int32_t dump_ssc_ds_status() {
  std::puts("ds stage status:");
  std::printf("ds stage start: %d\n", g_ssc_ds_stage.in_progress);
  std::printf("ds stage received end: %d\n", g_ssc_ds_stage.end_received);
  std::printf("ds stage sc is end: %d\n", g_ssc_ds_stage.kind1_finished);
  std::printf("ds stage not sc is end: %d\n", g_ssc_ds_stage.kind0_finished);
  return 0;
}
