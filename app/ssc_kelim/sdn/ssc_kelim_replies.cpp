#include "ssc_kelim/sdn/ssc_kelim_replies.h"

#include <cstddef>
#include <cstring>

#include "of_ss.h"
#include "s_policy_kelim.pb-c.h"
#include "southbound.h"

// Logs under the handlers' source path.
#undef SDN_LOG_SOURCE
#define SDN_LOG_SOURCE "app/ssc_kelim/sdn/ssc_kelim_msg_to_ssd.cpp"

kelim::Word<std::uint32_t> g_lib_fp_sdn_vers{0};
kelim::Word<std::uint32_t> g_lib_fp_sdn_tbl_pro{0};

namespace {

constexpr std::uint32_t kCapacityFlows = 600;

kelim::Word<std::uint16_t> g_sdn_vers, g_sdn_tbl_pro;

using southbound::get;

// The part of a connection that every reply carries in its header.
struct Connection {
  std::uint16_t version, table_property;
};
Connection taken_over() {
  return {g_sdn_vers, g_sdn_tbl_pro};
}
Connection latest() {
  return {static_cast<std::uint16_t>(g_lib_fp_sdn_vers.load()), static_cast<std::uint16_t>(g_lib_fp_sdn_tbl_pro.load())};
}

// A zeroed reply with its header.
template <std::size_t Len>
struct Reply {
  Reply(southbound::MsgType type, const Connection &connection) {
    southbound::put_header(bytes, type, connection.version, Len, connection.table_property);
  }
  void send() const { libproxy_fp_sdn_send_ret_val(bytes, Len); }

  std::byte bytes[Len] = {};
};

bool is_out_of_resources(std::int32_t code) {
  return code == S_POLICY_KELIM__STATUS_E__STATUS_RESOURCE || code == -S_POLICY_KELIM__STATUS_E__STATUS_RESOURCE;
}

}  // namespace

std::uint16_t ssc_sdn_get_sdn_vers() {
  return g_sdn_vers;
}
void ssc_sdn_set_sdn_vers(std::uint16_t version) {
  g_sdn_vers = version;
}
std::uint16_t ssc_sdn_get_sdn_tbl_pro() {
  return g_sdn_tbl_pro;
}
void ssc_sdn_set_sdn_tbl_pro(std::uint16_t table_property) {
  g_sdn_tbl_pro = table_property;
}

// ---- replies

void sdn_send_flow_ret_val_2_proxy(std::uint32_t /*vsd_id*/, std::uint64_t flow_index, std::int32_t ret_val) {
  const Connection connection = taken_over();
  Reply<southbound::kFlowResultLen> reply(southbound::kFlowResult, connection);
  southbound::put(reply.bytes, southbound::kFlowIndex, flow_index);
  southbound::put(reply.bytes, southbound::kFlowResultCode,
                  is_out_of_resources(ret_val) ? southbound::kResultResource : southbound::kResultFailed);
  SDN_ERROR("send flow error msg to PI, dune to op flow failed,flow_index = %lu, ret_val = %d, version = %d\n", flow_index,
            ret_val, connection.version);
  reply.send();
}

void sdn_send_meter_ret_val_2_proxy(std::uint32_t /*vsd_id*/, std::uint32_t meter_id, std::int32_t ret_val) {
  Reply<southbound::kMeterResultLen> reply(southbound::kMeterResult, taken_over());
  southbound::put(reply.bytes, southbound::kMeterResultId, meter_id);
  southbound::put<std::uint32_t>(reply.bytes, southbound::kMeterResultCode, is_out_of_resources(ret_val) ? 0 : 1);
  SDN_ERROR("send meter error msg to PI, dune to op meter failed,meter_id = %u, ret_val = %d\n", meter_id, ret_val);
  reply.send();
  ++sdn_opt_cnt[SDN_OPT_METER_ADD + SDN_OPT_FAILED];
}

