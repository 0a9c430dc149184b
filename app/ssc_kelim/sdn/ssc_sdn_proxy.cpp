#include "ssc_kelim/sdn/ssc_sdn_proxy.h"

#include <cstring>

#include "kelim/common/kelim_debug.h"
#include "of_ss.h"
#include "southbound.h"
#include "southbound_view.h"
#include "ssc_kelim/sdn/ssc_kelim_intake.h"
#include "ssc_kelim/sdn/ssc_kelim_replies.h"
#include "ssc_kelim/sdn/ssc_sdn_proxy_dbg.h"

std::atomic<std::uint32_t> is_pi_connected_flag{0};
std::atomic<std::uint32_t> is_framework_fetched_flag{0};

namespace {

constexpr std::uint32_t kVsd = 0;              // the only virtual switch
constexpr std::uint32_t kPacketSignalLen = 8;  // passed to the intake whatever the header says

bool g_registered = false;

template <typename T>
T field(const void *msg, std::size_t offset) {
  return southbound::read<T>(southbound::message_bytes(msg), offset);
}

void count(libproxy_sdn_op op) {
  ++libproxy_sdn_op_cnt[op];
}

// Logs an intake's failure.
void log_failure(const char *name, std::int32_t rv) {
  if (rv != 0) SDN_LOG_AS(kelim::kProxyError, name, "libproxy_vdu_msg_to_ss fail:%d.", rv);
}

// ---- flows and meters

void libproxy_fp_sdn_add_flow(const void *flow) {
  const auto flow_index = field<std::uint64_t>(flow, southbound::kFlowIndex);
  count(PROXY_OP_FLOW_ADD);
  PROXY_VER("add flow:%lu.", flow_index);
  if (ssc_sdn_add_flow_msg(kVsd, flow, southbound::message_len(flow)) != 0) libproxy_fp_sdn_refuse_flow(flow_index);
}

void libproxy_fp_sdn_del_flow(const void *flow) {
  count(PROXY_OP_FLOW_DEL);
  PROXY_VER("del flow:%lu.", field<std::uint64_t>(flow, southbound::kFlowIndex));
  ssc_sdn_del_flow_msg(kVsd, flow, southbound::message_len(flow));
}

void libproxy_fp_sdn_add_meter(const void *meter, std::uint32_t meter_id) {
  count(PROXY_OP_METER_ADD);
  PROXY_VER("add meter:%d.", static_cast<int>(meter_id));
  if (ssc_sdn_add_meter_msg(kVsd, meter, southbound::message_len(meter)) != 0) libproxy_fp_sdn_refuse_meter(meter_id);
}

void libproxy_fp_sdn_del_meter(const void *meter, std::uint32_t meter_id) {
  count(PROXY_OP_METER_DEL);
  PROXY_VER("del meter:%d.", static_cast<int>(meter_id));
  ssc_sdn_del_meter_msg(kVsd, meter, southbound::message_len(meter));
}

// ---- handshake

void announce_when_both_are_there() {
  if (is_pi_connected_flag == 0 || is_framework_fetched_flag == 0) return;
  libproxy_fp_sdn_flow_table_capacity_notify();
  ss_of_ds_fetch();
}

// ---- registration

// One callback and the call that registers it, for messages or for signals.
struct Registration {
  constexpr Registration(int (*call)(of_ss_msg_cb), of_ss_msg_cb callback) : register_msg(call), msg(callback) {}
  constexpr Registration(int (*call)(of_ss_signal_cb), of_ss_signal_cb callback) : register_signal(call), signal(callback) {}
  void operator()() const {
    if (register_msg) {
      register_msg(msg);
    } else {
      register_signal(signal);
    }
  }

  int (*register_msg)(of_ss_msg_cb) = nullptr;
  of_ss_msg_cb msg = nullptr;
  int (*register_signal)(of_ss_signal_cb) = nullptr;
  of_ss_signal_cb signal = nullptr;
};

// In the order of registration. Deliberate: the management interfaces arrive through the open callback.
constexpr Registration kRegistrations[] = {
    {of_ss_regiter_flow_mod, libproxy_fp_sdn_op_flow},
    {of_ss_regiter_send_openmsg, libproxy_fp_sdn_open},
    {of_ss_regiter_mgmt_ifx, libproxy_fp_sdn_open},
    {of_ss_regiter_send_closemsg, libproxy_fp_sdn_close},
    {of_ss_regiter_del_all_flow, libproxy_fp_sdn_del_all_flow},
    {of_ss_regiter_start, libproxy_fp_sdn_ds_start},
    {of_ss_regiter_end, libproxy_fp_sdn_ds_end},
    {of_ss_regiter_flow_statistic_reply, libproxy_fp_sdn_statistic},
    {of_ss_regiter_meter_mod, libproxy_fp_sdn_op_meter},
    {of_ss_socket_connected, libproxy_fp_sdn_establisth_connect},
    {of_ss_flowcount_config, libproxy_fp_sdn_flowcount_config_para},
    {of_ss_pkt_start, libproxy_fp_sdn_pkt_start},
    {of_ss_pkt_end, libproxy_fp_sdn_pkt_end},
    {of_ss_con_info, libproxy_fp_sdn_op_onc_info},
    {ofss_barrier_request, libproxy_fp_sdn_barrier},
    {of_ss_regiter_del_all, libproxy_fp_sdn_del_all},
};

}  // namespace

