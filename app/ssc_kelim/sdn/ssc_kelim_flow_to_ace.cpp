// Service-chain flows and the port check. Its log lines belong to ssc_kelim_msg_to_ssd.cpp, like those of all handlers.
#include "ssc_kelim/sdn/ssc_kelim_flow_to_ace.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <span>

#include "kelim/common/kelim_debug.h"
#include "libddm.h"
#include "lsm_if.h"
#include "qx_runtime.h"
#include "ssc_kelim/sdn/flow_members.h"
#include "ssc_kelim/sdn/flow_walk.h"
#include "ssc_kelim/sdn/oxm_table.h"
#include "ssc_kelim/sdn/ssc_kelim_flow_convert.h"
#include "ssc_kelim/sdn/ssc_kelim_flow_db.h"
#include "ssc_kelim/sdn/ssc_kelim_mom.h"
#include "ssc_kelim/sdn/ssc_kelim_msg_to_ssd.h"

#undef SDN_LOG_SOURCE
#define SDN_LOG_SOURCE "app/ssc_kelim/sdn/ssc_kelim_msg_to_ssd.cpp"

namespace {

using flow_members::sdn_ptr;
using flow_walk::flow_view;
using flow_walk::read;

// ---- ports

constexpr char kInLogName[] = "ssc_kelim_pick_out_inport_phyid";
constexpr char kOutLogName[] = "ssc_kelim_pick_out_outport_phyid";

constexpr std::uint32_t kOxmInPort = 0x80000004;
constexpr std::uint16_t kActionOutput = 0;
// Interface indexes that stand for "any interface".
constexpr std::uint32_t kAllOtherIfx = 0x10001, kAllOrIfx = 0x10002;
constexpr std::uint32_t kFirstReservedPort = 0xffffff00;

// Reserved output ports (OpenFlow 1.3.5, 7.2.1) that need no lookup, with what is logged.
struct known_port {
  std::uint32_t port;
  const char *line;
};
constexpr char kNotSupported[] = "do not support.";
constexpr known_port kKnownPorts[] = {
    {0xfffffffa, "Output port is normal."},      // NORMAL
    {0xfffffffd, "Output port is controller."},  // CONTROLLER
    {0xfffffff8, kNotSupported},                 // IN_PORT
    {0xfffffff9, kNotSupported},                 // TABLE
    {0xfffffffb, kNotSupported},                 // FLOOD
    {0xfffffffc, kNotSupported},                 // ALL
    {0xfffffffe, kNotSupported},                 // LOCAL
    {0xffffffff, kNotSupported},                 // ANY
    {0xffffff00, kNotSupported},                 // MAX
};

std::int32_t check_in_port(std::uint32_t ifx) {
  SDN_VER_AS(kInLogName, "flow is port based, in_port_ifx: %d", ifx);
  if (ifx == kAllOrIfx) {
    SDN_VER_AS(kInLogName, "ifx is OF_SS_ALL_OR_IFINDEX, NOT SUPPORT.");
    return 0;
  }
  if (ifx == kAllOtherIfx) {
    SDN_ERROR_AS(kInLogName, "ifx is OF_SS_ALL_OT_IFINDEX, NOT SUPPORT.");
    return -20;
  }
  const std::uint32_t type = ifx < kFirstReservedPort ? lsm_if_get_type(ifx) : 0;
  if (type == LLCB_OVERLAY_TUNNEL) {
    SDN_ERROR_AS(kInLogName, "ifx_type is LLCB_OVERLAY_TUNNEL, NOT SUPPORT.");
    return -20;
  }
  if (type == LLCB_OVERLAY_ROUTER) {
    SDN_VER_AS(kInLogName, "ifx_type is LLCB_OVERLAY_ROUTER, NOT SUPPORT.");
    return -20;
  }
  std::uint32_t phyid = 0;
  const int rv = libddm_get_phyid_by_ifx(ifx, &phyid);
  if (rv != 0) {
    SDN_ERROR_AS(kInLogName, "get phyid by ifx failed, rv = %d(ifx = %d\n", rv, ifx);
    return rv;
  }
  SDN_VER_AS(kInLogName, "get phyid by ifx success, (in_port_ifx = %d phyid:%d\n", ifx, phyid);
  return 0;
}

void check_out_port(std::uint32_t port) {
  const auto *known = std::ranges::find(kKnownPorts, port, &known_port::port);
  if (known != std::end(kKnownPorts)) {
    SDN_VER_AS(kOutLogName, "%s", known->line);
    return;
  }
  std::uint32_t phyid = 0;
  const int rv = libddm_get_phyid_by_ifx(port, &phyid);
  if (rv == 0) {
    SDN_VER_AS(kOutLogName, "get phyid by ifx success, (ifx = %d phyid:%d\n", port, phyid);
  } else {
    SDN_ERROR_AS(kOutLogName, "get phyid by ifx failed, rv = %d(ifx = %d\n", rv, port);
  }
}

// ---- translation

// One entry under translation. The records borrow addresses from `scratch`, so the whole lives until the flow record is written.
struct translated_ace {
  flow_info_node scratch;
  SPolicyKelim__FlowAceField field;
  SPolicyKelim__FlowAceAction action;
  SPolicyKelim__FlowAce ace;
};

template <typename T>
sdn_ptr<T[]> new_zeroed_array(std::size_t count) {
  // NOLINTNEXTLINE(bugprone-sizeof-expression): an array of pointers is wanted as well
  const std::size_t bytes = std::max<std::size_t>(1, count * sizeof(T));
  void *block = ssc_sdn_malloc(bytes, __func__, __LINE__);
  if (block) std::memset(block, 0, bytes);
  return sdn_ptr<T[]>(static_cast<T *>(block));
}

char *copy_of(const char *text) {
  const std::size_t bytes = std::strlen(text) + 1;
  auto *copy = static_cast<char *>(ssc_sdn_malloc(bytes, __func__, __LINE__));
  if (copy) std::memcpy(copy, text, bytes);
  return copy;
}

// The flow record that a list of entries is translated into, with everything that it points at.
class translation {
 public:
  explicit translation(std::span<SPolicyKelim__FlowAce *const> source)
      : source_(source),
        aces_(new_zeroed_array<translated_ace>(source.size())),
        list_(new_zeroed_array<SPolicyKelim__FlowAce *>(source.size())) {}
  translation(const translation &) = delete;
  translation &operator=(const translation &) = delete;
  ~translation() {
    ssc_sdn_free_field_ip_mac(&flow_field_);
    ssc_sdn_free_action_mac(&flow_action_);
    for (std::size_t i = 0; aces_ && i < source_.size(); i++) {
      ssc_sdn_free_ace_field_ip_mac(&aces_[i].field);
      ssc_sdn_free_ace_action_mac(&aces_[i].action);
      ssc_sdn_free(aces_[i].ace.acl_app_type);
    }
  }

