#include "ssc_kelim/sdn/ssc_kelim_msg_to_ssd.h"

#include <algorithm>
#include <cstdint>

#include "kelim/common/kelim_debug.h"
#include "qx_runtime.h"
#include "southbound.h"
#include "ssc_kelim/sdn/handler_run.h"
#include "ssc_kelim/sdn/ssc_kelim_adapt.h"
#include "ssc_kelim/sdn/ssc_kelim_data_sync.h"
#include "ssc_kelim/sdn/ssc_kelim_flow_convert.h"
#include "ssc_kelim/sdn/ssc_kelim_flow_db.h"
#include "ssc_kelim/sdn/ssc_kelim_flow_store.h"
#include "ssc_kelim/sdn/ssc_kelim_mom.h"
#include "ssc_kelim/sdn/ssc_kelim_removal.h"
#include "ssc_kelim/sdn/ssc_kelim_replies.h"
#include "ssc_kelim/sdn/ssc_sdn_msg_queue.h"

namespace {

// Data-sync classes of a queued flow, by what finally writes its record.
constexpr std::uint32_t kDsFlow = 0, kDsFlowToAce = 1;
constexpr std::uint32_t kMaxVlanId = 0xffe;

std::uint64_t now_us() {
  return qx_timeval_to_us(qx_monotime());
}

bool matches_vlan_id(const flow_info_node &node) {
  return (node.flow_field_bitmap >> S_POLICY_KELIM__FLOW_FIELD_E__OXM_SS_OF_VLAN_VID & 1) != 0;
}

std::uint32_t vlan_id(const flow_info_node &node) {
  return ssc_sdn_check_memcpy_reverse() ? southbound::get<std::uint16_t>(&node.vid, 0) : node.vid;
}

// Queues the flow until its result arrives. False, after a reply, if that fails.
bool register_flow(std::uint32_t vsd_id, std::uint64_t flow_index, const void *msg, std::uint32_t ds_type) {
  const std::int32_t rv = ssc_sdn_msg_queue_alloc_flow_msg_node(msg, ds_type);
  if (rv != 0) {
    SDN_ERROR_AS("ssc_sdn_add_flow_handler", "ssc kelim insert_msg_node FAIL!");
    sdn_send_flow_ret_val_2_proxy(vsd_id, flow_index, rv);
  }
  return rv == 0;
}

// Stores the parsed form for the application that turns it into entries. 0, QX_NO_MEMORY, or QX_UNSUPPORTED.
std::int32_t ssc_sdn_add_flow_to_app(const flow_info_node &node) {
  SPolicyKelim__ParseFlowKey key = ssc_kelim_parse_flow_key(node.exp_app_type, node.flow_index, node.vsd_id);
  SPolicyKelim__ParseFlow record = S_POLICY_KELIM__PARSE_FLOW__INIT;
  record.index = &key;
  record.req_uuid = now_us();
  std::int32_t rv = ssc_sdn_parse_flow_ace_field_act_convert(&record, &node);
  if (rv != 0) {
    SDN_ERROR("parse_flow malloc failed. flow_index = %lu", node.flow_index);
  } else if (ssc_kelim_mom_set(&record.base, QX_MOM_APP_DB) != 0) {
    SDN_ERROR("ssc sdn add flow FAIL! flow_index:%lu, vsd_id:%d", node.flow_index, node.vsd_id);
    rv = QX_UNSUPPORTED;
  }
  ssc_sdn_free_parse_flow_members(&record);
  return rv;
}

// Stores the flow for the programming service. 0, or the code of the step that failed.
std::int32_t ssc_sdn_add_flow_to_udp(const flow_info_node &node, const ssc_sdn_flow_job &job) {
  SPolicyKelim__FlowKey key = ssc_kelim_flow_key(node.flow_index, node.vsd_id);
  SPolicyKelim__Flow record = S_POLICY_KELIM__FLOW__INIT;
  record.index = &key;
  record.flow_data.data = static_cast<std::uint8_t *>(job.msg);
  record.n_ace = 1;
  record.req_uuid = now_us();
  std::int32_t rv = ssc_sdn_ace_field_act_convert(&record, &node);
  if (rv != 0) {
    SDN_ERROR("flow_entry malloc failed. flow_index = %lu", node.flow_index);
  } else {
    // The description of a known flow comes from its first message, which may have been longer.
    record.flow_data.len = std::min<std::size_t>(record.flow_data.len, job.len);
    rv = ssc_sdn_store_flow(&record, SSC_KELIM_OW_FLOW, __func__);
  }
  ssc_sdn_free_flow_members(&record);
  return rv;
}

// The two routes of an accepted flow.
void take_application_route(flow_info_node &node, const ssc_sdn_flow_job &job) {
  const std::uint64_t flow_index = node.flow_index;
  const std::uint32_t vsd_id = node.vsd_id;
  if (!register_flow(vsd_id, flow_index, job.msg, kDsFlowToAce)) return;
  const std::int32_t rv = ssc_sdn_add_flow_to_app(node);
  if (rv == 0) return;
  SDN_ERROR_AS("ssc_sdn_add_flow_handler", "ssc_sdn_add_flow_to_app FAIL!");
  ssc_sdn_process_flow_install_result(vsd_id, flow_index, rv);
}

void take_udp_route(flow_info_node &node, const ssc_sdn_flow_job &job) {
  const std::uint64_t flow_index = node.flow_index;
  const std::uint32_t vsd_id = node.vsd_id;
  if (!register_flow(vsd_id, flow_index, job.msg, kDsFlow)) return;
  const std::int32_t rv = ssc_sdn_add_flow_to_udp(node, job);
  if (rv == 0) return;
  // Deliberate: the same line as for a failed registration; operators search the log for it.
  SDN_ERROR_AS("ssc_sdn_add_flow_handler", "ssc kelim insert_msg_node FAIL!");
  ssc_sdn_process_flow_install_result(vsd_id, flow_index, rv);
}

// The cached flow of a flow-mod, created if it is new. Null, after a reply, if it cannot be created or must not be programmed.
flow_info_node *accept_flow(std::uint32_t vsd_id, std::uint64_t flow_index, const ssc_sdn_flow_job &job) {
  flow_info_node key{};
  key.flow_index = flow_index;
  key.vsd_id = vsd_id;
  flow_info_node *node = ssc_kelim_find_flow_node(&key);
  if (!node) node = ssc_kelim_add_flow_node(job.msg, static_cast<std::int32_t>(job.len), &key);
  if (!node) {
    SDN_ERROR_AS("ssc_sdn_add_flow_handler", "flow node add failed. index:%lu, vsd_id:%d", flow_index, vsd_id);
    sdn_send_flow_ret_val_2_proxy(vsd_id, flow_index, 0);
    return nullptr;
  }
  if (!matches_vlan_id(*node)) return node;
  const std::uint32_t vlan = vlan_id(*node);
  if (vlan <= kMaxVlanId) return node;
  SDN_ERROR_AS("ssc_sdn_add_flow_handler", "flow node field vlan id check failed. index:%lu, vsd_id:%d, vlan id:%u", flow_index,
               vsd_id, vlan);
  sdn_send_flow_ret_val_2_proxy(vsd_id, flow_index, 2);
  ssc_kelim_del_flow_node(node);
  return nullptr;
}

void add_flow(std::uint32_t vsd_id, const ssc_sdn_flow_job &job) {
  const auto flow_index = southbound::get<std::uint64_t>(job.msg, southbound::kFlowIndex);
  flow_info_node *node = accept_flow(vsd_id, flow_index, job);
  if (node && is_service_chain(*node)) {
    take_application_route(*node, job);
    return;
  }
  if (node) take_udp_route(*node, job);
  ssc_sdn_update_ds_node_and_check(flow_index, kDsFlow);
}

void del_flow(std::uint32_t vsd_id, const ssc_sdn_flow_job &job) {
  const auto flow_index = southbound::get<std::uint64_t>(job.msg, southbound::kFlowIndex);
  const bool deleted = ssc_sdn_del_flow_related_data(vsd_id, flow_index) == 0;
  ++sdn_opt_cnt[SDN_OPT_FLOW_DEL + (deleted ? SDN_OPT_HANDLED : SDN_OPT_FAILED)];
  ssc_sdn_update_ds_node_and_check(flow_index, kDsFlow);
  ssc_sdn_update_ds_node_and_check(flow_index, kDsFlowToAce);
}

}  // namespace