std::int32_t libproxy_fp_sdn_dep_init(qx_global *global) {
  if (!global) return QX_INVALID;
  if (g_registered) return 0;
  PROXY_VER_AS("libproxy_fp_sdn_connect", "enter");
  ss_of_init(global);
  for (const Registration &registration : kRegistrations) registration();
  PROXY_VER_AS("libproxy_fp_sdn_connect", "leave");
  g_registered = true;
  return 0;
}

// ---- callbacks

// Anything but command 0 deletes; a message too short to have a command is handled as an add, which refuses and answers it.
int libproxy_fp_sdn_op_flow(void *msg) {
  PROXY_NOTICE("%d", libproxy_fp_sdn_dump_flow(msg));  // dumps only where the line is logged
  if (field<std::uint8_t>(msg, southbound::kFlowCommand) == southbound::kFlowAdd) {
    libproxy_fp_sdn_add_flow(msg);
  } else {
    libproxy_fp_sdn_del_flow(msg);
  }
  return 0;
}

int libproxy_fp_sdn_op_meter(void *msg) {
  if (!msg) {
    PROXY_ERROR("meter null.");
    return QX_INVALID;
  }
  const auto command = field<std::uint16_t>(msg, southbound::kMeterCommand);
  const auto meter_id = field<std::uint32_t>(msg, southbound::kMeterId);
  PROXY_VER("meter_cmd:%d, meter_id:0x%x, meter_flages:%d.", command, meter_id,
            field<std::uint16_t>(msg, southbound::kMeterFlags));
  if (command == southbound::kMeterAdd) {
    libproxy_fp_sdn_add_meter(msg, meter_id);
  } else if (command == southbound::kMeterDelete) {
    libproxy_fp_sdn_del_meter(msg, meter_id);
  } else {
    PROXY_ERROR("not support meter mod");
    libproxy_fp_sdn_refuse_meter(meter_id);
  }
  return 0;
}

int libproxy_fp_sdn_statistic(void *msg) {
  if (!msg) {
    PROXY_ERROR("req null.");
    return QX_INVALID;
  }
  count(PROXY_OP_STATISTIC);
  PROXY_VER("sdn statistic.");
  const std::int32_t rv = ssc_sdn_statistic_msg(kVsd, msg, southbound::message_len(msg));
  log_failure(__func__, rv);
  if (rv != 0) libproxy_fp_sdn_refuse_statistic(field<std::uint64_t>(msg, southbound::kStatIndex));
  return 0;
}

int libproxy_fp_sdn_open(void *msg) {
  count(PROXY_OP_OPEN);
  PROXY_VER("sdn open.");
  g_lib_fp_sdn_vers = field<std::uint16_t>(msg, southbound::kVer);
  g_lib_fp_sdn_tbl_pro = field<std::uint16_t>(msg, southbound::kTable);
  return ssc_sdn_enable_msg(kVsd, msg, southbound::message_len(msg));
}

int libproxy_fp_sdn_close(void *msg) {
  count(PROXY_OP_CLOSE);
  PROXY_VER("sdn close.");
  return ssc_sdn_disable_msg(kVsd, msg, southbound::message_len(msg));
}

int libproxy_fp_sdn_ds_start(void *msg) {
  count(PROXY_OP_DS_START);
  PROXY_VER("sdn ds start.");
  return ssc_sdn_ds_recv_start_sig(kVsd, msg, southbound::message_len(msg));
}

int libproxy_fp_sdn_ds_end(void *msg) {
  count(PROXY_OP_DS_END);
  PROXY_VER("sdn ds end.");
  return ssc_sdn_ds_recv_end_sig(kVsd, msg, southbound::message_len(msg));
}

