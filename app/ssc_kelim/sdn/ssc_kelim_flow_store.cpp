#include "ssc_kelim/sdn/ssc_kelim_flow_store.h"

#include <algorithm>
#include <iterator>

#include "kelim/common/kelim_debug.h"
#include "libddm.h"
#include "lsm_if.h"
#include "southbound_view.h"
#include "ssc_kelim/sdn/oxm_table.h"
#include "ssc_kelim/sdn/ssc_kelim_mom.h"

// Logs under the handlers' source path.
#undef SDN_LOG_SOURCE
#define SDN_LOG_SOURCE "app/ssc_kelim/sdn/ssc_kelim_msg_to_ssd.cpp"

namespace {

using southbound::flow_view;
using southbound::read;

constexpr char kInLogName[] = "ssc_kelim_pick_out_inport_phyid";
constexpr char kOutLogName[] = "ssc_kelim_pick_out_outport_phyid";

constexpr std::uint32_t kOxmInPort = 0x80000004;
constexpr std::uint16_t kActionOutput = 0;
// Interface indexes that stand for "any interface".
constexpr std::uint32_t kAllOtherIfx = 0x10001, kAllOrIfx = 0x10002;
constexpr std::uint32_t kFirstReservedPort = 0xffffff00;

// Reserved output ports (OpenFlow 1.3.5, 7.2.1) that need no lookup, and the text logged for each.
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
    return QX_UNSUPPORTED;
  }
  const std::uint32_t type = ifx < kFirstReservedPort ? lsm_if_get_type(ifx) : 0;
  if (type == LLCB_OVERLAY_TUNNEL) {
    SDN_ERROR_AS(kInLogName, "ifx_type is LLCB_OVERLAY_TUNNEL, NOT SUPPORT.");
    return QX_UNSUPPORTED;
  }
  if (type == LLCB_OVERLAY_ROUTER) {
    SDN_VER_AS(kInLogName, "ifx_type is LLCB_OVERLAY_ROUTER, NOT SUPPORT.");
    return QX_UNSUPPORTED;
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
    return QX_INVALID;
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
    return QX_INVALID;
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
