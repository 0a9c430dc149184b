// What the tests of the flow path share: the daemon, hand-written messages, records as text.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "component/harness.h"
#include "host/fault/fault.h"
#include "kelim/common/kelim_debug.h"
#include "s_policy_kelim.pb-c.h"
#include "ssc_kelim/sdn/ssc_kelim_flow_db.h"
#include "ssc_kelim/sdn/ssc_sdn_msg_queue.h"
#include "support/flow_bytes.h"
#include "support/record_text.h"

namespace flow_world {

using namespace flow_bytes;
using harness::Daemon;

inline constexpr std::int32_t kAppDb = 4, kUdpDb = 8;

inline const qx_mom_type kFlowType = {&s_policy_kelim__flow__descriptor, &s_policy_kelim__flow_key__descriptor};
inline const qx_mom_type kFlowToAceStaType = {&s_policy_kelim__flow_to_ace_sta__descriptor,
                                              &s_policy_kelim__parse_flow_key__descriptor};

// in_port, eth_type IPv4, 10.1.2.0/24, tcp_dst 80; output to port 2.
inline Bytes typical_flow(std::uint64_t index, std::uint32_t in_port = 1) {
  return flow_mod({.index = index,
                   .match = field(0x80000004, le(in_port)) + field(0x80000a02, le(std::uint16_t{0x0800})) +
                            field(0x80001908, le(0x0a010200u) + le(0xffffff00u)) + field(0x80001c02, le(std::uint16_t{80})),
                   .actions = output(2)});
}
inline Bytes service_chain_flow(std::uint64_t index) {
  return flow_mod({.index = index,
                   .match = field(0x80000004, le(1u)) + field(0xffff0204, le(3u)) + field(0x80000606, hex("020000000001")),
                   .actions = output(2)});
}
inline Bytes deletion(Bytes flow) {
  flow[28] = std::byte{1};
  return flow;
}
// {type, version 4, len, table 1} and the body.
inline Bytes message(std::uint16_t type, const Bytes &body) {
  const auto len = static_cast<std::uint16_t>(8 + body.size());
  return le(type) + le(std::uint16_t{4}) + le(len) + le(std::uint16_t{1}) + body;
}
inline Bytes barrier(std::uint32_t xid) {
  return message(31, Bytes(8) + le(xid) + le(0x0100007fu));
}

class FlowWorld : public testing::Test {
 protected:
  void TearDown() override {
    ssc_sdn_malloc_fail_nth(0);
    host::fault::clear();
  }

  static void send(int (*callback)(void *), Bytes bytes, int expected = 0) { ASSERT_EQ(callback(bytes.data()), expected); }
  void flow(const Bytes &bytes) { send(d.pi().flow_mod, bytes); }

  // Answers a flow as the programming service does: 2 installed, 3 failed, 14 out of resources.
  void answer(std::uint64_t index, int status) {
    SPolicyKelim__FlowKey key = S_POLICY_KELIM__FLOW_KEY__INIT;
    key.flow_index = index;
    SPolicyKelim__FlowSta sta = S_POLICY_KELIM__FLOW_STA__INIT;
    sta.index = &key;
    sta.status = static_cast<SPolicyKelim__StatusE>(status);
    ASSERT_EQ(d.write(kUdpDb, &sta.base), 0);
  }

  // The stored records of a type, as text, without their time stamps.
  std::vector<std::string> stored(std::int32_t db, const ProtobufCMessageDescriptor &type) const {
    std::vector<std::string> out;
    for (const auto &record : d.stored(db, &type)) {
      std::string line = record_text::text(record.message.get());
      const std::size_t stamp = line.find(" req_uuid=0x");
      if (stamp != std::string::npos) line.resize(stamp);
      out.push_back(line);
    }
    return out;
  }
  std::size_t flows_stored() const { return d.count(kUdpDb, &s_policy_kelim__flow__descriptor); }
  std::uint32_t flows_cached() const {
    std::uint32_t size = 0;
    d.on_loop([&] { size = flow_info_hash_size(); });
    return size;
  }
  bool cached(std::uint64_t index) const {
    bool found = false;
    d.on_loop([&] {
      const flow_info_key key{index, 0, 0};
      found = ssc_kelim_find_flow_node(&key) != nullptr;
    });
    return found;
  }
  bool queue_empty() const {
    bool empty = false;
    d.on_loop([&] { empty = ssc_sdn_msg_queue_empty(); });
    return empty;
  }
  std::vector<std::uint32_t> barriers_answered() const {
    std::vector<std::uint32_t> xids;
    for (const Bytes &reply : d.replies(32)) xids.push_back(southbound::get<std::uint32_t>(reply.data(), 16));
    return xids;
  }
  static std::string digits(const Bytes &bytes) {
    return record_text::digits(reinterpret_cast<const std::uint8_t *>(bytes.data()), bytes.size());
  }
  // Replies so far, as hexadecimal digits.
  std::vector<std::string> replies(std::uint16_t type) const {
    std::vector<std::string> out;
    for (const Bytes &reply : d.replies(type)) out.push_back(digits(reply));
    return out;
  }
  // Every allocation of the daemon from now on; the n-th one fails.
  void fail_allocation(std::uint32_t nth) {
    d.on_loop([=] { ssc_sdn_malloc_fail_nth(nth); });
  }

  Daemon d;
};

using Texts = std::vector<std::string>;

}  // namespace flow_world