  // False when memory is short or an entry lacks an address. `node` is the cached flow.
  bool translate(const flow_info_node &node) {
    if (!aces_ || !list_) return false;
    for (std::size_t i = 0; i < source_.size(); i++) {
      if (!translate_ace(*source_[i], aces_[i])) return false;
      list_[i] = &aces_[i].ace;
      if (i == 0 && !take_request(node)) return false;
    }
    return true;
  }

  void hang_on(SPolicyKelim__Flow &flow) {
    flow.flow_field = &flow_field_;
    flow.flow_action = &flow_action_;
    flow.n_ace = source_.size();
    flow.ace = list_.get();
  }

 private:
  static constexpr char kLogName[] = "ssc_kelim_add_flow_to_ace";

  static bool translate_ace(const SPolicyKelim__FlowAce &source, translated_ace &to) {
    s_policy_kelim__flow_ace_field__init(&to.field);
    s_policy_kelim__flow_ace_action__init(&to.action);
    s_policy_kelim__flow_ace__init(&to.ace);
    to.ace.sn = source.sn;
    to.ace.acl_app_type = copy_of(source.acl_app_type ? source.acl_app_type : "");
    if (!to.ace.acl_app_type) return false;
    to.ace.ace_field = &to.field;
    to.ace.ace_action = &to.action;
    return convert_field(source, to) && convert_action(source, to);
  }

  static bool convert_field(const SPolicyKelim__FlowAce &source, translated_ace &to) {
    int failed = ssc_sdn_read_back_ace_field(&to.scratch, &source);
    if (failed < 0) failed = ssc_sdn_fill_ace_field(&to.field, &to.scratch);
    if (failed >= 0) SDN_ERROR_AS(kLogName, "ssc_sdn_ace_field_convert fail: field is %d", failed);
    return failed < 0;
  }

  static bool convert_action(const SPolicyKelim__FlowAce &source, translated_ace &to) {
    int failed = ssc_sdn_read_back_ace_action(&to.scratch, &source);
    if (failed < 0) failed = ssc_sdn_fill_ace_action(&to.action, &to.scratch);
    if (failed >= 0) SDN_ERROR_AS(kLogName, "ssc_sdn_ace_action_convert fail: action is %d", failed);
    return failed < 0;
  }

  // What the controller asked for, from the cached flow.
  bool take_request(const flow_info_node &node) {
    flow_field_.exp_app_type = node.exp_app_type;
    if (const int failed = ssc_sdn_fill_flow_field(&flow_field_, &node); failed >= 0) {
      SDN_ERROR_AS(kLogName, "ssc_sdn_parse_flow_ace_field_convert fail: field is %d", failed);
      return false;
    }
    const int failed = ssc_sdn_fill_flow_action(&flow_action_, &node);
    if (failed >= 0) SDN_ERROR_AS(kLogName, "ssc_sdn_parse_flow_ace_action_convert fail: action is %d", failed);
    return failed < 0;
  }

  std::span<SPolicyKelim__FlowAce *const> source_;
  sdn_ptr<translated_ace[]> aces_;
  sdn_ptr<SPolicyKelim__FlowAce *[]> list_;
  SPolicyKelim__FlowField flow_field_ = S_POLICY_KELIM__FLOW_FIELD__INIT;
  SPolicyKelim__FlowAction flow_action_ = S_POLICY_KELIM__FLOW_ACTION__INIT;
};

SPolicyKelim__FlowKey flow_key_of(const SPolicyKelim__FlowToAce &rec) {
  return rec.index ? ssc_kelim_flow_key(rec.index->flow_index, rec.index->vsd_id) : ssc_kelim_flow_key(0, 0);
}

}  // namespace