void ssc_sdn_reply_statistic(std::uint64_t flow_index, std::uint64_t packets, std::uint64_t bytes) {
  Reply<southbound::kStatReplyLen> reply(southbound::kStatReply, taken_over());
  southbound::put(reply.bytes, southbound::kStatIndex, flow_index);
  southbound::put(reply.bytes, southbound::kStatPackets, packets);
  southbound::put(reply.bytes, southbound::kStatBytes, bytes);
  reply.send();
  ++sdn_opt_cnt[SDN_OPT_STATISTIC + SDN_OPT_HANDLED];
}

void ssc_sdn_trace_barrier(const void *request, const char *caller) {
  SDN_BARRIER_LINE_AS(caller, "type:%d, ver:%d, len:%d, table:%d, conn_id:%d, xid:%d, conn_ip:0x%x.",
                      get<std::uint16_t>(request, southbound::kType), get<std::uint16_t>(request, southbound::kVer),
                      get<std::uint16_t>(request, southbound::kLen), get<std::uint16_t>(request, southbound::kTable),
                      get<std::uint8_t>(request, southbound::kBarrierConnId),
                      get<std::uint32_t>(request, southbound::kBarrierXid),
                      get<std::uint32_t>(request, southbound::kBarrierConnIp));
}

void ssc_sdn_reply_barrier_request(const void *request) {
  if (!request) {
    SDN_ERROR(" barrier is null !");
    return;
  }
  ssc_sdn_trace_barrier(request, __func__);
  std::byte reply[southbound::kBarrierLen];
  std::memcpy(reply, request, sizeof reply);
  southbound::put<std::uint16_t>(reply, southbound::kType, southbound::kBarrierReply);
  of_ss_send_msg(reply, sizeof reply);
  ++sdn_opt_cnt[SDN_OPT_BARRIER + SDN_OPT_HANDLED];
}

// ---- refusals

void libproxy_fp_sdn_refuse_flow(std::uint64_t flow_index) {
  Reply<southbound::kFlowResultLen> reply(southbound::kFlowResult, latest());
  southbound::put(reply.bytes, southbound::kFlowIndex, flow_index);
  southbound::put(reply.bytes, southbound::kFlowResultCode, southbound::kResultFailed);
  reply.send();
}

void libproxy_fp_sdn_refuse_meter(std::uint32_t meter_id) {
  Reply<southbound::kMeterResultLen> reply(southbound::kMeterResult, latest());
  southbound::put(reply.bytes, southbound::kMeterResultId, meter_id);
  southbound::put(reply.bytes, southbound::kMeterResultCode, southbound::kResultFailed);
  reply.send();
}

void libproxy_fp_sdn_refuse_statistic(std::uint64_t flow_index) {
  Reply<southbound::kStatReplyLen> reply(southbound::kStatReply, latest());
  southbound::put(reply.bytes, southbound::kStatIndex, flow_index);
  southbound::put(reply.bytes, southbound::kStatStatus, southbound::kResultFailed);
  reply.send();
}

// ---- towards the library

// Deliberate: the notification carries neither version nor table property.
std::int32_t libproxy_fp_sdn_flow_table_capacity_notify() {
  constexpr std::size_t kOne = 8;
  Reply<southbound::kCapacityLen> notice(southbound::kCapacity, {});
  ++libproxy_sdn_op_cnt[PROXY_OP_CAPACITY];
  southbound::put(notice.bytes, kOne, std::uint32_t{1});
  southbound::put(notice.bytes, southbound::kCapacityFlows, kCapacityFlows);
  return of_ss_send_msg(notice.bytes, sizeof notice.bytes);
}

std::int32_t libproxy_fp_sdn_send_ret_val(const void *msg, std::uint32_t len) {
  if (!msg) {
    PROXY_ERROR("msg null.");
    return QX_INVALID;
  }
  return of_ss_send_msg(msg, len);
}

void ssc_kelim_replies_reset_for_tests() {
  g_lib_fp_sdn_vers = g_lib_fp_sdn_tbl_pro = 0;
  g_sdn_vers = g_sdn_tbl_pro = 0;
}
