// Packets between a data plane and controllers by way of the agent: the test is the programming service at the packet path.
#include <poll.h>
#include <sys/un.h>

#include "host/of_ss/agent_world.h"
#include "libss_pkt.h"

namespace {

using namespace of_world;

constexpr std::uint8_t kPacketIn = 10, kPacketOut = 13;
const Message kFrame = hex("020000000002 020000000001 88b5") + Message(46);

// The data plane, on the loop's thread.
class DataPlane {
 public:
  explicit DataPlane(qx_global *global) {
    const ss_pkt_user user{.arg = this,
                           .wanted = [](void *self, int they) { static_cast<DataPlane *>(self)->wanted = they; },
                           .out = [](void *self, const ss_pkt_out *one) { static_cast<DataPlane *>(self)->keep(*one); }};
    path_ = ss_pkt_path_open(global, &user);
  }
  ~DataPlane() { ss_pkt_path_close(path_); }

  // Waits for it, with the path at work.
  bool until(const std::function<bool()> &condition) {
    return host::run_until([&] { return work(), condition(); }, kPatience);
  }
  int send(std::uint8_t reason, const Message &frame = kFrame) {
    const ss_pkt_in about{.cookie = 0x1122334455667788, .in_port = 7, .table = 1, .reason = reason};
    return ss_pkt_path_in(path_, &about, frame.data(), static_cast<std::uint32_t>(frame.size()));
  }
  int report(const std::vector<ss_pkt_counts> &counts) {
    return ss_pkt_path_report(path_, counts.data(), static_cast<std::uint32_t>(counts.size()));
  }

  int wanted = -1;
  std::vector<std::string> out;  // "in_port: actions: frame"

