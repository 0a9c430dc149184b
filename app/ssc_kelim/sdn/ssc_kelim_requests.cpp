#include "ssc_kelim/sdn/ssc_kelim_requests.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>
#include <utility>

#include "kelim/common/kelim_debug.h"
#include "libss_pthrd.h"
#include "qx_mom.h"
#include "s_cluster.pb-c.h"
#include "southbound.h"
#include "ssc_kelim/sdn/handler_run.h"
#include "ssc_kelim/sdn/sdn_ptr.h"
#include "ssc_kelim/sdn/ssc_kelim_adapt.h"
#include "ssc_kelim/sdn/ssc_kelim_data_sync.h"
#include "ssc_kelim/sdn/ssc_kelim_ds_stage.h"
#include "ssc_kelim/sdn/ssc_kelim_mom.h"
#include "ssc_kelim/sdn/ssc_kelim_removal.h"
#include "ssc_kelim/sdn/ssc_kelim_replies.h"
#include "ssc_kelim/sdn/ssc_sdn_msg_queue.h"

// All handlers log under one source path.
#undef SDN_LOG_SOURCE
#define SDN_LOG_SOURCE "app/ssc_kelim/sdn/ssc_kelim_msg_to_ssd.cpp"

void *g_ssc_sdn_answered_barrier;

