// Health monitoring and the single instance.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <fstream>

#include "host/base/loop.h"
#include "libss_fp_com.h"
#include "support/runtime_fixture.h"

namespace {

using namespace std::chrono_literals;

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

}  // namespace