 private:
  void work() {
    pollfd wait{ss_pkt_path_fd(path_), POLLIN, 0};
    if (::poll(&wait, 1, 0) == 1) ss_pkt_path_work(path_);
  }
  void keep(const ss_pkt_out &one) {
    const auto text = [](const void *at, std::size_t size) {
      const auto *bytes = static_cast<const std::byte *>(at);
      return to_hex(Message(bytes, bytes + size));
    };
    out.push_back(std::to_string(one.in_port) + ": " + text(one.actions, one.actions_len) + ": " +
                  text(one.frame, one.frame_len));
  }
  ss_pkt_path *path_;
};

class PacketPath : public AgentTest {
 protected:
  nlohmann::json packets() { return view("packets"); }
  Message packet_out(const std::string &actions, const Message &frame = kFrame) {
    const Message list = hex(actions);
    return message(kPacketOut, 0x77,
                   be(0xffffffffu, 0xfffffffdu) + be(static_cast<std::uint16_t>(list.size())) + Message(6) + list + frame);
  }
  // Everybody has the same role and mask; the barrier's answer comes behind what was sent before.
  static void set_role(Controller &controller, std::uint32_t role) {
    ASSERT_FALSE(controller.ask(message(24, 0x5e, be(role) + Message(4) + be(std::uint64_t{1}))).empty());
  }
};

TEST_F(PacketPath, APacketGoesToThoseWhoWantIt) {
  Controller slave, choosy;
  come_up(slave);
  come_up(choosy);
  set_role(slave, 3);
  choosy.send(message(28, 1, be(0u, 2u, 0u, 0u, 0u, 0u)));
  ASSERT_TRUE(choosy.settle());
  choosy.send(message(28, 1, be(1u, 0u, 0u, 0u, 0u, 0u)));  // no match alone
  ASSERT_TRUE(choosy.settle());
  DataPlane plane(global);
  ASSERT_TRUE(plane.until([&] { return plane.wanted == 1; }));
  ASSERT_EQ(plane.send(SS_PKT_ACTION), 0);
  ASSERT_EQ(plane.send(SS_PKT_NO_MATCH), 0);
  const std::string head = "ffffffff 003c", tail = "01 1122334455667788 0001000c 80000004 00000007 00000000 0000";
  for (const char *reason : {"01", "00"})
    EXPECT_EQ(to_hex(c.await(kPacketIn, reason[1] == '1' ? 1 : 2)),
              to_hex(message(kPacketIn, 0, hex(head + reason + tail) + kFrame)));
  EXPECT_EQ(get(choosy.await(kPacketIn), 14, 1), 0u);
  EXPECT_TRUE(slave.settle() && choosy.settle());
  EXPECT_EQ(slave.of_type(kPacketIn).size(), 0u);
  EXPECT_EQ(choosy.of_type(kPacketIn).size(), 1u);
  const auto told = packets();
  EXPECT_EQ(told.at("in"), 2);
  EXPECT_EQ(told.at("in_sent"), 3);
}

TEST_F(PacketPath, TheDataPlaneHearsWhetherAnybodyWantsPackets) {
  DataPlane plane(global);
  ASSERT_TRUE(plane.until([&] { return plane.wanted == 1; }));
  set_role(c, 3);
  EXPECT_TRUE(plane.until([&] { return plane.wanted == 0; }));
  DataPlane later(global);
  EXPECT_TRUE(later.until([&] { return later.wanted == 0; })) << "greeted with it";
  set_role(c, 1);
  EXPECT_TRUE(later.until([&] { return later.wanted == 1; }));
  EXPECT_EQ(plane.until([&] { return plane.wanted == 1; }), true) << "it calls again, and is the data plane then";
}

TEST_F(PacketPath, APacketOfAControllerIsHandedToTheDataPlaneOrRefused) {
  const std::string output = "0000 0010 00000002 ffff 000000000000", field = "0019 0010 80000606 020000000077 0000";
  EXPECT_EQ(error_of(c.ask(packet_out(output))), "OFPBRC_EPERM") << "there is none";
  DataPlane plane(global);
  ASSERT_TRUE(plane.until([&] { return plane.wanted == 1; }));
  EXPECT_TRUE(plane.until([&] { return packets().at("data_plane") == true; }));
  for (const std::string number : {"fffffffa", "fffffffe", "00000009"})  // NORMAL, LOCAL, and none of ours
    EXPECT_EQ(error_of(c.ask(packet_out("0000 0010 " + number + " ffff 000000000000"))), "OFPBAC_BAD_OUT_PORT");
  EXPECT_EQ(error_of(c.ask(packet_out(output, Message(13)))), "OFPBRC_BAD_LEN");
  c.send(packet_out(field + output));
  ASSERT_TRUE(plane.until([&] { return !plane.out.empty(); }));
  EXPECT_EQ(plane.out.at(0),
            "4294967293: " + to_hex(hex("1900 1000 06060080 020000000077 0000 0000 1000 02000000 ffff 000000000000")) + ": " +
                to_hex(kFrame));
  EXPECT_EQ(packets().at("out"), 1);
  EXPECT_EQ(packets().at("out_refused"), 1);
}

TEST_F(PacketPath, WhoDoesNotReadLosesPacketsAndNothingElse) {
  Controller deaf;
  deaf.connect(port, htonl(INADDR_LOOPBACK), 0, 4096);
  deaf.send(hello());
  ASSERT_FALSE(deaf.ask(message(5, 1)).empty());
  DataPlane plane(global);
  ASSERT_TRUE(plane.until([&] { return plane.wanted == 1; }));
  const Message frame = kFrame + Message(1400);
  std::uint64_t sent = 0;
  const auto backed_up = [&] {
    for (int n = 0; n < 20; ++n) sent += plane.send(SS_PKT_ACTION, frame) == 0;
    return c.read(), packets().at("in_dropped") > 100;
  };
  ASSERT_TRUE(plane.until(backed_up));
  EXPECT_TRUE(plane.until([&] { return c.of_type(kPacketIn).size() == sent; })) << "who reads gets all";
  const nlohmann::json shown = packets();  // outlives the walk
  for (const auto &one : shown.at("controllers")) EXPECT_LE(one.at("unsent_bytes"), 256 << 10);
  deaf.read();
  EXPECT_TRUE(deaf.settle());
}

// Whoever calls may be another version, or no service at all.
TEST_F(PacketPath, WhatIsNoMessageEndsTheConnectionAndNothingElse) {
  const std::string hello_of_1 = "01000000 01000000 0000000000000000 00000000 00000000";
  const std::string good = "01000000 02000000 0000000000000000 00000000 00000000";
  const std::vector<std::vector<std::string>> cases = {{"01"},
                                                       {hello_of_1},
                                                       {"03000000 01000000 0000000000000000 00000000 00000000"},
                                                       {good, "03000000 01000000 0000000000000000 00000000 ffffffff"},
                                                       {good, "0300ff20 01000000 0000000000000000 00000000 00000000"},
                                                       {good, "03000000 01000000 0000000000000000 08040000 00000000"}};
  for (const auto &messages : cases) {
    SCOPED_TRACE(messages.back());
    sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
    (dir / "packets.sock").copy(address.sun_path, sizeof address.sun_path - 1);
    const int fd = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    ASSERT_EQ(::connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
    for (const std::string &text : messages) ::send(fd, hex(text).data(), hex(text).size(), MSG_NOSIGNAL);
    char bytes[100];
    EXPECT_TRUE(until([&] { return ::recv(fd, bytes, sizeof bytes, MSG_DONTWAIT) == 0; }));
    ::close(fd);
  }
  DataPlane plane(global);
  ASSERT_TRUE(plane.until([&] { return plane.wanted == 1; }));
  ss_pkt_counts counts{};
  counts.port = 7, counts.in_limited = 5;
  EXPECT_EQ(plane.report({counts}), 0);
  EXPECT_TRUE(plane.until([&] { return packets().at("ports").size() == 1; }));
  EXPECT_EQ(packets().at("ports")[0].at("in_limited"), 5);
  EXPECT_EQ(plane.send(SS_PKT_ACTION, Message(SS_PKT_FRAME_MAX + 1)), -4);
  EXPECT_EQ(plane.send(SS_PKT_ACTION, Message(SS_PKT_FRAME_MAX)), 0);
  EXPECT_EQ(c.await(kPacketIn).size(), 65535u);
}

}  // namespace
