// The machine's interfaces as OpenFlow ports, in a network name space of the test's own.
#include <fcntl.h>
#include <linux/ethtool.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <sched.h>
#include <stdlib.h>
#include <sys/ioctl.h>

#include "host/ddm/ports.h"
#include "host/of_ss/agent_world.h"
#include "libddm.h"

namespace {

using namespace of_world;

bool ip(const std::string &words) {
  return system(("ip " + words).c_str()) == 0;
}

class Ports : public AgentTest {
 protected:
  void configure() override {
    AgentTest::configure();
    set("ports", "");
  }
  // A pair of interfaces with a cable between them, beside the loopback.
  void SetUp() override {
    own_ = open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC);
    if (unshare(CLONE_NEWNET) != 0) GTEST_SKIP() << "needs a network name space of its own: " << strerror(errno);
    if (!ip("link set lo up && ip link add a0 type veth peer name b0"))
      GTEST_SKIP() << "needs ip and virtual Ethernet interfaces";
    AgentTest::SetUp();
    ASSERT_EQ(libddm_init(global, "of_ports_test"), 0);
  }
  void TearDown() override {
    if (global) AgentTest::TearDown();
    setns(own_, CLONE_NEWNET);
    ::close(own_);
  }

  // "name config state current speed" of a port as it is described.
  static std::string text(const Message &m, std::size_t at) {
    const std::string name(reinterpret_cast<const char *>(m.data()) + at + 16);
    std::string words = name;
    for (const std::size_t word : {32, 36, 40, 56}) words += " " + std::to_string(get(m, at + word, 4));
    return words;
  }
  Strings described() {
    const Message reply = multipart(13);
    Strings all;
    for (std::size_t at = 0; at + 64 <= reply.size(); at += 64) all.push_back(text(reply, at));
    std::ranges::sort(all);
    return all;
  }
  // Waits until the controller has been told of a port: "reason name config ...".
  bool is_told(const std::string &what) {
    return until([&] {
      const auto all = c.of_type(12);
      return std::ranges::any_of(all, [&](const Message &m) { return std::to_string(get(m, 8, 1)) + " " + text(m, 16) == what; });
    });
  }
  Message port_mod(const char *name, std::uint32_t config, std::uint32_t mask, std::uint32_t advertise = 0) const {
    const auto ports = host::ddm::ports();
    const auto &named = *std::ranges::find(*ports, name, &host::ddm::Port::name);
    Message mac(8);
    std::memcpy(mac.data(), named.mac.data(), named.mac.size());
    return message(16, 0x90d, be(named.ifx) + Message(4) + mac + be(config, mask, advertise) + Message(4));
  }

 private:
  int own_ = -1;
};

// 10 Gbit/s, full duplex, copper. Nothing under an emulator that does not know the question, which any kernel does.
const std::string kFull = [] {
  ifreq request{};
  ethtool_link_settings question{};
  question.cmd = ETHTOOL_GLINKSETTINGS;
  std::strcpy(request.ifr_name, "lo");
  request.ifr_data = reinterpret_cast<char *>(&question);
  const int fd = ::socket(AF_INET, SOCK_DGRAM, 0);
  const bool unknown = ::ioctl(fd, SIOCETHTOOL, &request) != 0 && (errno == ENOTTY || errno == ENOSYS);
  ::close(fd);
  return unknown ? "0 0" : "2112 10000000";
}();

TEST_F(Ports, ThePulledCableTheNewNameAndTheEndOfAPortAreReported) {
  EXPECT_EQ(described(), (Strings{"a0 1 1 " + kFull, "b0 1 1 " + kFull})) << "the loopback is no port";
  ASSERT_TRUE(ip("link set a0 up && ip link set b0 up"));
  EXPECT_TRUE(is_told("2 a0 0 0 " + kFull) && is_told("2 b0 0 0 " + kFull));
  c.forget();
  ASSERT_TRUE(ip("link set b0 down"));
  EXPECT_TRUE(is_told("2 a0 0 1 " + kFull)) << "enabled, but nothing at the other end";
  ASSERT_TRUE(ip("link set b0 name c0"));
  EXPECT_TRUE(is_told("2 c0 1 1 " + kFull));
  ASSERT_TRUE(ip("link del a0"));
  const auto is_end = [](const Message &m) { return get(m, 8, 1) == 1; };
  EXPECT_TRUE(until([&] { return std::ranges::count_if(c.of_type(12), is_end) == 2; }));
  EXPECT_EQ(described(), Strings{});
}

TEST_F(Ports, AControllerEnablesAndDisablesAPort) {
  for (const auto &[name, config] : {std::pair{"a0", 0u}, {"b0", 0u}, {"b0", 1u}}) apply(port_mod(name, config, 1));
  EXPECT_EQ(described(), (Strings{"a0 0 1 " + kFull, "b0 1 1 " + kFull}));
  EXPECT_EQ(error_of(c.ask(port_mod("a0", 4, 4))), "OFPPMFC_BAD_CONFIG") << "NO_RECV";
  EXPECT_EQ(error_of(c.ask(port_mod("a0", 0, 0, 1))), "OFPPMFC_BAD_ADVERTISE");
  apply(port_mod("b0", 0, 1));
  EXPECT_TRUE(is_told("2 b0 0 0 " + kFull)) << "enabled at both ends";
}

}  // namespace