namespace {

using southbound::get;

// ---- connection

constexpr char kEnableLogName[] = "ssc_sdn_proc_enable_msg";

// Traces the interfaces of an open or close message. 0, or QX_NO_MEMORY.
std::int32_t trace_interfaces(const void *msg, std::uint32_t count) {
  // Whole entries only, whatever the length says.
  const std::size_t bytes = count * sizeof(std::uint32_t);
  const sdn_ptr<std::uint32_t> list(
      static_cast<std::uint32_t *>(ssc_sdn_malloc(std::max<std::size_t>(1, bytes), kEnableLogName, __LINE__)));
  if (!list) return QX_NO_MEMORY;
  std::memcpy(list.get(), static_cast<const std::byte *>(msg) + southbound::kHeaderLen, bytes);
  if (ssc_sdn_debug_sw & SDN_DBG_VER) {
    SDN_VER_AS(kEnableLogName, "%d", ssc_sdn_dump_sdn_ifx_array(list.get(), count));
  }
  return 0;
}

// The measured time includes logging a failure, but not releasing the copy.
template <typename LogFailure>
void process_connection_msg(libss_pthrd_hdl *hdl, unsigned slot, unsigned group, LogFailure log_failure) {
  const auto msg = handler_run::take<handler_run::message>(hdl);
  const handler_run::timing timed(slot);
  if (const std::int32_t rv = ssc_sdn_proc_enable_msg(hdl->value, msg.get()); rv != 0) {
    ++sdn_opt_cnt[group + SDN_OPT_FAILED];
    log_failure(rv);
  }
  ++sdn_opt_cnt[group + SDN_OPT_HANDLED];
}

// ---- statistics

void count_statistic_failure() {
  ++sdn_opt_cnt[SDN_OPT_STATISTIC + SDN_OPT_FAILED];
}

struct free_obj {
  void operator()(qx_obj *obj) const { qx_mom_qx_obj_free(obj); }
};
using obj_ptr = std::unique_ptr<qx_obj, free_obj>;

// The counter record of a flow; null if there is no usable one.
obj_ptr get_counter(std::uint64_t flow_index) {
  if (!g_ssc_kelim_global) return nullptr;
  SPolicyKelim__FlowKey key = ssc_kelim_flow_key(flow_index, 0);
  SPolicyKelim__FlowCounter wanted = S_POLICY_KELIM__FLOW_COUNTER__INIT;
  wanted.index = &key;
  qx_obj *obj = nullptr;
  const int rv = qx_mom_get_sync(g_ssc_kelim_global, QX_MOM_UDP_DB, &wanted.base, 0, &obj);
  obj_ptr counter(obj);
  return rv == 0 && obj && obj->error_code == 0 && obj->value ? std::move(counter) : nullptr;
}

int ssc_sdn_statistic_get_all_cnt_cb(const qx_obj *reply, void *) {
  const auto *counter = static_cast<const SPolicyKelim__FlowCounter *>(reply->value);
  if (!counter || !counter->index) {
    SDN_VER("msg->value == NULL\n");
    return QX_INVALID;
  }
  if (reply->cmd == QX_MOM_CMD_SET) ssc_sdn_reply_statistic(counter->index->flow_index, counter->packet_sum, counter->byte_sum);
  return 0;
}

// Sends one reply per counter record; the request itself gets none.
void send_all_statistics() {
  SPolicyKelim__FlowKey key = ssc_kelim_flow_key(0, 0);
  SPolicyKelim__FlowCounter every_counter = S_POLICY_KELIM__FLOW_COUNTER__INIT;
  every_counter.index = &key;
  const std::int32_t rv = ssc_kelim_mom_scan(&every_counter.base, ssc_sdn_statistic_get_all_cnt_cb, nullptr);
  if (rv != 0) SDN_ERROR_AS("ssc_sdn_statistic_get_val", "qx_mom_scan_sync  counter fail.\n");
}

// ---- controller addresses

struct octets {
  int byte[4];
};
// In the order of dotted notation: the first octet is the least significant.
octets octets_of(std::uint32_t ip) {
  return {{static_cast<int>(ip & 0xff), static_cast<int>(ip >> 8 & 0xff), static_cast<int>(ip >> 16 & 0xff),
           static_cast<int>(ip >> 24)}};
}

SPolicyKelim__OncIpKey onc_key(std::uint32_t vsd_id, const void *msg) {
  SPolicyKelim__OncIpKey key = S_POLICY_KELIM__ONC_IP_KEY__INIT;
  key.vsd_id = vsd_id;
  key.ip = get<std::uint32_t>(msg, southbound::kOncAddress);
  return key;
}

// ---- packet path

// Calls work(record) on the daemon's registration as a packet-path client.
template <typename Work>
int with_pkt_registration(Work work) {
  char name[] = "kelim", library[] = "libkelim.pkt.ss.so";
  SCluster__AppName key = S_CLUSTER__APP_NAME__INIT;
  key.name = name;
  SCluster__RegPktInfo record = S_CLUSTER__REG_PKT_INFO__INIT;
  record.index = &key;
  record.dlib_name = library;
  return work(&record.base);
}

// ---- meters

void add_meter(std::uint32_t vsd_id, const ssc_sdn_meter_job &job) {
  constexpr char log_name[] = "ssc_sdn_add_meter_handler";
  SDN_VER_AS(log_name, "enter, vsd_id: %d, msg: %p, len :%d", vsd_id, job.msg, job.len);
  SPolicyKelim__MeterKey key = ssc_kelim_meter_key(get<std::uint32_t>(job.msg, southbound::kMeterId), vsd_id);
  SPolicyKelim__Meter record = S_POLICY_KELIM__METER__INIT;
  record.index = &key;
  record.status = S_POLICY_KELIM__STATUS_E__STATUS_INSTALLING;
  record.meter_data = {job.len, static_cast<std::uint8_t *>(job.msg)};
  if (const std::int32_t rv = ssc_kelim_mom_set(&record.base, QX_MOM_UDP_DB); rv != 0) {
    // Deliberate: the text of a failed flow; operators search the log for it.
    SDN_ERROR_AS(log_name, "ssc sdn add flow FAIL!");
    sdn_send_meter_ret_val_2_proxy(vsd_id, key.meter_id, rv);
  }
  ++sdn_opt_cnt[SDN_OPT_METER_ADD + SDN_OPT_HANDLED];
}

void del_meter(std::uint32_t vsd_id, const ssc_sdn_meter_job &job) {
  constexpr char log_name[] = "ssc_sdn_del_meter_handler";
  SDN_VER_AS(log_name, "enter, vsd_id: %d, msg: %p, len :%d", vsd_id, job.msg, job.len);
  SPolicyKelim__MeterKey key = ssc_kelim_meter_key(get<std::uint32_t>(job.msg, southbound::kMeterId), vsd_id);
  SPolicyKelim__Meter record = S_POLICY_KELIM__METER__INIT;
  record.index = &key;
  if (ssc_kelim_mom_del_in(&record.base, QX_MOM_UDP_DB) != 0) {
    SDN_ERROR_AS(log_name, "ssc sdn del meter FAIL!");
    ++sdn_opt_cnt[SDN_OPT_METER_DEL + SDN_OPT_FAILED];
  }
  ++sdn_opt_cnt[SDN_OPT_METER_DEL + SDN_OPT_HANDLED];
}

}  // namespace