// The intake requires a message; its contents do not matter.
void libproxy_fp_sdn_del_all_flow() {
  constexpr char kText[] = "DEL_ALL";
  count(PROXY_OP_DEL_ALL_FLOW);
  PROXY_VER("del all flow.");
  void *msg = ssc_sdn_malloc(sizeof kText, __func__, __LINE__);
  if (!msg) {
    PROXY_ERROR("malloc fail.");
    return;
  }
  std::memcpy(msg, kText, sizeof kText);
  ssc_sdn_del_all_flow(kVsd, msg, sizeof kText);
  ssc_sdn_free(msg);
}

void libproxy_fp_sdn_del_all() {
  count(PROXY_OP_DEL_ALL);
  PROXY_VER("del all");
  log_failure(__func__, ssc_sdn_del_all_msg(kVsd, nullptr, 0));
}

int libproxy_fp_sdn_barrier(void *msg) {
  if (!msg) {
    PROXY_ERROR("info null.");
    return QX_INVALID;
  }
  count(PROXY_OP_BARRIER);
  PROXY_BARRIER("type:%d, ver:%d, len:%d, table:%d, conn_id:%d, xid:%d, conn_ip:0x%x.",
                field<std::uint16_t>(msg, southbound::kType), field<std::uint16_t>(msg, southbound::kVer),
                southbound::message_len(msg), field<std::uint16_t>(msg, southbound::kTable),
                field<std::uint8_t>(msg, southbound::kBarrierConnId), field<std::int32_t>(msg, southbound::kBarrierXid),
                field<std::uint32_t>(msg, southbound::kBarrierConnIp));
  log_failure(__func__, ssc_sdn_barrier_msg(kVsd, msg, southbound::message_len(msg)));
  return 0;
}

// Deliberate: an add passes its command word, which is 0, as the virtual switch.
int libproxy_fp_sdn_op_onc_info(void *msg) {
  constexpr std::uint16_t kAdd = 0, kDelete = 1;
  if (!msg) {
    PROXY_ERROR("onc_info null.");
    return QX_INVALID;
  }
  const auto command = field<std::uint16_t>(msg, southbound::kOncCommand);
  PROXY_VER("info addr:%p cmd:%d, ip:0x%x", msg, command, field<std::uint32_t>(msg, southbound::kOncAddress));
  if (command == kAdd) {
    count(PROXY_OP_ONC_ADD);
    log_failure(__func__, ssc_sdn_add_onc_msg(command, msg, southbound::message_len(msg)));
  } else if (command == kDelete) {
    count(PROXY_OP_ONC_DEL);
    log_failure(__func__, ssc_sdn_del_onc_msg(kVsd, msg, southbound::message_len(msg)));
  }
  return 0;
}

int libproxy_fp_sdn_pkt_start(void *msg) {
  if (!msg) {
    PROXY_ERROR("pkt_start null.");
    return QX_INVALID;
  }
  count(PROXY_OP_PKT_START);
  PROXY_VER("sdn pkt start.");
  log_failure(__func__, ssc_sdn_pkt_start_msg(kVsd, msg, kPacketSignalLen));
  return 0;
}

int libproxy_fp_sdn_pkt_end(void *msg) {
  if (!msg) {
    PROXY_ERROR("ss_head null.");
    return QX_INVALID;
  }
  count(PROXY_OP_PKT_END);
  PROXY_VER("sdn pkt end.");
  log_failure(__func__, ssc_sdn_pkt_start_msg(kVsd, msg, kPacketSignalLen));
  return 0;
}

int libproxy_fp_sdn_flowcount_config_para(void *msg) {
  if (!msg) {
    PROXY_ERROR("flowcnt_cfg null.\n");
    return QX_INVALID;
  }
  count(PROXY_OP_CONFIG);
  PROXY_VER("flow count config.\n");
  return ssc_sdn_flowcnt_cfg_sig(kVsd, msg, southbound::message_len(msg));
}

// ---- handshake

void libproxy_fp_sdn_establisth_connect() {
  count(PROXY_OP_CONNECT);
  is_pi_connected_flag = 1;
  PROXY_VER("is_connect:%d, is_fetch:%d.", static_cast<int>(is_pi_connected_flag), static_cast<int>(is_framework_fetched_flag));
  announce_when_both_are_there();
}

void libproxy_fp_sdn_ds_fetch() {
  count(PROXY_OP_FETCH);
  is_framework_fetched_flag = 1;
  PROXY_VER("is_connect:%d, is_fetch:%d.", static_cast<int>(is_pi_connected_flag), static_cast<int>(is_framework_fetched_flag));
  announce_when_both_are_there();
}

void libproxy_fp_sdn_reset_for_tests() {
  ssc_kelim_replies_reset_for_tests();
  g_registered = false;
  is_pi_connected_flag = 0;
  is_framework_fetched_flag = 0;
}
