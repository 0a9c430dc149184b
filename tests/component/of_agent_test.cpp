// The OpenFlow agent towards its controllers: handshake, every message, hostile peers, roles, connections both ways.
#include <ifaddrs.h>
#include <net/if.h>

#include <random>

#include "component/of_world.h"
#include "s_policy_kelim.pb-c.h"

namespace {

using namespace of_world;

// ---- handshake

struct HelloCase {
  const char *label;
  const char *hello;
  bool agrees;
};
const HelloCase kHellos[] = {
    {"bitmap with version 4", "04000010 00000001 00010008 00000010", true},
    {"no bitmap, header version 4", "04000008 00000001", true},
    {"no bitmap, a newer header version", "06000008 00000001", true},
    {"newer header version, bitmap with 1 and 4", "06000010 00000001 00010008 00000012", true},
    {"an older header version with a bitmap with 4", "01000010 00000001 00010008 00000012", true},
    {"an unknown element before the bitmap", "04000018 00000001 00ff0005 01000000 00010008 00000010", true},
    {"a bitmap of two words", "04000018 00000001 0001000c 00000010 00000001 00000000", true},
    {"a body that is no element", "0400000c 00000001 00000000", true},
    {"only version 1", "01000008 00000001", false},
    {"a bitmap without 4", "06000010 00000001 00010008 00000060", false},
    {"not HELLO", "04050008 00000001", false},
    {"text", "47455420 2f204854 54502f31 2e310d0a", false},
};

class Handshake : public AgentTest, public testing::WithParamInterface<HelloCase> {};

TEST_P(Handshake, AgreesOnVersion4OrSaysWhyNot) {
  Controller c(port);
  // Ours comes first, before the peer has said anything: version 4 and a bitmap with 4 alone.
  EXPECT_EQ(to_hex(c.await(0)).substr(0, 8) + to_hex(c.await(0)).substr(16),
            "04000010"
            "0001000800000010");
  c.send(hex(GetParam().hello));
  if (GetParam().agrees) {
    EXPECT_EQ(get(c.ask(message(5, 77)), 1, 1), 6u);
    return;
  }
  const Message error = c.await(1);
  EXPECT_EQ(error_of(error), "0/0");
  EXPECT_GT(error.size(), 12u) << "a text says why";
  EXPECT_TRUE(until([&] { return c.ended(); }));
}

INSTANTIATE_TEST_SUITE_P(OfAgent, Handshake, testing::ValuesIn(kHellos),
                         [](const auto &test) { return "Case" + std::to_string(test.index); });

// ---- each message and its answer

struct RequestCase {
  const char *label;
  const char *request;  // without header: type, then body
  std::uint8_t type;
  const char *answer;  // "" for none but the barrier's reply, "type/code" of an error, or the type and beginning of the body
};
const RequestCase kRequests[] = {
    {"FEATURES", "", 5, "06 00000000000000ab 00000000 02 00 0000 00000007 00000000"},
    {"GET_CONFIG", "", 7, "08 0000 0080"},
    {"SET_CONFIG with unknown flags", "0004 0080", 9, "10/0"},
    {"SET_CONFIG too short", "0000", 9, "1/6"},
    {"EXPERIMENTER", "00002320 00000001", 4, "1/3"},
    {"a reply", "0000000000000000 00000000 00000000 00000000 00000000", 6, "1/1"},
    {"PACKET_IN", "", 10, "1/1"},
    {"type 30", "", 30, "1/1"},
    {"type 255", "", 255, "1/1"},
    {"ERROR from the controller", "0001 0000", 1, ""},
    {"FEATURES with a body", "00000000", 5, "1/6"},
    {"PACKET_OUT to a port", "ffffffff fffffffd 0010 000000000000 0000 0010 00000002 ffff 000000000000", 13, ""},
    {"PACKET_OUT to the table", "ffffffff fffffffd 0010 000000000000 0000 0010 fffffff9 ffff 000000000000", 13, ""},
    {"PACKET_OUT of a buffered packet", "00000001 fffffffd 0000 000000000000", 13, "1/8"},
    {"PACKET_OUT from a port that is not there", "ffffffff 00000009 0000 000000000000", 13, "1/11"},
    {"PACKET_OUT to a port that is not there", "ffffffff fffffffd 0010 000000000000 0000 0010 00000009 ffff 000000000000", 13,
     "2/4"},
    {"PACKET_OUT with actions longer than the message",
     "ffffffff fffffffd 0018 000000000000 0000 0010 00000002 ffff 000000000000", 13, "1/6"},
    {"GROUP_MOD add", "0000 00 00 00000001", 15, "6/3"},
    {"GROUP_MOD modify", "0001 00 00 00000001", 15, "6/8"},
    {"GROUP_MOD delete all", "0002 00 00 fffffffc", 15, ""},
    {"GROUP_MOD command 9", "0009 00 00 00000001", 15, "6/11"},
    {"PORT_MOD of a port that is not there", "00000009 00000000 020000000009 0000 00000000 00000000 00000000 00000000", 16,
     "7/0"},
    {"PORT_MOD with another address", "00000001 00000000 0a0b0c0d0e0f 0000 00000001 00000001 00000000 00000000", 16, "7/1"},
    {"PORT_MOD", "00000001 00000000 020000000001 0000 00000001 00000001 00000000 00000000", 16, "7/4"},
    {"TABLE_MOD", "00 000000 00000000", 17, ""},
    {"TABLE_MOD of table 2", "02 000000 00000000", 17, "8/0"},
    {"TABLE_MOD that configures", "00 000000 00000001", 17, "8/1"},
    {"QUEUE_GET_CONFIG", "00000001 00000000", 22, "17 00000001 00000000"},
    {"QUEUE_GET_CONFIG of a port that is not there", "00000009 00000000", 22, "9/0"},
    {"GET_ASYNC", "", 26, "1b 00000007 00000000 00000007 00000007 0000000f 00000000"},
    {"FLOW_MOD shorter than a flow-mod", "0000000000000000", 14, "1/6"},
    {"ROLE 4", "00000004 00000000 0000000000000000", 24, "11/2"},
    {"multipart type 14", "000e 0000 00000000", 18, "1/2"},
    {"multipart type 65535", "ffff 0000 00000000", 18, "1/2"},
    {"multipart in more parts",
     "0001 0001 00000000 ff000000 ffffffff ffffffff 00000000 0000000000000000 0000000000000000 0001000400000000", 18, "1/13"},
    {"DESC with a body", "0000 0000 00000000 0000000000000000", 18, "1/6"},
    {"FLOW without its body", "0001 0000 00000000", 18, "1/6"},
    {"FLOW of table 2",
     "0001 0000 00000000 02000000 ffffffff ffffffff 00000000 0000000000000000 0000000000000000 0001000400000000", 18, "1/9"},
    {"FLOW of nothing",
     "0001 0000 00000000 ff000000 ffffffff ffffffff 00000000 0000000000000000 0000000000000000 0001000400000000", 18,
     "13 0001 0000 00000000"},
    {"AGGREGATE of nothing",
     "0002 0000 00000000 ff000000 ffffffff ffffffff 00000000 0000000000000000 0000000000000000 0001000400000000", 18,
     "13 0002 0000 00000000 0000000000000000 0000000000000000 00000000 00000000"},
    {"DESC", "0000 0000 00000000", 18, "13 0000 0000 00000000 6b656c696d00"},
    {"TABLE", "0003 0000 00000000", 18,
     "13 0003 0000 00000000 00000000 00000000 ffffffffffffffff ffffffffffffffff 01000000 00000000 ffffffffffffffff "
     "ffffffffffffffff"},
    {"PORT_STATS of a port that is not there", "0004 0000 00000000 00000009 00000000", 18, "1/11"},
    {"PORT_STATS of a port that the machine does not have", "0004 0000 00000000 00000002 00000000", 18,
     "13 0004 0000 00000000 00000002 00000000 ffffffffffffffff ffffffffffffffff"},
    {"QUEUE", "0005 0000 00000000 ffffffff ffffffff", 18, "13 0005 0000 00000000"},
    {"GROUP", "0006 0000 00000000 fffffffc 00000000", 18, "13 0006 0000 00000000"},
    {"GROUP_DESC", "0007 0000 00000000", 18, "13 0007 0000 00000000"},
    {"GROUP_FEATURES", "0008 0000 00000000", 18, "13 0008 0000 00000000 00000000 00000000 00000000"},
    {"METER of all", "0009 0000 00000000 ffffffff 00000000", 18, "13 0009 0000 00000000"},
    {"METER of one that is not there", "0009 0000 00000000 00000001 00000000", 18, "12/3"},
    {"METER_CONFIG of all", "000a 0000 00000000 ffffffff 00000000", 18, "13 000a 0000 00000000"},
    {"METER_FEATURES", "000b 0000 00000000", 18, "13 000b 0000 00000000 00000400 00000006 0000000f 08 00 0000"},
    {"TABLE_FEATURES that sets",
     "000c 0000 00000000 0040 00 0000000000 0000000000000000000000000000000000000000000000000000000000000000"
     "0000000000000000 0000000000000000 00000000 00000000",
     18, "13/5"},
    // Port 1, its address, its name; up.
    {"PORT_DESC", "000d 0000 00000000", 18,
     "13 000d 0000 00000000 00000001 00000000 020000000001 0000 70310000000000000000000000000000 00000000 00000000"},
};

class Requests : public AgentTest {};

TEST_F(Requests, AreAnsweredExactly) {
  Controller c;
  come_up(c);
  std::uint32_t xid = 1000;
  for (const RequestCase &r : kRequests) {
    SCOPED_TRACE(r.label);
    const Message request = message(r.type, ++xid, hex(r.request));
    c.forget();
    ASSERT_TRUE(c.send(request + barrier(xid + 100'000)));
    ASSERT_FALSE(c.await(21).empty());
    Message answer;
    for (const Message &m : c.received())
      if (get(m, 4, 4) == xid) answer = m;
    const std::string expected = r.answer;
    if (expected.empty()) {
      EXPECT_EQ(to_hex(answer), "");
    } else if (expected.find('/') != std::string::npos) {
      EXPECT_EQ(error_of(answer), expected);
      EXPECT_EQ(to_hex(data_of(answer)), to_hex(request)) << "an error carries the whole request";
    } else {
      const std::string begins = to_hex(hex(expected));
      ASSERT_GE(answer.size(), 8u);
      EXPECT_EQ((to_hex(answer).substr(2, 2) + to_hex(answer).substr(16)).substr(0, begins.size()), begins);
      EXPECT_EQ(get(answer, 0, 1), 4u);
    }
  }
}

TEST_F(Requests, TableFeaturesAreWholeAndPadded) {
  Controller c;
  come_up(c);
  const Message reply = c.ask(message(18, 5, hex("000c 0000 00000000")));
  std::size_t tables = 0;
  for (std::size_t at = 16; at < reply.size(); ++tables) {
    const std::size_t end = at + get(reply, at, 2);
    ASSERT_LE(end, reply.size());
    EXPECT_EQ(get(reply, at + 2, 1), tables);
    EXPECT_EQ(get(reply, at + 60, 4), 100000u) << "max_entries";
    for (at += 64; at < end;) {
      const std::size_t length = get(reply, at + 2, 2);
      ASSERT_GE(length, 4u);
      at += (length + 7) / 8 * 8;
    }
    ASSERT_EQ(at, end) << "the properties fill the table's features";
  }
  EXPECT_EQ(tables, 2u);
}

TEST_F(Requests, ConfigAndAsyncAreWhatWasSet) {
  Controller c;
  come_up(c);
  c.send(message(9, 1, hex("0001 ffff")));
  EXPECT_EQ(to_hex(c.ask(message(7, 2))).substr(16), "0001ffff");
  c.send(message(28, 3, hex("00000001 00000002 00000003 00000004 00000005 00000006")));
  EXPECT_EQ(to_hex(c.ask(message(26, 4))).substr(16), "000000010000000200000003000000040000000500000006");
}

TEST_F(Requests, OfAnotherVersionAreRefusedAndTheConnectionGoesOn) {
  Controller c;
  come_up(c);
  EXPECT_EQ(error_of(c.ask(hex("01050008 00000009"))), "1/0");
  EXPECT_TRUE(c.settle());
}

TEST_F(Requests, EchoIsGivenBackWithItsData) {
  Controller c;
  come_up(c);
  EXPECT_EQ(to_hex(c.ask(message(2, 0xabcd, hex("0102030405")))), "0403000d0000abcd0102030405");
}

// Barriers with nothing to wait for are answered at once; transaction number 0 is as good as any.
TEST_F(Requests, ABarrierWithXidZeroIsAnswered) {
  daemon.hold_barriers(true);
  Controller c;
  come_up(c);
  EXPECT_EQ(to_hex(c.ask(barrier(0))), "0415000800000000");
}

// ---- roles

class Roles : public AgentTest {
 protected:
  static Message request(std::uint32_t xid, std::uint32_t role, std::uint64_t generation) {
    Message body;
    put(body, role, 4);
    put(body, 0, 4);
    put(body, generation, 8);
    return message(24, xid, body);
  }
  static std::string reply_of(const Message &m) {
    return m.size() == 24 ? to_hex(m).substr(16, 8) + ":" + to_hex(m).substr(32) : error_of(m);
  }
};

TEST_F(Roles, FollowTheGenerationAndLeaveOneMaster) {
  Controller a, b;
  come_up(a);
  come_up(b);
  EXPECT_EQ(reply_of(a.ask(request(1, 0, 0))), "00000001:ffffffffffffffff") << "equal, no generation yet";
  EXPECT_EQ(reply_of(a.ask(request(2, 2, 5))), "00000002:0000000000000005");
  EXPECT_EQ(reply_of(b.ask(request(3, 2, 4))), "11/0") << "older";
  EXPECT_EQ(reply_of(b.ask(request(4, 2, 6))), "00000002:0000000000000006");
  EXPECT_EQ(reply_of(a.ask(request(5, 0, 0))), "00000003:0000000000000006") << "the other master is slave now";
  const struct {
    std::uint8_t type;
    const char *body;
  } writes[] = {{13, "ffffffff fffffffd 0000 000000000000"},
                {15, "0002 00 00 fffffffc"},
                {16, "00000001 00000000 020000000001 0000 00000000 00000000 00000000 00000000"},
                {17, "00 000000 00000000"},
                {29, "0000 0001 00000005 0001 0010 00000064 00000000 00000000"}};
  for (const auto &write : writes) EXPECT_EQ(error_of(a.ask(message(write.type, 6, hex(write.body)))), "1/10") << +write.type;
  EXPECT_EQ(error_of(a.ask(flow_mod(ipv4_flow(1, 6)))), "1/10");
  EXPECT_TRUE(daemon.flows(true).empty() && daemon.of_type(southbound::kMeterMod).empty());
  EXPECT_EQ(reply_of(b.ask(request(4, 2, 6))), "00000002:0000000000000006") << "the same again";
  EXPECT_EQ(reply_of(a.ask(request(7, 1, 0))), "00000001:0000000000000006") << "equal needs no generation";
  a.send(flow_mod(ipv4_flow(1, 8)));
  EXPECT_TRUE(a.settle());
  EXPECT_EQ(daemon.flows(true).size(), 1u);
}

// Numbers compare as on a circle: 2^63 ahead is older.
TEST_F(Roles, GenerationsWrapAround) {
  Controller c;
  come_up(c);
  EXPECT_EQ(reply_of(c.ask(request(1, 2, 0xffffffffffffffff))), "00000002:ffffffffffffffff");
  EXPECT_EQ(reply_of(c.ask(request(2, 2, 1))), "00000002:0000000000000001");
  EXPECT_EQ(reply_of(c.ask(request(3, 2, 0xffffffffffffffff))), "11/0");
}

// ---- what the daemon is told of controllers

std::string interfaces(std::initializer_list<unsigned> numbers) {
  Message list;
  for (const unsigned n : numbers)
    for (int shift = 0; shift < 32; shift += 8) list.push_back(std::byte(n >> shift));
  return to_hex(list);
}

TEST_F(AgentTest, TheDaemonHearsOfTheFirstAndTheLastController) {
  const auto count = [this](std::uint16_t type) { return daemon.of_type(type).size(); };
  {
    Controller a, b;
    come_up(a);
    come_up(b);
    ASSERT_EQ(count(southbound::kOpen), 1u);
    // Type 6, version 4, length 12, table property 1, one interface: the one over which both have come.
    EXPECT_EQ(to_hex(daemon.of_type(southbound::kOpen)[0]), "060004000c000100" + interfaces({if_nametoindex("lo")}));
    EXPECT_EQ(count(southbound::kMgmtIfx), 0u);
    // One address, 127.0.0.1, first octet first.
    ASSERT_EQ(count(southbound::kOncInfo), 1u);
    EXPECT_EQ(to_hex(daemon.of_type(southbound::kOncInfo)[0]).substr(16),
              "0000"
              "0000"
              "7f000001");
    EXPECT_EQ(count(southbound::kPktStart), 1u);
    a.close();
    EXPECT_TRUE(b.settle());
    EXPECT_EQ(count(southbound::kClose), 0u);
  }
  EXPECT_TRUE(until([&] { return count(southbound::kClose) == 1; }));
  ASSERT_EQ(count(southbound::kOncInfo), 2u);
  EXPECT_EQ(to_hex(daemon.of_type(southbound::kOncInfo)[1]).substr(16),
            "0100"
            "0000"
            "7f000001");
  EXPECT_EQ(count(southbound::kPktEnd), 1u);
  EXPECT_EQ(count(southbound::kDsStart), 0u) << "controllers that come and go start no synchronisation";
}

// What was announced or withdrawn while the database was away, or before a restart, is lost.
TEST_F(AgentTest, ASynchronisationAnnouncesTheControllersThatAreThereAndWithdrawsTheOthers) {
  static bool connected;
  connected = false;
  qx_mom_client_connect(
      global, QX_MOM_UDP_DB, [](void *, const char *) { return connected = true, 0; }, "test");
  ASSERT_TRUE(until([] { return connected; }));
  const auto store = [this](const char *address, std::uint32_t vsd_id) {
    SPolicyKelim__OncIpKey key = S_POLICY_KELIM__ONC_IP_KEY__INIT;
    key.ip = inet_addr(address);
    key.vsd_id = vsd_id;
    SPolicyKelim__OncIp record = S_POLICY_KELIM__ONC_IP__INIT;
    record.index = &key;
    ASSERT_EQ(qx_mom_set(global, QX_MOM_UDP_DB, &record.base, 0, 0), 0);
  };
  store("127.0.0.1", 0);
  store("10.9.8.7", 0);
  store("10.9.8.6", 3);  // of another virtual switch
  Controller first, second;
  come_up(first);
  come_up(second);
  daemon.forget();
  host::fault::fail(host::fault::Point::mom_scan, -1);
  ss_of_ds_fetch();
  const auto told = [this] {
    std::vector<std::string> all;
    for (const Message &m : daemon.of_type(southbound::kOncInfo)) all.push_back(to_hex(m).substr(16));
    return all;
  };
  ASSERT_TRUE(until([&] { return told().size() == 1; }));
  EXPECT_TRUE(first.settle());
  EXPECT_EQ(told(), std::vector<std::string>{"000000007f000001"}) << "announced, once, not withdrawn";
  warp(1s);
  ASSERT_TRUE(until([&] { return told().size() == 2; })) << "the database is asked again";
  EXPECT_EQ(told().back(), "010000000a090807");
}

class AnyAddress : public AgentTest {
 protected:
  void configure() override {
    AgentTest::configure();
    set("openflow.listen", "ptcp:0.0.0.0:0");
    set("openflow.report_cells", "7");
  }
  // An address of this machine other than the loopback's, with its interface; false where there is none.
  static bool outer_address(in_addr_t &address, unsigned &interface) {
    ifaddrs *all = nullptr;
    if (getifaddrs(&all) != 0) return false;
    const std::unique_ptr<ifaddrs, decltype(&freeifaddrs)> owner(all, freeifaddrs);
    for (const ifaddrs *at = all; at; at = at->ifa_next) {
      if (!at->ifa_addr || at->ifa_addr->sa_family != AF_INET || at->ifa_flags & IFF_LOOPBACK || !(at->ifa_flags & IFF_UP))
        continue;
      address = reinterpret_cast<const sockaddr_in *>(at->ifa_addr)->sin_addr.s_addr;
      interface = if_nametoindex(at->ifa_name);
      return true;
    }
    return false;
  }
};

// Type 26, length 16: so many cells a report, and the daemon's own period of five seconds.
TEST_F(AnyAddress, TheDaemonIsToldTheSizeOfItsReports) {
  ASSERT_TRUE(until([this] { return daemon.of_type(southbound::kFlowCountConfig).size() == 1; }));
  EXPECT_EQ(to_hex(daemon.of_type(southbound::kFlowCountConfig)[0]), "1a000400100001000700000005000000");
}

TEST_F(AnyAddress, TheDaemonIsToldWhenTheInterfacesOfTheControllersChange) {
  in_addr_t address = 0;
  unsigned outer = 0;
  if (!outer_address(address, outer)) GTEST_SKIP() << "this machine has the loopback interface alone";
  const unsigned lo = if_nametoindex("lo");
  const auto told = [this](std::uint16_t type) {
    const auto all = daemon.of_type(type);
    return all.empty() ? "" : std::to_string(all.size()) + ": " + to_hex(all.back());
  };
  Controller near, far;
  come_up(near);
  far.connect(port, address);
  far.send(hello());
  ASSERT_FALSE(far.ask(message(5, 1)).empty());
  EXPECT_EQ(told(southbound::kMgmtIfx), "1: 1800040010000100" + interfaces({lo, outer}));
  EXPECT_EQ(daemon.of_type(southbound::kOncInfo).size(), 2u) << "each has its address announced";
  near.close();
  EXPECT_TRUE(until([&] { return told(southbound::kMgmtIfx) == "2: 180004000c000100" + interfaces({outer}); }))
      << told(southbound::kMgmtIfx);
  EXPECT_EQ(daemon.of_type(southbound::kOncInfo).size(), 3u);
  far.close();
  EXPECT_TRUE(until([&] { return told(southbound::kClose) == "1: 070004000c000100" + interfaces({outer}); }));
  EXPECT_EQ(told(southbound::kOpen), "1: 060004000c000100" + interfaces({lo}));
}

TEST_F(AgentTest, PacketsFlowWhileSomebodyIsNoSlave) {
  Controller c;
  come_up(c);
  c.ask(message(24, 1, hex("00000003 00000000 0000000000000001")));
  EXPECT_TRUE(until([this] { return daemon.of_type(southbound::kPktEnd).size() == 1; }));
  c.ask(message(24, 2, hex("00000002 00000000 0000000000000002")));
  EXPECT_TRUE(until([this] { return daemon.of_type(southbound::kPktStart).size() == 2; }));
}

// ---- hostile and broken peers

class Hostile : public AgentTest {
 protected:
  void TearDown() override {
    EXPECT_TRUE(witness_.settle()) << "another controller is served as before";
    AgentTest::TearDown();
  }
  void SetUp() override {
    AgentTest::SetUp();
    come_up(witness_);
  }
  Controller witness_;
};

TEST_F(Hostile, ALengthBelowTheHeaderEndsTheConnection) {
  Controller before(port), after;
  before.send(hex("04000004 00000001"));
  EXPECT_EQ(error_of(before.await(1)), "0/0");
  EXPECT_TRUE(until([&] { return before.ended(); }));
  come_up(after);
  after.send(hex("04050004 00000009"));
  EXPECT_EQ(error_of(after.await(1)), "1/6");
  EXPECT_TRUE(until([&] { return after.ended(); }));
}

TEST_F(Hostile, RandomBytesHurtNobody) {
  std::mt19937 random(20);
  for (int round = 0; round < 50; ++round) {
    Controller c(port);
    Message bytes = round % 2 ? hello() : Message{};
    for (int i = 0; i < 4000; ++i) bytes.push_back(std::byte(random()));
    c.send(bytes);
    c.await(0);
    if (round % 10 == 0) witness_.settle();
  }
}

// Messages of every type with random bodies of every length, behind good headers.
TEST_F(Hostile, GoodHeadersWithRandomBodiesAreAnsweredOrRefused) {
  std::mt19937 random(21);
  Controller c;
  come_up(c);
  for (int round = 0; round < 3000; ++round) {
    Message body(random() % 200);
    for (std::byte &b : body) b = std::byte(random() % 4 ? random() % 6 : random());
    ASSERT_TRUE(c.send(message(static_cast<std::uint8_t>(1 + random() % 30), static_cast<std::uint32_t>(round), body)));
    if (round % 100 == 0) c.forget();
  }
  EXPECT_TRUE(c.settle());
}

TEST_F(Hostile, TenThousandConnectsLeaveRoom) {
  for (int i = 0; i < 10'000; ++i) {
    Controller c(port);
    if (i % 100 == 0) {
      ASSERT_TRUE(witness_.settle());
    }
  }
  // More at a time than there are numbers, and none says anything: the oldest make room.
  std::vector<std::unique_ptr<Controller>> silent;
  for (int i = 0; i < 600; ++i) silent.push_back(std::make_unique<Controller>(port));
  Controller last;
  come_up(last);
}

TEST_F(Hostile, TheLimitOfConnectionsHolds) {
  std::vector<std::unique_ptr<Controller>> all;
  for (int i = 0; i < 254; ++i) {
    all.push_back(std::make_unique<Controller>());
    come_up(*all.back());
  }
  Controller one_too_many(port);
  EXPECT_TRUE(until([&] { return one_too_many.ended(); }));
  all.pop_back();
  EXPECT_TRUE(until([&] {
    Controller again(port);
    again.send(hello());
    return !again.ask(message(5, 1)).empty();
  }));
}

// Half a message, then silence: nothing happens to it, and nothing to others.
TEST_F(Hostile, AMessageInPiecesIsPutTogether) {
  Controller c;
  come_up(c);
  const Message whole = flow_mod(ipv4_flow(0x0a000001, 5)) + barrier(6);
  for (const std::byte b : whole) ASSERT_TRUE(c.send({b}));
  EXPECT_FALSE(c.await(21).empty());
  EXPECT_EQ(daemon.flows(true).size(), 1u);
}

// A peer that asks and never reads is not served without end.
TEST_F(Hostile, APeerThatDoesNotReadIsNotServedWithoutEnd) {
  Message flows;
  for (std::uint32_t i = 0; i < 2000; ++i) append(flows, flow_mod(ipv4_flow(i, i)));
  ASSERT_TRUE(witness_.send(flows));
  ASSERT_TRUE(witness_.settle());
  Controller c;
  come_up(c);
  c.limit_receive_buffer(4096);
  const Message dump = message(
      18, 9, hex("0001 0000 00000000 ff000000 ffffffff ffffffff 00000000 0000000000000000 0000000000000000 0001000400000000"));
  Message many;
  for (int i = 0; i < 400'000; ++i) append(many, dump);
  EXPECT_FALSE(c.send(many, 1s)) << "200 KB of answer each: reading stops long before all is taken";
  EXPECT_TRUE(witness_.settle());
}

// ---- time

class Echo : public AgentTest {
 protected:
  void configure() override {
    AgentTest::configure();
    set("openflow.echo_interval_s", "10");
  }
};

TEST_F(Echo, ASilentPeerIsProbedAndThenGivenUp) {
  Controller c;
  come_up(c);
  warp(10s);
  const Message probe = c.await(2);
  ASSERT_FALSE(probe.empty());
  Message reply = probe;
  reply[1] = std::byte{3};
  c.send(reply);
  EXPECT_TRUE(c.settle());
  c.forget();
  warp(9s);
  EXPECT_TRUE(c.of_type(2).empty()) << "it has answered; silence begins again";
  warp(2s);
  EXPECT_FALSE(c.await(2).empty());
  warp(25s);
  EXPECT_TRUE(until([&] { return c.ended(); }));
}

// While the daemon takes its time, a controller's messages wait and it is not probed. However long that was, it is not given up
// before it has had the time to answer.
class EchoLate : public Echo {
 protected:
  void configure() override {
    Echo::configure();
    set("openflow.decide_timeout_ms", "600000");
    set("openflow.queue_bound", "1");
  }
};

TEST_F(EchoLate, APeerWhoseMessagesWaitedIsProbedBeforeItIsGivenUp) {
  Controller c;
  come_up(c);
  daemon.hold_barriers(true);
  c.send(flow_mod(ipv4_flow(1)) + barrier(1) + flow_mod(ipv4_flow(2)) + barrier(2));
  ASSERT_TRUE(until([this] { return daemon.flows(true).size() == 1; }));
  warp(40s);
  EXPECT_TRUE(c.of_type(2).empty()) << "its second flow waits";
  daemon.answer_barriers();
  ASSERT_FALSE(c.await(21, 2).empty());
  warp(1s);
  ASSERT_FALSE(c.await(2).empty());
  EXPECT_FALSE(c.ended());
  warp(19s);
  EXPECT_FALSE(c.ended());
  warp(1s);
  EXPECT_TRUE(until([&] { return c.ended(); })) << "now it has not answered in two intervals";
}

TEST_F(Echo, APeerWithoutHelloIsGivenUp) {
  Controller c(port);
  c.await(0);
  warp(11s);
  EXPECT_EQ(error_of(c.await(1)), "");
  EXPECT_TRUE(until([&] { return c.ended(); }));
}

// ---- the other way round

class Dialing : public AgentTest {
 protected:
  bool starts_at_once() override { return false; }
  void SetUp() override {
    AgentTest::SetUp();
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
    ASSERT_EQ(::bind(listener_, reinterpret_cast<sockaddr *>(&address), length), 0);
    ASSERT_EQ(::listen(listener_, 5), 0);
    ::getsockname(listener_, reinterpret_cast<sockaddr *>(&address), &length);
    set("openflow.connect", "tcp:127.0.0.1:" + std::to_string(ntohs(address.sin_port)));
    set("openflow.listen", "");
    host::config_unload();
    ASSERT_EQ(host::config_load(), "");
    start();
  }
  void TearDown() override {
    ::close(listener_);
    AgentTest::TearDown();
  }
  bool accept(Controller &c) {
    int fd = -1;
    const bool came = until([&] { return (fd = ::accept(listener_, nullptr, nullptr)) >= 0; });
    if (came) c.adopt(fd);
    return came;
  }
  int listener_ = -1;
};

TEST_F(Dialing, ConnectsAndComesBackAfterALoss) {
  for (int round = 0; round < 3; ++round) {
    Controller c;
    ASSERT_TRUE(accept(c)) << "round " << round;
    c.send(hello());
    EXPECT_EQ(get(c.ask(message(5, 1)), 1, 1), 6u);
  }
}

}  // namespace