void ssc_sdn_add_meter_handler(libss_pthrd_hdl *hdl) {
  handler_run::run<handler_run::meter_job>(hdl, SDN_TIME_ADD_METER,
                                           [&](const ssc_sdn_meter_job *job) { add_meter(hdl->value, *job); });
  SDN_VER("leave");
}

void ssc_sdn_del_meter_handler(libss_pthrd_hdl *hdl) {
  handler_run::run<handler_run::meter_job>(hdl, SDN_TIME_DEL_METER,
                                           [&](const ssc_sdn_meter_job *job) { del_meter(hdl->value, *job); });
  SDN_VER("leave");
}

// ---- controller connection

void ssc_sdn_enable_msg_handler(libss_pthrd_hdl *hdl) {
  const char *name = __func__;
  process_connection_msg(hdl, SDN_TIME_ENABLE, SDN_OPT_ENABLE,
                         [name](std::int32_t rv) { SDN_ERROR_AS(name, "enable msg fail,rv :%d", rv); });
}

void ssc_sdn_disable_msg_handler(libss_pthrd_hdl *hdl) {
  const char *name = __func__;
  process_connection_msg(hdl, SDN_TIME_DISABLE, SDN_OPT_DISABLE,
                         [name](std::int32_t rv) { SDN_ERROR_AS(name, "disable msg fail,rv :%d", rv); });
}

std::int32_t ssc_sdn_proc_enable_msg(std::uint32_t vsd_id, const void *msg) {
  SDN_VER("enter, vsd_id: %d, msg: %p.", vsd_id, msg);
  const auto type = get<std::uint16_t>(msg, southbound::kType);
  const auto version = get<std::uint16_t>(msg, southbound::kVer);
  const auto len = get<std::uint16_t>(msg, southbound::kLen);
  ssc_sdn_set_sdn_vers(version);
  // Deliberate: an ERROR line on every open and close, so that the log always shows which version a controller spoke.
  SDN_ERROR("recev  openflow msg version= %d!", version);
  ssc_sdn_set_sdn_tbl_pro(get<std::uint16_t>(msg, southbound::kTable));
  if (len <= southbound::kHeaderLen) {
    SDN_NOTICE("(ifx_info.osh.length <= sizeof(struct of_ss_ifx))");
    return QX_INVALID;
  }
  const auto count = static_cast<std::uint32_t>((len - southbound::kHeaderLen) / sizeof(std::uint32_t));
  SDN_VER("enter, ifx_num: %d  ifx_info.osh.type:%d", count, type);
  std::int32_t rv = trace_interfaces(msg, count);
  if (rv != 0) {
    SDN_ERROR("mem malloc failed");
    return rv;
  }
  if (type != southbound::kOpen && type != southbound::kClose && type != southbound::kMgmtIfx) {
    SDN_ERROR("NOT SUPPORT NOW!");
    rv = QX_UNSUPPORTED;
  }
  SDN_VER("leave");
  return rv;
}

std::int32_t ssc_sdn_dump_sdn_ifx_array(const std::uint32_t *ifx, std::uint32_t count) {
  std::printf("\n====ssc_sdn_dump_sdn_ifx_array, ifx_num: %d====\n", count);
  for (std::uint32_t i = 0; ifx && i < count; ++i) std::printf("ifx[%d]: %d,\n", i, ifx[i]);
  std::printf("\n====end ssc_sdn_dump_sdn_ifx_array====\n");
  return 0;
}

// ---- barriers

void ssc_sdn_add_barrier_handler(libss_pthrd_hdl *hdl) {
  auto request = handler_run::take<handler_run::message>(hdl);
  ssc_sdn_trace_barrier(request.get(), __func__);
  if (ssc_sdn_msg_queue_empty()) {
    ssc_sdn_reply_barrier_request(request.get());
    // Deliberate: the latest request that was answered at once is kept for diagnostics.
    ssc_sdn_free(std::exchange(g_ssc_sdn_answered_barrier, request.release()));
    return;
  }
  ssc_sdn_msg_queue_alloc_barrier_msg_node(request.get());
  ssc_sdn_msg_queue_traverse_pop_msg_node();
}

