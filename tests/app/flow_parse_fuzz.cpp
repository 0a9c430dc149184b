// Any bytes as a flow-mod: both parsers, the port checks, the dump, and the road into a record and back.
#include <cstdio>
#include <cstring>
#include <memory>

#include "kelim/common/kelim_debug.h"
#include "ssc_kelim/sdn/ssc_kelim_flow_convert.h"
#include "ssc_kelim/sdn/ssc_kelim_flow_parse.h"
#include "ssc_kelim/sdn/ssc_kelim_flow_store.h"
#include "ssc_kelim/sdn/ssc_sdn_proxy_dbg.h"
#include "support/require.h"

namespace {

// What a parsed flow is stored as reads back as the same rules and actions.
void convert_and_read_back(const flow_info_node &node) {
  SPolicyKelim__FlowKey key = S_POLICY_KELIM__FLOW_KEY__INIT;
  SPolicyKelim__Flow flow = S_POLICY_KELIM__FLOW__INIT;
  flow.index = &key;
  flow.n_ace = 1;
  require(ssc_sdn_ace_field_act_convert(&flow, &node) == 0);
  flow_info_node back{};
  require(ssc_sdn_read_back_ace_field(&back, flow.ace[0]) == -1);
  require(ssc_sdn_read_back_ace_action(&back, flow.ace[0]) == -1);
  require(back.rule_bitmap == node.rule_bitmap && back.action_bitmap == node.action_bitmap);
  require(std::memcmp(back.dst_mac, node.dst_mac, sizeof node.dst_mac) == 0 || !(node.rule_bitmap & 1));
  ssc_sdn_free_flow_members(&flow);

  SPolicyKelim__ParseFlow parse_flow = S_POLICY_KELIM__PARSE_FLOW__INIT;
  require(ssc_sdn_parse_flow_ace_field_act_convert(&parse_flow, &node) == 0);
  ssc_sdn_free_parse_flow_members(&parse_flow);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  if (size > UINT16_MAX) return 0;
  const std::unique_ptr<std::uint8_t[]> message(new std::uint8_t[size]);
  std::copy(data, data + size, message.get());

  flow_info_node node{};
  node.raw_len = static_cast<std::uint32_t>(size);
  const std::int32_t rule_rv = ssc_kelim_parse_flow_rule_para(message.get(), &node);
  const std::int32_t action_rv = ssc_kelim_parse_flow_action_para(message.get(), &node);
  require(rule_rv == action_rv && (rule_rv == 0 || rule_rv == -4));
  require(node.flow_field_bitmap >> 21 == 0 && node.flow_action_bitmap >> 7 == 0);
  require(node.rule_bitmap >> 19 == 0 && node.action_bitmap >> 14 == 0);
  convert_and_read_back(node);

  SPolicyKelim__Flow record = S_POLICY_KELIM__FLOW__INIT;
  record.flow_data = {size, message.get()};
  ssc_kelim_pick_out_inport_phyid(&record);
  require(ssc_kelim_pick_out_outport_phyid(&record) == 0);

  // The dump takes the message's own word for its length, which the intake has checked.
  if (size < 6) return 0;
  const auto len = static_cast<std::uint16_t>(size);
  std::memcpy(message.get() + 4, &len, sizeof len);
  libproxy_fp_sdn_dump_flow(message.get());
  return 0;
}

// The dump prints; a fuzzing run does not want to read it.
extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  return std::freopen("/dev/null", "w", stdout) ? 0 : 1;
}
