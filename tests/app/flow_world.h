// Shared by the tests of the flow path: the daemon, hand-written messages, records as text.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "app/harness.h"
#include "host/fault/fault.h"
#include "kelim/common/kelim_debug.h"
#include "ssc_kelim/sdn/ssc_kelim_flow_db.h"
#include "ssc_kelim/sdn/ssc_sdn_msg_queue.h"
#include "support/flow_bytes.h"
#include "support/record_text.h"
#include "support/records.h"

namespace flow_world {

using namespace flow_bytes;
using namespace records;
using flow_bytes::hex, record_text::hex;
using harness::Daemon;
using record_text::text;
using Texts = std::vector<std::string>;

inline constexpr std::int32_t kAppDb = 4, kUdpDb = 8;

// in_port, eth_type IPv4, 10.1.2.0/24, tcp_dst 80; output to port 2.
inline Bytes typical_flow(std::uint64_t index) {
  return flow_mod({.index = index,
                   .match = field(0x80000004, le(1u)) + field(0x80000a02, le(std::uint16_t{0x0800})) +
                            field(0x80001908, le(0x0a010200u) + le(0xffffff00u)) + field(0x80001c02, le(std::uint16_t{80})),
                   .actions = output(2)});
}
inline Bytes service_chain_flow(std::uint64_t index) {
  return flow_mod({.index = index,
                   .match = field(0x80000004, le(1u)) + field(0xffff0204, le(3u)) + field(0x80000606, hex("020000000001")),
                   .actions = output(2)});
}
// Every kind of address in match and actions, with `last` as their last byte, and the largest VLAN id.
inline Bytes full_flow(std::uint64_t index, std::uint8_t last, std::uint32_t app_type = 5) {
  const Bytes mac = hex("0200000000") + le(last), ipv6 = hex("20010db8 00000000 00000000 000000") + le(last);
  return flow_mod({.index = index,
                   .match = field(0x80000004, le(1u)) + field(0x80000606, mac) + field(0x80000806, mac) +
                            field(0x80000c02, le(std::uint16_t{4094})) + field(0x80001604, le(0x0a000000u + last)) +
                            field(0x80001804, le(0x0b000000u + last)) + field(0x80003410, ipv6) + field(0x80003610, ipv6) +
                            field(0xffff0204, le(app_type)),
                   .actions = set_field(0x80000606, mac) + set_field(0x80000806, mac) + output(2)});
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
// The flow result reply of a failed flow, as hexadecimal digits: type 11, 24 bytes, flow index; 1: out of resources, 2:
// otherwise.
inline std::string failure(std::uint64_t index, std::uint64_t result = 2) {
  const std::uint64_t reply[] = {0x18'0000'000b, index, result};
  return record_text::digits(reply, sizeof reply);
}
class FlowWorld : public testing::Test {
 protected:
  static void send(int (*callback)(void *), Bytes bytes) { ASSERT_EQ(callback(bytes.data()), 0); }
  void flow(const Bytes &bytes) { send(d.pi().flow_mod, bytes); }
  // Sends a message and lets the daemon handle everything sent so far.
  void handle(int (*callback)(void *), const Bytes &bytes) {
    send(callback, bytes);
    d.tick();
  }
  void handle(const Bytes &flow) { handle(d.pi().flow_mod, flow); }
  // Expects ERROR lines that contain these texts, and no others.
  void announce(std::initializer_list<const char *> texts) {
    for (const char *line : texts) d.expect_error(line);
  }

  // Answers for a flow as the programming service does: 2 installed, 3 failed, 14 out of resources.
  void answer(std::uint64_t index, int status) {
    FlowSta sta(index);
    sta.record.status = static_cast<SPolicyKelim__StatusE>(status);
    ASSERT_EQ(d.write(kUdpDb, sta), 0);
  }
  // Writes or withdraws the entries of a service-chain flow as its application does.
  void decide(std::uint64_t index, std::vector<SPolicyKelim__FlowAce *> entries, bool withdraw = false) {
    FlowToAce to_ace(index);
    to_ace.record.n_ace = entries.size();
    to_ace.record.ace = entries.data();
    ASSERT_EQ(withdraw ? d.remove(kAppDb, to_ace) : d.write(kAppDb, to_ace), 0);
  }

  // The stored records of a type, as text, without their time stamps.
  Texts stored(std::int32_t db, const ProtobufCMessageDescriptor &type) const {
    Texts out;
    for (const auto &record : d.stored(db, &type)) {
      const std::string line = text(record.message.get());
      out.push_back(line.substr(0, line.find(" req_uuid=0x")));
    }
    return out;
  }
  Texts flows() const { return stored(kUdpDb, s_policy_kelim__flow__descriptor); }
  Texts parse_flows() const { return stored(kAppDb, s_policy_kelim__parse_flow__descriptor); }
  static std::uint64_t index_of(const harness::Record &flow) { return flow.as<SPolicyKelim__Flow>()->index->flow_index; }
  std::size_t meters() const { return d.count(kUdpDb, &s_policy_kelim__meter__descriptor); }

  // The result of `ask`, called on the main SDN thread.
  template <typename Ask>
  auto on_loop(Ask ask) const {
    decltype(ask()) answer{};
    d.on_loop([&] { answer = ask(); });
    return answer;
  }
  std::uint32_t flows_cached() const { return on_loop(flow_info_hash_size); }
  bool queue_empty() const { return on_loop(ssc_sdn_msg_queue_empty); }
  static void expect_counters(std::initializer_list<std::pair<unsigned, std::uint64_t>> counters) {
    for (const auto &[slot, count] : counters) EXPECT_EQ(sdn_opt_cnt[slot], count) << "counter " << slot;
  }
  void expect_nothing_left() const {
    EXPECT_EQ(flows(), Texts{});
    EXPECT_EQ(parse_flows(), Texts{});
    EXPECT_EQ(flows_cached(), 0u);
    EXPECT_TRUE(queue_empty());
  }

  static std::string digits(const Bytes &bytes) { return record_text::digits(bytes.data(), bytes.size()); }
  // The replies of the type so far, as hexadecimal digits.
  Texts replies(std::uint16_t type) const {
    Texts out;
    for (const Bytes &reply : d.replies(type)) out.push_back(digits(reply));
    return out;
  }
  std::vector<std::uint32_t> barriers_answered() const {
    std::vector<std::uint32_t> xids;
    for (const Bytes &reply : d.replies(32)) xids.push_back(southbound::get<std::uint32_t>(reply.data(), 16));
    return xids;
  }
  // Lets the n-th of the daemon's next allocations fail; 0: none.
  void fail_allocation(std::uint32_t nth) {
    d.on_loop([=] { ssc_sdn_malloc_fail_nth(nth); });
  }

  Daemon d;
};

}  // namespace flow_world