// ---- bulk removal

void ssc_sdn_del_all_flow_handler(libss_pthrd_hdl *hdl) {
  SDN_VER("ENTER");
  {
    const handler_run::timing timed(SDN_TIME_DEL_ALL_FLOW);
    if (g_ssc_ds_stage.in_progress) ssc_sdn_abandon_data_sync();
    SDN_VER("vsd_id: %d ssc_sdn_del_all_flow_handler  enter\n", hdl->value);
    if (ssc_sdn_db_del_all_flow(hdl->value) != 0) {
      ++sdn_opt_cnt[SDN_OPT_DEL_ALL_FLOW + SDN_OPT_FAILED];
      SDN_VER("ssc_sdn_del_all_flow %d happened error\n", hdl->value);
    }
    ++sdn_opt_cnt[SDN_OPT_DEL_ALL_FLOW + SDN_OPT_HANDLED];
  }
  SDN_VER("LEAVE");
}

// Deliberate: it logs the texts of delete-all-flows, of which it is the wider form.
void ssc_sdn_del_all_handler(libss_pthrd_hdl *hdl) {
  SDN_VER("vsd_id: %d ssc_sdn_del_all_flow_handler  enter\n", hdl->value);
  for (const auto del_all : {ssc_sdn_db_del_all_flow, ssc_sdn_db_del_all_meter}) {
    if (del_all(hdl->value) == 0) continue;
    ++sdn_opt_cnt[SDN_OPT_DEL_ALL + SDN_OPT_FAILED];
    SDN_VER("ssc_sdn_del_all_flow %d happened error\n", hdl->value);
  }
  ++sdn_opt_cnt[SDN_OPT_DEL_ALL + SDN_OPT_HANDLED];
  SDN_VER("LEAVE");
}

// ---- statistics

void ssc_sdn_get_statistic_val_handler(libss_pthrd_hdl *hdl) {
  handler_run::run<handler_run::message>(hdl, SDN_TIME_STATISTIC, [](const void *request) {
    if (ssc_sdn_statistic_get_val(request) != 0) count_statistic_failure();
  });
}

std::int32_t ssc_sdn_statistic_get_val(const void *request) {
  const auto flow_index = get<std::uint64_t>(request, southbound::kStatIndex);
  if (flow_index == southbound::kAllFlows) {
    send_all_statistics();
    return 0;
  }
  if (const obj_ptr counter = get_counter(flow_index)) {
    const auto &record = *static_cast<const SPolicyKelim__FlowCounter *>(counter->value);
    ssc_sdn_reply_statistic(flow_index, record.packet_sum, record.byte_sum);
    return 0;
  }
  // Deliberate: no reply. To the requester, silence means that the flow has no counters.
  SDN_ERROR("get flow:%lu counter entry fail.\n", flow_index);
  count_statistic_failure();
  SDN_COUNT("ssc_sdn_get_statistic_cnt fail, it willn't send msg to pi by libproxy");
  return 0;
}

void ssc_sdn_flowcnt_cfg_handler(libss_pthrd_hdl *hdl) {
  constexpr char log_name[] = "ssc_sdn_proc_flowcnt_cfg_msg";
  SDN_VER_AS(log_name, "ENTER");
  const auto msg = handler_run::take<handler_run::message>(hdl);
  const auto type = get<std::uint16_t>(msg.get(), southbound::kType);
  if (type == southbound::kFlowCountConfig) {
    const auto reply_pkt_num = get<std::int32_t>(msg.get(), southbound::kCountCells);
    const kelim::Lock lock(g_ssc_sdn_pack_max_cell_num_mutex);
    SDN_VER_AS(log_name, "flowcnt_cfg.reply_pkt_num = %d", reply_pkt_num);
    SDN_VER_AS(log_name, "flowcnt_cfg.reply_time = %d s", get<std::int32_t>(msg.get(), southbound::kCountPeriod));
    g_ssc_sdn_pack_max_cell_num = reply_pkt_num;
  } else {
    SDN_ERROR_AS(log_name, "OF TYPE(%d) IS ERROR", type);
  }
  SDN_VER_AS(log_name, "LEAVE");
}

