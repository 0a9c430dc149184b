#include "ssc_kelim/sdn/ssc_kelim_flow_to_ace.h"

#include <algorithm>
#include <cstring>
#include <span>

#include "kelim/common/kelim_debug.h"
#include "qx_runtime.h"
#include "ssc_kelim/sdn/sdn_ptr.h"
#include "ssc_kelim/sdn/ssc_kelim_flow_convert.h"
#include "ssc_kelim/sdn/ssc_kelim_flow_db.h"
#include "ssc_kelim/sdn/ssc_kelim_flow_store.h"
#include "ssc_kelim/sdn/ssc_kelim_mom.h"
#include "ssc_kelim/sdn/ssc_kelim_msg_to_ssd.h"

// All handlers log under one source path.
#undef SDN_LOG_SOURCE
#define SDN_LOG_SOURCE "app/ssc_kelim/sdn/ssc_kelim_msg_to_ssd.cpp"

namespace {

// One entry under translation. The records borrow addresses from `scratch`, so all of it lives until the flow record is written.
struct translated_ace {
  flow_info_node scratch;
  SPolicyKelim__FlowAceField field;
  SPolicyKelim__FlowAceAction action;
  SPolicyKelim__FlowAce ace;
};

template <typename T>
sdn_ptr<T[]> new_zeroed_array(std::size_t count) {
  // NOLINTNEXTLINE(bugprone-sizeof-expression): T may also be a pointer
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

// The flow record that a list of entries is translated into, with everything that it points to.
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
    for (std::size_t i = 0; aces_ && i < source_.size(); ++i) {
      ssc_sdn_free_ace_field_ip_mac(&aces_[i].field);
      ssc_sdn_free_ace_action_mac(&aces_[i].action);
      ssc_sdn_free(aces_[i].ace.acl_app_type);
    }
  }

  // False when memory is short or an entry lacks an address. `node` is the cached flow.
  bool translate(const flow_info_node &node) {
    if (!aces_ || !list_) return false;
    for (std::size_t i = 0; i < source_.size(); ++i) {
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

  // The controller's request, from the cached flow.
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
    ssc_sdn_process_flow_install_result(key.vsd_id, key.flow_index, QX_INVALID);
    return;
  }
  flow.flow_data = {node->raw_len, node->raw};

  std::int32_t rv = QX_NO_MEMORY;
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
    return QX_NOT_POSTED;
  }
  return 0;
}