std::int32_t ssc_sdn_store_flow(const SPolicyKelim__Flow *flow, std::int64_t ow, const char *caller) {
  std::int32_t rv = ssc_kelim_pick_out_inport_phyid(flow);
  if (rv != 0) {
    SDN_ERROR_AS(caller, "ssc kelim pick out in port phyid FAIL!");
    return rv;
  }
  rv = ssc_kelim_pick_out_outport_phyid(flow);
  if (rv != 0) {
    SDN_ERROR_AS(caller, "ssc kelim pick out out port phyid FAIL!");
    return rv;
  }
  rv = ssc_kelim_mom_set_with_ow(&flow->base, ow);
  if (rv != 0) SDN_ERROR_AS(caller, "ssc sdn add flow ow:%d FAIL!", static_cast<int>(ow));
  return rv;
}

std::int32_t ssc_kelim_pick_out_inport_phyid(const SPolicyKelim__Flow *flow) {
  if (!flow->flow_data.data) {
    SDN_ERROR(" flow_entry.flow_data.data is NULL\n");
    return -4;
  }
  const flow_view view(flow->flow_data.data, flow->flow_data.len);
  for (auto at = view.match(); at.more(); at.next()) {
    if (at.whole() && at.word() == kOxmInPort) return check_in_port(read<std::uint32_t>(at.body(), 0));
    SDN_ERROR("OXM_VALUE = 0x%x isn't support", at.word());
    if (!at.whole() || !oxm_find(at.word())) break;
  }
  return 0;
}

std::int32_t ssc_kelim_pick_out_outport_phyid(const SPolicyKelim__Flow *flow) {
  if (!flow->flow_data.data) {
    SDN_ERROR(" flow_entry.flow_data.data is NULL\n");
    return -4;
  }
  const flow_view view(flow->flow_data.data, flow->flow_data.len);
  if (view.ends_at_match()) {
    SDN_VER(" this flow havn't action\n");
    return 0;
  }
  for (auto at = view.actions(); at.more(); at.next()) {
    const bool is_output = static_cast<std::uint16_t>(at.word()) == kActionOutput;
    if (!at.whole() || (is_output && at.body().size() < sizeof(std::uint32_t))) {
      SDN_ERROR("OXM_VALUE = 0x%x isn't support", at.word());
      break;
    }
    if (is_output) check_out_port(read<std::uint32_t>(at.body(), 0));
  }
  return 0;
}

void ssc_kelim_add_flow_to_ace(const SPolicyKelim__FlowToAce *rec) {
  SPolicyKelim__FlowKey key = flow_key_of(*rec);
  SPolicyKelim__Flow flow = S_POLICY_KELIM__FLOW__INIT;
  flow.index = &key;
  flow.status = S_POLICY_KELIM__STATUS_E__STATUS_INSTALLING;
  flow.req_uuid = qx_timeval_to_us(qx_monotime());

  const flow_info_key node_key{key.flow_index, key.vsd_id, 0};
  const flow_info_node *node = ssc_kelim_find_flow_node(&node_key);
  if (!node) {
    SDN_ERROR("flow node add failed. index:%lu, vsd_id:%d", key.flow_index, key.vsd_id);
    ssc_sdn_process_flow_install_result(key.vsd_id, key.flow_index, -4);
    return;
  }
  flow.flow_data = {node->raw_len, node->raw};

  std::int32_t rv = -2;
  {
    translation made({rec->ace, rec->n_ace});
    if (made.translate(*node)) {
      made.hang_on(flow);
      rv = ssc_sdn_store_flow(&flow, SSC_KELIM_OW_FLOW_TO_ACE, __func__);
    } else {
      SDN_ERROR("flow_entry malloc failed. flow_index = %lu", key.flow_index);
    }
  }
  if (rv != 0) ssc_sdn_process_flow_install_result(key.vsd_id, key.flow_index, rv);
}

std::int32_t ssc_kelim_del_flow_to_ace(const SPolicyKelim__FlowToAce *rec) {
  SPolicyKelim__FlowKey key = flow_key_of(*rec);
  SPolicyKelim__Flow flow = S_POLICY_KELIM__FLOW__INIT;
  flow.index = &key;
  if (ssc_kelim_mom_del(&flow.base) != 0) {
    SDN_ERROR("ssc sdn del flow FAIL!");
    return -11;
  }
  return 0;
}

std::int32_t ssc_sdn_dump_sdn_ifx_array(const std::uint32_t *ifx, std::uint32_t count) {
  std::printf("\n====ssc_sdn_dump_sdn_ifx_array, ifx_num: %d====\n", count);
  for (std::uint32_t i = 0; ifx && i < count; i++) std::printf("ifx[%d]: %d,\n", i, ifx[i]);
  std::printf("\n====end ssc_sdn_dump_sdn_ifx_array====\n");
  return 0;
}
