// What the agent takes from the record in which the programming service announces its target.
#include "host/of_ss/agent_world.h"

namespace {

using namespace of_world;

class Target : public AgentTest {
 protected:
  void withdraw() {
    ASSERT_EQ(qx_mom_del_sync(global, QX_MOM_UDP_DB, records::Capabilities(1u), 0, 0), 0);
    ASSERT_TRUE(until([&] { return told("target") == ""; }));
  }
  nlohmann::json told(const char *what) { return view("capabilities").value(what, nlohmann::json()); }
  std::uint64_t limit(const char *name) {
    for (const auto &row : told("limits"))
      if (row["name"] == name) return row["limit"];
    return ~std::uint64_t{0};
  }
};

// An action list of a target that carries lists out, and what is wrong with it.
TEST_F(Target, GetsOnlyListsThatActOnEveryPacketOfTheFlow) {
  records::Capabilities target(1u);
  target.record.actions = ~std::uint64_t{0}, target.record.set_fields = ~std::uint64_t{0}, target.record.several_outputs = true;
  ASSERT_NO_FATAL_FAILURE(announce(target));
  const Message pop = hex("0012 0008 00000000"), push = hex("0011 0008 81000000"), dec_ttl = hex("0018 0008 00000000"),
                vid = hex("0019 0010 80000c02 1007 0000 00000000"), tcp_dst = hex("0019 0010 80001c02 0050 0000 00000000"),
                normal = output(0xfffffffa), any;
  const struct {
    Message fields, instructions;
    const char *error;
  } cases[] = {
      {hex("80000a02 0800"), of_wire::apply(dec_ttl + output(1) + push + vid + output(2) + pop + dec_ttl + output(7)), ""},
      {any, of_wire::apply(dec_ttl + output(2)), "OFPBAC_MATCH_INCONSISTENT"},
      {any, of_wire::apply(pop + output(2)), "OFPBAC_MATCH_INCONSISTENT"},
      {hex("80000c02 1007"), of_wire::apply(pop + output(2)), ""},
      {hex("80000c02 1007"), of_wire::apply(pop + vid + output(2)), "OFPBAC_MATCH_INCONSISTENT"},
      {hex("80000a02 0800"), of_wire::apply(tcp_dst + output(2)), "OFPBAC_MATCH_INCONSISTENT"},
      {any, of_wire::apply(hex("0011 0008 91000000") + output(2)), "OFPBAC_BAD_ARGUMENT"},
      {any, of_wire::apply(normal + output(2)), "OFPBAC_UNSUPPORTED_ORDER"},
      {any, instruction(3, output(1) + output(2)), "OFPBAC_TOO_MANY"},
      {any, of_wire::apply(output(1)) + instruction(3, output(2) + vid + push), ""},
  };
  FlowMod f;
  for (std::uint32_t xid = 1; const auto &one : cases) {
    f.xid = ++xid, f.fields = one.fields, f.instructions = one.instructions;
    EXPECT_EQ(answer(flow_mod(f)), one.error) << xid;
  }
  f.table = 1, f.fields = any, f.instructions = of_wire::apply(output(1) + output(2));
  EXPECT_EQ(answer(flow_mod(f)), "OFPBAC_TOO_MANY") << "entries of the service chain";
}

constexpr char kSetEthDst[] = "0019 0010 80000606 020000000001 0000", kQueue8[] = "0015 0008 00000008";

TEST_F(Target, DecidesWhatIsAcceptedAndWhatIsToldOfIt) {
  FlowMod rewriting = ipv4_flow(1), queued = ipv4_flow(2);
  rewriting.instructions = of_wire::apply(hex(kSetEthDst) + output(2));
  queued.instructions = of_wire::apply(hex(kQueue8) + output(2));
  const struct {
    void (*change)(STarget__Capabilities &);
    FlowMod flow;
    const char *error;
  } cases[] = {
      {[](STarget__Capabilities &t) { t.set_fields = 1 << 4; }, rewriting, "OFPBAC_BAD_SET_TYPE"},
      {[](STarget__Capabilities &t) { t.actions = 1 | 1 << 21; }, rewriting, "OFPBAC_BAD_TYPE"},
      {[](STarget__Capabilities &t) { t.queues = 7; }, queued, "OFPBAC_BAD_QUEUE"},
      {[](STarget__Capabilities &t) { t.match_fields = 1 | 1 << 5; }, queued, "OFPBMC_BAD_FIELD"},
  };
  for (const auto &one : cases) {
    SCOPED_TRACE(one.error);
    records::Capabilities target(1u);
    one.change(target.record);
    ASSERT_NO_FATAL_FAILURE(announce(target));
    EXPECT_EQ(answer(flow_mod(one.flow)), one.error);
    ASSERT_NO_FATAL_FAILURE(withdraw());
    EXPECT_EQ(answer(flow_mod(one.flow)), "");
  }
}

TEST_F(Target, MatchesOnPacketsWithAnyTagAndWithoutOneIfItCan) {
  records::Capabilities target(1u);
  target.record.tag_presence = true;
  announce(target);
  const Message none = hex("80000c02 0000"), any = hex("80000d04 1000 1000"), seven = hex("80000c02 1007");
  FlowMod f;
  for (const Message &fields : {none, any, seven}) {
    f.fields = fields, f.flags = 2;  // OFPFF_CHECK_OVERLAP
    EXPECT_EQ(answer(flow_mod(f)), fields == seven ? "OFPFMFC_OVERLAP" : "");
  }
  f.flags = 0;
  EXPECT_EQ(answer(flow_mod(f)), "");
  f.fields = none + hex("80000e01 01");
  EXPECT_EQ(answer(flow_mod(f)), "OFPBMC_BAD_PREREQ");
  const auto match_of = [&](std::size_t n) { return to_hex(daemon.flows(true)[n]).substr(2 * 44, 2 * 8); };
  EXPECT_EQ(match_of(0) + " " + match_of(1), "040d008000000010 040d008000000000");
  f = {.command = 3, .fields = any};
  apply(flow_mod(f));
  const auto left = dump();
  ASSERT_EQ(left.size(), 1u);
  EXPECT_EQ(to_hex(left[0]).substr(2 * 48, 2 * 10), to_hex(hex("0001 000a") + none));
}

TEST_F(Target, GivesTheLimits) {
  records::Capabilities target(1u);
  target.record.flows = 2, target.record.meters = 3, target.record.bands = 1;
  announce(target);
  const Message meters = multipart(11);
  EXPECT_EQ(get(meters, 0, 4), 3u);
  EXPECT_EQ(get(meters, 12, 1), 1u);
  EXPECT_EQ(get(multipart(12), 60, 4), 2u) << "max_entries";
  EXPECT_EQ(answer(flow_mod(ipv4_flow(1))) + answer(flow_mod(ipv4_flow(2))), "");
  EXPECT_EQ(answer(flow_mod(ipv4_flow(3))), "OFPFMFC_TABLE_FULL");
}

TEST_F(Target, IsBelievedOnlyAsFarAsTheLibraryGoes) {
  std::string name(300, 'x');
  name[0] = '\xff', name[1] = '\n';
  records::Capabilities target(1u);
  target.record.name = name.data();
  target.record.meters = target.record.bands = target.record.queues = 0xffffffff;
  target.record.match_fields = target.record.set_fields = target.record.actions = ~std::uint64_t{0};
  announce(target);
  EXPECT_EQ(told("target"), std::string(30, 'x'));
  EXPECT_EQ(limit("meters"), 1024u);
  EXPECT_EQ(limit("bands of a meter"), 8u);
  EXPECT_EQ(limit("greatest queue"), 8u);
  FlowMod strange = ipv4_flow(1);
  strange.instructions = of_wire::apply(hex("0013 0008 88470000") + output(2));
  EXPECT_EQ(answer(flow_mod(strange)), "OFPBAC_BAD_TYPE");
}

}  // namespace
