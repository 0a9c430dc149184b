// Packets between a data plane and controllers by way of the agent: the test is the programming service at the packet path.
#include <poll.h>
#include <sys/un.h>

#include "host/of_ss/agent_world.h"
#include "libss_pkt.h"

namespace {

using namespace of_world;

constexpr std::uint8_t kPacketIn = 10;
const Message kFrame = hex("020000000002 020000000001 88b5") + Message(46);

// The data plane, on the loop's thread.
class DataPlane {
 public:
  explicit DataPlane(qx_global *global) {
    const ss_pkt_user user{.arg = this,
                           .wanted = [](void *self, int they) { static_cast<DataPlane *>(self)->wanted = they; },
                           .out = [](void *, const ss_pkt_out *) {}};
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

  int wanted = -1;

 private:
  void work() {
    pollfd wait{ss_pkt_path_fd(path_), POLLIN, 0};
    if (::poll(&wait, 1, 0) == 1) ss_pkt_path_work(path_);
  }
  ss_pkt_path *path_;
};

class PacketPath : public AgentTest {
 protected:
  nlohmann::json packets() { return view("packets"); }
};

TEST_F(PacketPath, APacketGoesToThoseWhoWantIt) {
  Controller slave, choosy;
  come_up(slave);
  come_up(choosy);
  slave.ask(message(24, 0x5e, be(3u, 0u, std::uint64_t{1})));
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
  for (Controller *each : {&c, &choosy}) each->ask(message(24, 0x5e, be(3u, 0u, std::uint64_t{1})));
  EXPECT_TRUE(plane.until([&] { return plane.wanted == 0; })) << "slaves want none";
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
  EXPECT_EQ(plane.send(SS_PKT_ACTION, Message(SS_PKT_FRAME_MAX + 1)), -4);
  EXPECT_EQ(plane.send(SS_PKT_ACTION, Message(SS_PKT_FRAME_MAX)), 0);
  EXPECT_EQ(c.await(kPacketIn).size(), 65535u);
}

}  // namespace
