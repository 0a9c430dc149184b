// Records of the database with their keys, empty but for what a test sets.
#pragma once

#include <cstdint>
#include <type_traits>

#include "qx_mom.h"
#include "s_cluster.pb-c.h"
#include "s_policy_kelim.pb-c.h"
#include "s_target.pb-c.h"

namespace records {

// An empty record with its key, whose member `kFirst` is set.
template <typename Record, const ProtobufCMessageDescriptor &kRecord, const ProtobufCMessageDescriptor &kKey, auto kFirst>
struct Keyed {
  static constexpr qx_mom_type kType = {&kRecord, &kKey};
  std::remove_pointer_t<decltype(Record::index)> key;
  Record record;
  template <typename Value>
  explicit Keyed(Value first) {
    protobuf_c_message_init(&kKey, &key);
    protobuf_c_message_init(&kRecord, &record);
    key.*kFirst = first;
    record.index = &key;
  }
  Keyed(const Keyed &) = delete;
  operator ProtobufCMessage *() { return &record.base; }
};

template <typename Record, const ProtobufCMessageDescriptor &kRecord>
using OfFlow = Keyed<Record, kRecord, s_policy_kelim__flow_key__descriptor, &SPolicyKelim__FlowKey::flow_index>;
using Flow = OfFlow<SPolicyKelim__Flow, s_policy_kelim__flow__descriptor>;
using FlowSta = OfFlow<SPolicyKelim__FlowSta, s_policy_kelim__flow_sta__descriptor>;
using FlowCounter = OfFlow<SPolicyKelim__FlowCounter, s_policy_kelim__flow_counter__descriptor>;

// What the service chain is asked for and tells.
template <typename Record, const ProtobufCMessageDescriptor &kRecord>
struct OfServiceChain
    : Keyed<Record, kRecord, s_policy_kelim__parse_flow_key__descriptor, &SPolicyKelim__ParseFlowKey::flow_index> {
  explicit OfServiceChain(std::uint64_t flow) : OfServiceChain::Keyed(flow) {
    this->key.t_flow_type = S_POLICY_KELIM__FLOW_TYPE_T__SERVICE_CHAIN_FLOW;
  }
};
using ParseFlow = OfServiceChain<SPolicyKelim__ParseFlow, s_policy_kelim__parse_flow__descriptor>;
using FlowToAce = OfServiceChain<SPolicyKelim__FlowToAce, s_policy_kelim__flow_to_ace__descriptor>;
using FlowToAceSta = OfServiceChain<SPolicyKelim__FlowToAceSta, s_policy_kelim__flow_to_ace_sta__descriptor>;

using Meter = Keyed<SPolicyKelim__Meter, s_policy_kelim__meter__descriptor, s_policy_kelim__meter_key__descriptor,
                    &SPolicyKelim__MeterKey::meter_id>;
using OncIp = Keyed<SPolicyKelim__OncIp, s_policy_kelim__onc_ip__descriptor, s_policy_kelim__onc_ip_key__descriptor,
                    &SPolicyKelim__OncIpKey::ip>;
using Registration =
    Keyed<SCluster__RegPktInfo, s_cluster__reg_pkt_info__descriptor, s_cluster__app_name__descriptor, &SCluster__AppName::name>;
using Capabilities = Keyed<STarget__Capabilities, s_target__capabilities__descriptor, s_target__capabilities_key__descriptor,
                           &STarget__CapabilitiesKey::unit>;
inline constexpr qx_mom_type kPktSig = {&s_policy_kelim__pkt_sig__descriptor, nullptr};

}  // namespace records