void ssc_sdn_add_flow_handler(libss_pthrd_hdl *hdl) {
  SDN_VER("ENTER");
  handler_run::run<handler_run::flow_job>(hdl, SDN_TIME_ADD_FLOW,
                                          [&](const ssc_sdn_flow_job *job) { add_flow(hdl->value, *job); });
  SDN_VER("LEAVE");
}

void ssc_sdn_del_flow_handler(libss_pthrd_hdl *hdl) {
  handler_run::run<handler_run::flow_job>(hdl, SDN_TIME_DEL_FLOW, [&](const ssc_sdn_flow_job *job) {
    SDN_VER_AS("ssc_sdn_del_flow_handler", "enter, vsd_id: %d, msg: %p, len :%d", hdl->value, job->msg,
               static_cast<int>(job->len));
    del_flow(hdl->value, *job);
  });
  SDN_VER("leave");
}

void ssc_sdn_process_flow_install_result(std::uint32_t vsd_id, std::uint64_t flow_index, std::int32_t result) {
  ssc_sdn_msg_queue_update_msg_node(SDN_ADD_FLOW_MSG, flow_index, static_cast<std::uint32_t>(result));
  ssc_sdn_msg_queue_traverse_pop_msg_node();
  if (result != 0) ssc_sdn_del_flow_related_data(vsd_id, flow_index);
}

void ssc_sdn_msg_queue_proc_flow_install_cb(const SPolicyKelim__FlowSta *sta, std::uint32_t result) {
  if (!sta->index) return;
  ssc_sdn_flow_to_ace_sta(sta);
  ssc_sdn_process_flow_install_result(sta->index->vsd_id, sta->index->flow_index, static_cast<std::int32_t>(result));
}