// ---- controller addresses

void ssc_sdn_add_onc_handler(libss_pthrd_hdl *hdl) {
  SDN_VER("ENTER");
  const auto msg = handler_run::take<handler_run::message>(hdl);
  SPolicyKelim__OncIpKey key = onc_key(hdl->value, msg.get());
  SPolicyKelim__OncIp record = S_POLICY_KELIM__ONC_IP__INIT;
  record.index = &key;
  record.status = S_POLICY_KELIM__STATUS_E__STATUS_INSTALLING;
  const auto [ip] = octets_of(key.ip);
  SDN_VER("add onc ip is %d.%d.%d.%d", ip[0], ip[1], ip[2], ip[3]);
  const std::int32_t rv = ssc_kelim_mom_set(&record.base, QX_MOM_UDP_DB);
  if (rv != 0) {
    ++sdn_opt_cnt[SDN_OPT_ONC_ADD + SDN_OPT_FAILED];
    SDN_ERROR("ssc_kelim_mom_set failed, rv %d", rv);
    return;
  }
  SDN_VER("LEAVE");
}

void ssc_sdn_del_onc_handler(libss_pthrd_hdl *hdl) {
  const auto msg = handler_run::take<handler_run::message>(hdl);
  SPolicyKelim__OncIpKey key = onc_key(hdl->value, msg.get());
  SPolicyKelim__OncIp record = S_POLICY_KELIM__ONC_IP__INIT;
  record.index = &key;
  const auto [ip] = octets_of(key.ip);
  SDN_VER("del onc ip is %d.%d.%d.%d", ip[0], ip[1], ip[2], ip[3]);
  const std::int32_t rv = ssc_kelim_mom_del_in(&record.base, QX_MOM_UDP_DB);
  if (rv == 0) return;
  ++sdn_opt_cnt[SDN_OPT_ONC_DEL + SDN_OPT_FAILED];
  // Deliberate: the text of a failed addition; operators search the log for it.
  SDN_ERROR("ssc_sdn_add_op_onc_ace failed, rv %d", rv);
}

// ---- packet path

std::int32_t kelim_pkt_start() {
  SDN_VER("ENTER");
  const int rv = with_pkt_registration(
      [](const ProtobufCMessage *record) { return qx_mom_setnx_sync(g_ssc_kelim_global, QX_MOM_ASIC_DB, record, 0, 0); });
  if (rv == 1) {
    SDN_VER("key already exist. rv:%d\n", rv);
  } else if (rv != 0) {
    SDN_ERROR("qx_mom_setnx_sync fail. rv:%d\n", rv);
    return rv;
  }
  SDN_VER("LEAVE");
  return 0;
}

std::int32_t kelim_pkt_end() {
  const int rv = with_pkt_registration(
      [](const ProtobufCMessage *record) { return qx_mom_del_sync(g_ssc_kelim_global, QX_MOM_ASIC_DB, record, 0, 0); });
  if (rv != 0) SDN_ERROR("qx_mom_set error. rv:%d\n", rv);
  return rv;
}

void ssc_sdn_pkt_start_handler(libss_pthrd_hdl *hdl) {
  if (!hdl || !hdl->data) {
    if (ssc_sdn_debug_sw & SDN_DBG_ASSERT) {
      std::printf("ASSERT fail! - %s: %d.\n(hdl != NULL && hdl->arg != NULL).", SDN_LOG_SOURCE, __LINE__);
    }
    return;
  }
  const auto item = handler_run::take<handler_run::message>(hdl);
  const bool start = get<std::uint8_t>(item.get(), 0) == 1;
  SDN_VER("is pkt start:%s", start ? "true" : "false");
  SPolicyKelim__PktSig signal = S_POLICY_KELIM__PKT_SIG__INIT;
  signal.is_pkt_start = start ? 1 : 0;
  qx_mom_publish(g_ssc_kelim_global, QX_MOM_UDP_DB, &signal.base, 0, 0);
}

void ssc_kelim_requests_reset_for_tests() {
  ssc_sdn_ds_stage_init_or_check(1);
  ssc_sdn_free(std::exchange(g_ssc_sdn_answered_barrier, nullptr));
}
