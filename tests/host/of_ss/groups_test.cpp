// Groups in the OpenFlow agent: what flows make of them, what is told of them, what is refused.
#include "host/of_ss/agent_world.h"

namespace {

using namespace of_world;

enum : std::uint16_t { kAdd, kModify, kDelete };
enum : std::uint8_t { kAll = 0, kSelect = 1, kIndirect = 2 };

Message bucket(const Message &actions) {
  return pack({{16 + actions.size(), 2}, {0, 2}, {0xffffffff, 4}, {0xffffffff, 4}, {0, 4}}) + actions;
}
Message group_mod(std::uint32_t xid, std::uint16_t command, std::uint32_t group, std::uint8_t type = kAll,
                  const Message &buckets = {}) {
  return message(15, xid, pack({{command, 2}, {type, 1}, {0, 1}, {group, 4}}) + buckets);
}
Message group(std::uint32_t number) {
  return pack({{22, 2}, {8, 2}, {number, 4}});
}

const Message kDecTtl = hex("0018 0008 00000000"), kPush = hex("0011 0008 81000000"), kPop = hex("0012 0008 00000000"),
              kSetDst = hex("0019 0010 80000606 020000000001 0000"), kSetSrc = hex("0019 0010 80000806 020000000001 0000");

class Groups : public AgentTest {
 protected:
  void SetUp() override {
    AgentTest::SetUp();
    records::Capabilities target(1u);
    target.record.actions = target.record.set_fields = ~std::uint64_t{0};
    target.record.several_outputs = true;
    announce(target);
  }
  FlowMod using_groups(std::uint32_t destination, const Message &actions) {
    FlowMod f = ipv4_flow(destination, 0xf000 + destination);
    f.flags = 1, f.instructions = of_wire::apply(actions);
    return f;
  }
  // The southbound actions of the latest flow that was handed over.
  std::string latest() const {
    const Message flow = daemon.flows(true).back();
    const std::size_t block =
        southbound::flow_instruction_offset(southbound::get<std::uint16_t>(flow.data(), southbound::kFlowMatchLen));
    return to_hex({flow.begin() + static_cast<std::ptrdiff_t>(block) + 8, flow.end()});
  }
  Message statistics(std::uint32_t number) { return multipart(6, be(number, 0u)); }
};

// The southbound entry of group 5 with actions of that length behind it.
std::string southbound_group(int length) {
  return to_hex(hex("16001000 05000000") + le(length) + Message(4));
}
std::string southbound_output(std::uint32_t port) {
  return to_hex(hex("00001000") + le(port) + hex("ffff000000000000"));
}

TEST_F(Groups, StandInTheListsOfTheirFlowsAndChangeWithThem) {
  EXPECT_EQ(answer(group_mod(1, kAdd, 5, kAll, bucket(output(1)) + bucket(kDecTtl + output(2)))), "");
  EXPECT_EQ(answer(flow_mod(using_groups(1, group(5)))), "");
  EXPECT_EQ(latest(), southbound_group(40) + southbound_output(1) + "1800080000000000" + southbound_output(2));
  EXPECT_EQ(answer(flow_mod(using_groups(2, output(7)))), "");
  daemon.forget();
  EXPECT_EQ(answer(group_mod(2, kModify, 5, kIndirect, bucket(output(7)))), "");
  EXPECT_EQ(daemon.flows(true).size(), 1u);
  EXPECT_EQ(latest(), southbound_group(16) + southbound_output(7));
  const auto found = [this](std::uint32_t out_group, std::uint32_t out_port) {
    FlowMod filter = everything();
    filter.out_group = out_group, filter.out_port = out_port;
    return dump(dump_request(0xd1, filter));
  };
  ASSERT_EQ(found(5, 0xffffffff).size(), 1u);
  EXPECT_TRUE(to_hex(found(5, 0xffffffff)[0]).ends_with("0016000800000005")) << "as the controller wrote it";
  EXPECT_EQ(found(6, 0xffffffff).size(), 0u);
  EXPECT_EQ(found(0xffffffff, 7).size(), 1u) << "a bucket's output is not the flow's";
}

TEST_F(Groups, AreTold) {
  const Message buckets = bucket(output(1)) + bucket(kSetDst + output(2));
  EXPECT_EQ(answer(group_mod(1, kAdd, 5, kAll, buckets)), "");
  EXPECT_EQ(answer(flow_mod(using_groups(1, group(5)))), "");
  EXPECT_EQ(to_hex(multipart(7)), to_hex(pack({{8 + buckets.size(), 2}, {kAll, 1}, {0, 1}, {5, 4}}) + buckets));
  const Message stats = statistics(5);
  EXPECT_EQ(stats.size(), 40u + 2 * 16);
  EXPECT_EQ(get(stats, 8, 4), 1u) << "flows that use it";
  EXPECT_TRUE(statistics(6).empty());
  const auto shown = view("groups")["groups"];
  ASSERT_EQ(shown.size(), 1u);
  EXPECT_EQ(shown[0]["buckets"], (nlohmann::json{"output:1", "set_field:02:00:00:00:00:01->eth_dst,output:2"}));
  EXPECT_EQ(shown[0]["type"], "all");
  EXPECT_EQ(shown[0]["flows"], 1u);
  const Message features = multipart(8);
  EXPECT_EQ(get(features, 0, 4), 5u);
  EXPECT_EQ(get(features, 8, 4), 1024u);
  EXPECT_EQ(get(features, 12, 4), 0u);
}

TEST_F(Groups, TakeTheirFlowsAlong) {
  for (std::uint32_t n = 1; n <= 2; ++n) {
    EXPECT_EQ(answer(group_mod(n, kAdd, n, kAll, bucket(output(1)))), "");
    EXPECT_EQ(answer(flow_mod(using_groups(n, group(n)))), "");
  }
  EXPECT_EQ(answer(flow_mod(using_groups(3, output(1)))), "");
  c.forget();
  EXPECT_EQ(answer(group_mod(9, kDelete, 1)), "");
  EXPECT_EQ(get(c.await(11), 18, 1), 3u) << "OFPRR_GROUP_DELETE";
  EXPECT_EQ(dump().size(), 2u);
  EXPECT_EQ(answer(group_mod(10, kDelete, 0xfffffffc)), "");
  EXPECT_EQ(dump().size(), 1u);
  EXPECT_TRUE(multipart(7).empty());
}

TEST_F(Groups, AreHandedOverAgainWithTheirFlowsAfterAnOutage) {
  EXPECT_EQ(answer(group_mod(1, kAdd, 5, kAll, bucket(output(1)) + bucket(output(2)))), "");
  EXPECT_EQ(answer(flow_mod(using_groups(1, group(5)))), "");
  const std::string before = latest();
  daemon.forget();
  connect_again(false);
  connect_again(true);
  ss_of_ds_fetch();
  ASSERT_TRUE(until([&] { return daemon.adds() >= 1; }));
  EXPECT_EQ(latest(), before);
  EXPECT_EQ(answer(group_mod(2, kModify, 5, kAll, bucket(output(7)))), "");
  EXPECT_NE(latest(), before);
}

TEST_F(Groups, AreRefusedWithTheErrorOfTheFault) {
  EXPECT_EQ(answer(group_mod(1, kAdd, 5, kAll, bucket(output(1)))), "");
  EXPECT_EQ(answer(flow_mod(using_groups(1, group(5)))), "");
  const Message tcp_dst = hex("0019 0010 80001c02 0050 0000 00000000");
  Message many;
  for (int n = 0; n < 33; ++n) append(many, bucket({}));
  const struct {
    Message request;
    const char *error;
  } cases[] = {
      {group_mod(10, kAdd, 5, kAll), "OFPGMFC_GROUP_EXISTS"},
      {group_mod(11, kAdd, 0xffffff01, kAll), "OFPGMFC_INVALID_GROUP"},
      {group_mod(12, kAdd, 6, kIndirect, bucket(output(1)) + bucket(output(2))), "OFPGMFC_INVALID_GROUP"},
      {group_mod(13, kAdd, 6, kSelect, bucket(output(1))), "OFPGMFC_BAD_TYPE"},
      {group_mod(14, kAdd, 6, kAll, many), "OFPGMFC_OUT_OF_BUCKETS"},
      {group_mod(15, kAdd, 6, kAll, bucket(group(5))), "OFPGMFC_CHAINING_UNSUPPORTED"},
      {group_mod(16, kModify, 6, kAll), "OFPGMFC_UNKNOWN_GROUP"},
      {group_mod(17, 3, 6), "OFPGMFC_BAD_COMMAND"},
      {group_mod(18, kAdd, 6, kAll, bucket(kSetDst + output(1)) + bucket(kSetSrc + output(2))), "OFPGMFC_BAD_BUCKET"},
      {group_mod(19, kAdd, 6, kAll, bucket(kDecTtl + output(1)) + bucket(kDecTtl + output(2))), "OFPGMFC_BAD_BUCKET"},
      {group_mod(20, kAdd, 6, kAll, bucket(kPop + output(1)) + bucket(kPop + output(2))), "OFPGMFC_BAD_BUCKET"},
      {group_mod(21, kAdd, 6, kAll, bucket(output(0xfffffffa))), "OFPBAC_BAD_OUT_PORT"},
      {group_mod(22, kAdd, 6, kAll, hex("0011 0000 ffffffff ffffffff 00000000")), "OFPBRC_BAD_LEN"},
      {group_mod(23, kModify, 5, kAll, bucket(tcp_dst + output(1))), "OFPGMFC_BAD_BUCKET"},  // not for its flow
      {flow_mod(using_groups(2, group(6))), "OFPBAC_BAD_OUT_GROUP"},
      {group_mod(24, kAdd, 7, kAll, bucket(kPush + output(1)) + bucket(kPush + output(2))), ""},
      {group_mod(25, kAdd, 8, kAll, bucket(kDecTtl + output(1))), ""},
      {flow_mod(using_groups(3, group(7) + output(2))), ""},
      {flow_mod(using_groups(4, group(8) + output(2))), "OFPBAC_UNSUPPORTED_ORDER"},
  };
  for (const auto &[request, error] : cases) EXPECT_EQ(answer(request), error) << get(request, 4, 4);
  EXPECT_EQ(get(multipart(7), 0, 2), 8u + 32) << "as it was";
}

}  // namespace
