// Packets in user space: what makes whole frames of them, and what a packet-out does to them.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>

#include "programmer/linux/executor.h"
#include "programmer/linux/flow_table.h"
#include "support/flow_bytes.h"

namespace {

using namespace programmer::dataplane;
using flow_bytes::hex;

Frame bytes(const std::string &text) {
  const flow_bytes::Bytes in = hex(text);
  const auto *at = reinterpret_cast<const std::uint8_t *>(in.data());
  return {at, at + in.size()};
}

Frame operator+(Frame a, const Frame &b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

// The sum of 16-bit words that is all ones where a checksum among them is right.
std::uint32_t ones(const std::uint8_t *at, std::size_t size, std::uint32_t total = 0) {
  for (std::size_t i = 0; i < size; ++i) total += i % 2 == 0 ? at[i] << 8 : at[i];
  while (total > 0xffff) total = (total & 0xffff) + (total >> 16);
  return total;
}

// Of IPv4 without options, or of IPv6 without extension headers.
bool is_right(const Frame &frame) {
  const std::uint8_t *ip = &frame[14];
  const bool v4 = ip[0] >> 4 == 4;
  const std::size_t header = v4 ? 20 : 40, length = v4 ? (ip[2] << 8 | ip[3]) - header : ip[4] << 8 | ip[5];
  const std::uint32_t pseudo = v4 ? ones(ip + 12, 8, ip[9]) : ones(ip + 8, 32, ip[6]);
  return 14 + header + length <= frame.size() && (!v4 || ones(ip, 20) == 0xffff) &&
         ones(ip + header, length, pseudo + static_cast<std::uint32_t>(length)) == 0xffff;
}

dp_punted about(__u16 segment, __u16 tag = 0, bool verified = false) {
  dp_punted out{};
  out.segment = segment;
  out.tag = tag;
  out.tag_type = tag != 0 ? 0x8100 : 0;
  out.verified = verified ? 1 : 0;
  return out;
}

std::vector<Frame> unfolded(const Frame &frame, dp_punted what = {}) {
  what.length = static_cast<__u32>(frame.size());
  std::vector<Frame> all;
  Frame room;
  unfold(what, frame, room, [&all](programmer::Bytes one) { all.emplace_back(one.begin(), one.end()); });
  return all;
}

const Frame kEth4 = bytes("020000000002 020000000001 0800"), kEth6 = bytes("020000000002 020000000001 86dd");
// 10.0.0.1 to 10.0.0.2, and fd00::1 to fd00::2; the sums of their pseudo-headers stand where the checksums will be.
const Frame kUdp4 = kEth4 + bytes("45000021 00070000 401166c3 0a000001 0a000002 03e80035 000d1421 68656c6c6f");
const Frame kSyn4 =
    kEth4 + bytes("45000028 00010000 400666cd") + bytes("0a000001 0a000002 03e80050 00000001 00000000 50022000 141d0000");
const Frame kUdp6 =
    kEth6 + bytes(
                "60000000 000d1140 fd000000000000000000000000000001 fd000000000000000000000000000002 03e80035 000dfa22 "
                "68656c6c6f");

TEST(Packet, GetsTheHalfOfItsChecksumThatIsMissingAndKeepsWhatItHas) {
  for (const Frame &half : {kUdp4, kSyn4, kUdp6}) {
    ASSERT_FALSE(is_right(half));
    const Frame whole = unfolded(half).at(0);
    EXPECT_TRUE(is_right(whole));
    EXPECT_EQ(unfolded(whole).at(0), whole);
  }
  Frame wrong = unfolded(kUdp4).at(0), fragment = kUdp4, none = kUdp4, cut = kUdp4;
  wrong.back() ^= 1;
  fragment[20] = 0x20, fragment[24] ^= 0x20;
  none[40] = none[41] = 0;
  cut.resize(40);
  for (const Frame &as_it_is : {wrong, fragment, none, cut}) EXPECT_EQ(unfolded(as_it_is), std::vector<Frame>{as_it_is});
  EXPECT_EQ(unfolded(kUdp4, about(0, 0, true)), std::vector<Frame>{kUdp4}) << "its sum just looks like that";
}

TEST(Packet, HasItsTagInItsPlace) {
  const Frame tagged = unfolded(unfolded(kUdp4).at(0), about(0, 0x6007)).at(0);
  EXPECT_EQ(Frame(tagged.begin(), tagged.begin() + 18), bytes("020000000002 020000000001 8100 6007 0800"));
  EXPECT_EQ(tagged.size(), kUdp4.size() + 4);
}

TEST(Packet, IsCutIntoTheSegmentsThatGoOverTheWire) {
  Frame whole = kSyn4;
  whole[47] = 0x80 | 0x10 | 0x08 | 0x01;  // CWR, ACK, PSH, FIN
  for (int i = 0; i < 2500; ++i) whole.push_back(static_cast<std::uint8_t>(i));
  whole[16] = (40 + 2500) >> 8, whole[17] = (40 + 2500) & 0xff;
  const std::vector<Frame> segments = unfolded(whole, about(1000));
  ASSERT_EQ(segments.size(), 3U);
  Frame payload;
  for (std::size_t n = 0; n < 3; ++n) {
    const Frame &one = segments[n];
    EXPECT_TRUE(is_right(one)) << n;
    EXPECT_EQ(one[19], 1 + n) << "identification";
    EXPECT_EQ((one[40] << 8 | one[41]), static_cast<int>(1 + 1000 * n)) << "sequence number";
    payload = payload + Frame(one.begin() + 54, one.end());
  }
  EXPECT_EQ(payload, Frame(whole.begin() + 54, whole.end()));
  EXPECT_EQ((std::array{segments[0][47], segments[1][47], segments[2][47]}), (std::array<std::uint8_t, 3>{0x90, 0x10, 0x19}));
}

// ---- packet-outs; what goes to the controller shows what has become of the frame

struct Plane {
  Plane() {
    ports[0].number = 1, ports[1].number = 2;
    memory.tables = {&control, masks.get(), buckets, hints, flows, counts, before, 2, 64, 1};
  }
  dp_control control{};
  std::unique_ptr<dp_mask[]> masks = std::make_unique<dp_mask[]>(2 * DP_MAX_MASKS);
  dp_bucket buckets[2]{};
  dp_hint hints[1]{};
  dp_flow flows[64]{};
  dp_count counts[64]{}, before[64]{};
  dp_port ports[DP_MAX_PORTS]{};
  std::unique_ptr<dp_meter[]> meters = std::make_unique<dp_meter[]>(DP_MAX_METERS);
  dp_tally tally{};
  PlaneMemory memory{{}, ports, meters.get(), &tally};
};

class PacketOut : public testing::Test {
 protected:
  void run(const std::string &actions, const Frame &frame) {
    const Frame list = bytes(actions);
    executor.run({.in_port = 1,
                  .actions_len = static_cast<std::uint32_t>(list.size()),
                  .actions = list.data(),
                  .frame = frame.data(),
                  .frame_len = static_cast<std::uint32_t>(frame.size())});
  }
  Plane plane;
  FlowTable table{plane.memory.tables};
  Grace grace;
  Sender sender{plane.ports};
  std::vector<std::pair<ss_pkt_in, Frame>> controller;
  Executor executor{plane.memory, grace, sender, [this](const ss_pkt_in &about, programmer::Bytes frame) {
                      controller.push_back({about, Frame(frame.begin(), frame.end())});
                    }};
};

const std::string kToController = "0000 1000 fdffffff ffff 000000000000", kToTable = "0000 1000 f9ffffff 0000 000000000000";

TEST_F(PacketOut, DoesWhatItsActionsSayInTheirOrder) {
  run(kToController + "1900 1000 06060080 020000000077 0000" + "1900 1000 01100080 2e 00000000000000" + kToController, kUdp4);
  ASSERT_EQ(controller.size(), 2U);
  EXPECT_EQ(controller[0].second, kUdp4);
  const Frame &changed = controller[1].second;
  EXPECT_EQ(Frame(changed.begin(), changed.begin() + 6), bytes("020000000077"));
  EXPECT_EQ(changed[15], 46 << 2);
  EXPECT_EQ(ones(&changed[14], 20), 0xffffU) << "the checksum of the header";
  EXPECT_EQ(controller[1].first.reason, SS_PKT_ACTION);
  run("1900 1000 020c0080 0700 000000000000" + kToController, kUdp4);  // a VLAN id without a tag
  run("0000 1000 01000000 0000 000000000000", kUdp4);                  // out of the port it came from
  EXPECT_EQ(controller.size(), 2U);
  EXPECT_EQ(executor.refused(), 2U);
}

TEST_F(PacketOut, MeetsTheFlowOfTheTable) {
  dp_key key{}, mask{};
  dp_flow miss{};
  miss.rank = 1, miss.cookie = 5;
  miss.actions.output = DP_CONTROLLER, miss.actions.miss = 1;
  run(kToTable, kUdp4);
  EXPECT_EQ(executor.nowhere(), 1U);
  table.add(key, mask, miss);
  key.proto = mask.proto = 17, mask.proto = 0xff;
  key.has = mask.has = DP_HAS_IP;
  dp_flow flow{};
  flow.rank = 9, flow.cookie = 6;
  flow.actions.output = DP_CONTROLLER, flow.actions.sets = DP_SET_DSCP, flow.actions.dscp = 46;
  const auto place = table.add(key, mask, flow);
  run(kToTable, kSyn4);
  run(kToTable, kUdp4);
  ASSERT_EQ(controller.size(), 2U);
  EXPECT_EQ(controller[0].first.reason, SS_PKT_NO_MATCH);
  EXPECT_EQ(controller[0].first.cookie, 5U);
  EXPECT_EQ(controller[1].first.cookie, 6U);
  EXPECT_EQ(controller[1].second[15], 46 << 2);
  EXPECT_EQ(table.count(place), (programmer::Counters{1, kUdp4.size()}));
}

}  // namespace
