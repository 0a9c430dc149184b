// Health monitoring, ports and timing.
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <fstream>
#include <nlohmann/json.hpp>

#include "host/base/loop.h"
#include "host/ddm/ports.h"
#include "host/timing/timing.h"
#include "libddm.h"
#include "libss_fp_com.h"
#include "support/runtime_fixture.h"
#include "ut_ss_fp_appmng.h"

namespace {

using namespace std::chrono_literals;

// ---- health monitoring

class Health : public RuntimeTest {
 protected:
  void SetUp() override {
    RuntimeTest::SetUp();
    host::clock::stop();
    fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0);
    sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
    (dir / "notify").copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(bind(fd_, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
    setenv("NOTIFY_SOCKET", address.sun_path, 1);
    setenv("WATCHDOG_USEC", "3000000", 1);
  }
  void TearDown() override {
    RuntimeTest::TearDown();
    for (const char *name : {"NOTIFY_SOCKET", "WATCHDOG_USEC"}) unsetenv(name);
    close(fd_);
  }

  // The next message to systemd.
  std::string told() {
    char text[200];
    ssize_t n = -1;
    EXPECT_TRUE(host::run_until([&] { return (n = recv(fd_, text, sizeof text, 0)) > 0; }, kPatience));
    return n > 0 ? std::string(text, static_cast<std::size_t>(n)) : "";
  }
  bool is_told_nothing() {
    char byte;
    return !host::run_until([&] { return recv(fd_, &byte, 1, MSG_PEEK) > 0; }, 10ms);
  }

  int fd_ = -1;
};

TEST_F(Health, AMarkerThatSomebodyElseHasPutThereDoesNotCount) {
  const std::string marker = dir / "no_ham", file = dir / "file";
  std::ofstream(file) << "";
  std::filesystem::create_symlink(file, marker);
  ASSERT_EQ(libss_fp_com_ham_init(marker.c_str(), nullptr), 0);
  EXPECT_EQ(told(), "WATCHDOG=1");
  EXPECT_EQ(told(), "READY=1");
  const auto goes_on = [this] { return host::clock::warp(1s), told(); };
  EXPECT_EQ(goes_on(), "WATCHDOG=1") << "a symbolic link";
  std::filesystem::remove(marker);
  std::filesystem::create_hard_link(file, marker);
  EXPECT_EQ(goes_on(), "WATCHDOG=1") << "another name of some file";
  std::filesystem::remove(file);
  if (geteuid() == 0) {
    ASSERT_EQ(chown(marker.c_str(), 65534, 65534), 0);
    EXPECT_EQ(goes_on(), "WATCHDOG=1") << "another user's";
    ASSERT_EQ(chown(marker.c_str(), 0, 0), 0);
  }
  EXPECT_EQ(goes_on(), "WATCHDOG_USEC=0");
}

// ---- single instance

TEST_F(Health, AFileThatThePidFileLinksToIsNotTouched) {
  const std::string target = dir / "precious", link = dir / "x.pid";
  std::ofstream(target) << "precious";
  std::filesystem::create_symlink(target, link);
  testing::internal::CaptureStderr();
  EXPECT_NE(libss_fp_com_check_run("/var/run/x.pid"), 0);
  EXPECT_NE(testing::internal::GetCapturedStderr().find(link + " is a symbolic link"), std::string::npos);
  EXPECT_EQ(std::filesystem::file_size(target), 8u);
  std::filesystem::remove(link);
  ASSERT_EQ(mkfifo(link.c_str(), 0600), 0);
  EXPECT_NE(libss_fp_com_check_run("/var/run/x.pid"), 0);
}

TEST_F(Health, TheLoopFeedsTheWatchdogExceptWhileTheMarkerExists) {
  const std::string marker = dir / "no_ham";
  ASSERT_EQ(libss_fp_com_ham_init(marker.c_str(), nullptr), 0);
  EXPECT_EQ(told(), "WATCHDOG=1");
  EXPECT_EQ(told(), "READY=1");
  EXPECT_TRUE(is_told_nothing());
  host::clock::warp(1s);
  EXPECT_EQ(told(), "WATCHDOG=1") << "three times in a period";

  std::ofstream(marker) << "";
  host::clock::warp(1s);
  EXPECT_EQ(told(), "WATCHDOG_USEC=0");
  host::clock::warp(1s);
  EXPECT_TRUE(is_told_nothing());
  std::filesystem::remove(marker);
  host::clock::warp(1s);
  EXPECT_EQ(told(), "WATCHDOG_USEC=3000000");
  EXPECT_EQ(told(), "WATCHDOG=1");

  qx_global_finish(global);
  global = qx_global_init("core_test", nullptr);
  EXPECT_EQ(told(), "STOPPING=1");
}

// ---- ports

using MachinePorts = RuntimeTest;

TEST_F(MachinePorts, AreReadAgainWhenTheMachinesInterfacesChange) {
  if (unshare(CLONE_NEWNET) != 0) GTEST_SKIP() << "needs a network name space of its own: " << strerror(errno);
  EXPECT_TRUE(host::ddm::ports()->empty()) << "the loopback is none";
  set("ports", "9:lo:109");
  ASSERT_EQ(libddm_init(global, "core_test"), 0);
  const auto before = host::ddm::ports();
  EXPECT_EQ(std::tuple((*before)[0].ifx, (*before)[0].phyid, (*before)[0].enabled), std::tuple(9u, 109u, false));
  set("ports", "8:lo:108");
  EXPECT_EQ(host::ddm::ports(), before) << "not while nothing changes";
  unsigned changes = 0;
  host::ddm::on_change([&changes] { ++changes; });
  EXPECT_EQ(host::ddm::enable((*before)[0], true), 0);
  EXPECT_TRUE(host::run_until([&] { return changes > 0; }, kPatience));
  host::ddm::on_change(nullptr);
  const auto after = host::ddm::ports();
  EXPECT_EQ(std::tuple((*after)[0].ifx, (*after)[0].phyid, (*after)[0].enabled), std::tuple(8u, 108u, true));
}

// ---- timing

using Timing = RuntimeTest;

TEST_F(Timing, CountsTimeBetweenStartAndStop) {
  static ut_ss_fp_appmng_time record;
  record = {};
  host::clock::stop();
  ut_ss_fp_appmng_time_stop(&record, 0);
  EXPECT_EQ(record.count, 0u) << "a stop without a start";
  ut_ss_fp_appmng_time_start(&record);
  host::clock::warp(100ms);
  for (const auto spent : {5ms, 1ms}) {
    ut_ss_fp_appmng_time_start(&record);  // the first time in place of the one that is under way
    host::clock::warp(spent);
    ut_ss_fp_appmng_time_stop(&record, 0);
    ut_ss_fp_appmng_time_stop(&record, 0);
  }
  ut_ss_fp_appmng_time_publish(&record, "SDN_ADD_FLOW");
  ut_ss_fp_appmng_time_publish(&record, "SDN_ADD_FLOW");
  EXPECT_EQ(host::timing::view(),
            nlohmann::json::parse(
                R"([{"name":"SDN_ADD_FLOW","count":2,"avg_us":3000.0,"max_us":5000.0,"last_us":1000.0,"total_us":6000.0}])"));
}

}  // namespace
