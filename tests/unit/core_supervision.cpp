// Single instance, health monitoring, redundancy, ports and timing.
#include <gtest/gtest.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <nlohmann/json.hpp>
#include <thread>

#include "host/ddm/ports.h"
#include "host/runtime/loop.h"
#include "host/timing/timing.h"
#include "libddm.h"
#include "libss_fp_com.h"
#include "lsm_if.h"
#include "rdnd_lib.h"
#include "support/runtime_fixture.h"
#include "ut_ss_fp_appmng.h"

namespace {

using namespace std::chrono_literals;

// ---- single instance

class SingleInstance : public testing::Test {
 protected:
  void SetUp() override {
    setenv("KELIM_RUN_DIR", (dir / "run").c_str(), 1);
    setenv("KELIM_PROGRAMMER_EMBEDDED", "false", 1);
  }
  void TearDown() override {
    qx_global_finish(qx_global_init("core_test", nullptr));
    unsetenv("KELIM_RUN_DIR");
    unsetenv("KELIM_PROGRAMMER_EMBEDDED");
    host::config_reset();
  }

  // A process that holds the pid file until it is killed.
  pid_t start_holder() const {
    int ready[2];
    EXPECT_EQ(pipe(ready), 0);
    const pid_t pid = fork();
    if (pid == 0) {
      const char status = static_cast<char>(libss_fp_com_check_run("/var/run/core_test.pid"));
      [[maybe_unused]] const auto n = write(ready[1], &status, 1);
      while (true) pause();
    }
    char status = 1;
    EXPECT_EQ(read(ready[0], &status, 1), 1);
    EXPECT_EQ(status, 0);
    close(ready[0]);
    close(ready[1]);
    return pid;
  }

  static std::string check_run_error() {
    testing::internal::CaptureStderr();
    const int rv = libss_fp_com_check_run("/var/run/core_test.pid");
    EXPECT_GE(rv, 1);
    EXPECT_LE(rv, 125);
    return testing::internal::GetCapturedStderr();
  }

  std::string content() const {
    std::ifstream in(pid_file);
    return {std::istreambuf_iterator<char>(in), {}};
  }

  TempDir dir;
  std::string pid_file = dir / "run/core_test.pid";
};

TEST_F(SingleInstance, TheSecondIsToldWhoHoldsTheFileAndAKilledOneLeavesNoTrace) {
  const pid_t holder = start_holder();
  const std::string line = check_run_error();
  EXPECT_NE(line.find(pid_file + " is held by a running instance with pid " + std::to_string(holder) + "\n"), std::string::npos)
      << line;
  EXPECT_EQ(content(), std::to_string(holder)) << "the holder's file is left alone";
  kill(holder, SIGKILL);
  waitpid(holder, nullptr, 0);
  EXPECT_EQ(libss_fp_com_check_run("/var/run/core_test.pid"), 0);
  EXPECT_EQ(content(), std::to_string(getpid()));
  EXPECT_NE(check_run_error().find("is held"), std::string::npos);
  EXPECT_EQ(content(), std::to_string(getpid())) << "a refused second attempt keeps the first one's file";

  qx_global_finish(qx_global_init("core_test", nullptr));
  EXPECT_NE(access(pid_file.c_str(), F_OK), 0) << "goes with the runtime";
}

TEST_F(SingleInstance, WhatCannotBeTakenIsExplained) {
  setenv("KELIM_MOM_URL", "nonsense", 1);
  EXPECT_NE(check_run_error().find("KELIM_MOM_URL"), std::string::npos) << "the configuration is read here first";
  unsetenv("KELIM_MOM_URL");
  std::filesystem::create_directories(pid_file);
  EXPECT_NE(check_run_error().find(pid_file + " cannot be taken"), std::string::npos);
  std::filesystem::remove_all(pid_file);
}

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

  // The next message to systemd; "" when none comes.
  std::string told(std::chrono::milliseconds limit = 2s) {
    char text[200];
    ssize_t n = -1;
    host::run_until([&] { return (n = recv(fd_, text, sizeof text, 0)) > 0; }, limit);
    return n > 0 ? std::string(text, static_cast<std::size_t>(n)) : "";
  }

  int fd_ = -1;
};

TEST_F(Health, TheLoopFeedsTheWatchdogExceptWhileTheMarkerExists) {
  const std::string marker = dir / "no_ham";
  ASSERT_EQ(libss_fp_com_ham_init(marker.c_str(), nullptr), 0);
  EXPECT_EQ(told(), "WATCHDOG=1");
  EXPECT_EQ(told(), "READY=1");
  EXPECT_EQ(told(10ms), "");
  host::clock::warp(1s);
  EXPECT_EQ(told(), "WATCHDOG=1") << "three times in a period";

  std::ofstream(marker) << "";
  host::clock::warp(1s);
  EXPECT_EQ(told(), "WATCHDOG_USEC=0");
  host::clock::warp(1s);
  EXPECT_EQ(told(10ms), "");
  std::filesystem::remove(marker);
  host::clock::warp(1s);
  EXPECT_EQ(told(), "WATCHDOG_USEC=3000000");
  EXPECT_EQ(told(), "WATCHDOG=1");

  qx_global_finish(global);
  char text[20] = {};
  EXPECT_EQ(recv(fd_, text, sizeof text, 0), 10);
  EXPECT_STREQ(text, "STOPPING=1");
}

TEST_F(Health, WithoutAWatchdogItIsReadyAndFailuresAreReported) {
  EXPECT_EQ(libss_fp_com_ham_init(nullptr, nullptr), -1);
  setenv("WATCHDOG_USEC", "soon", 1);
  EXPECT_EQ(libss_fp_com_ham_init("/tmp/x", nullptr), -1);
  unsetenv("WATCHDOG_USEC");
  EXPECT_EQ(libss_fp_com_ham_init("/tmp/x", nullptr), 0);
  EXPECT_EQ(told(), "READY=1");
  host::clock::warp(1h);
  EXPECT_EQ(told(10ms), "");
}

// ---- redundancy

int g_taken_up = 0;
int take_up(void *, void *) {
  return ++g_taken_up, 0;
}
int other_slot(void *, void *) {
  return g_taken_up += 100, 0;
}

using Redundancy = RuntimeTest;

TEST_F(Redundancy, TheRoleCallbackRunsOnceInTheFirstTurnOfTheLoop) {
  g_taken_up = 0;
  const std::int32_t dbs[] = {8, 4};
  rdnd_lib_reg reg{global->master, "core_test", global, take_up, other_slot, nullptr, 0, dbs, 2};
  ASSERT_EQ(rdnd_lib_mom_reg(&reg), 0);
  reg = {};
  EXPECT_EQ(g_taken_up, 0);
  EXPECT_TRUE(host::run_until([] { return g_taken_up > 0; }, 2s));
  EXPECT_FALSE(host::run_until([] { return g_taken_up > 1; }, 10ms));
  EXPECT_EQ(rdnd_lib_mom_reg(nullptr), -4);
  EXPECT_EQ(rdnd_lib_mom_reg(&reg), -4);
}

// ---- ports

class ConfiguredPorts : public RuntimeTest {
 protected:
  void configure() override { set("ports", "9:nowhere:109:tunnel,3:lo:103"); }
};

TEST_F(ConfiguredPorts, AnswerFromTheTable) {
  ASSERT_EQ(libddm_init(global, "core_test"), 0);
  std::uint32_t phyid = 0;
  EXPECT_EQ(libddm_get_phyid_by_ifx(9, &phyid), 0);
  EXPECT_EQ(phyid, 109u);
  EXPECT_EQ(libddm_get_phyid_by_ifx(3, &phyid), 0);
  EXPECT_EQ(phyid, 103u);
  EXPECT_EQ(libddm_get_phyid_by_ifx(4, &phyid), -7);
  EXPECT_EQ(phyid, 103u);
  EXPECT_EQ(libddm_get_phyid_by_ifx(3, nullptr), -4);
  EXPECT_EQ(lsm_if_get_type(9), static_cast<unsigned>(LLCB_OVERLAY_TUNNEL));
  EXPECT_EQ(lsm_if_get_type(3), static_cast<unsigned>(LSM_IF_TYPE_ETHERNET));
  EXPECT_EQ(lsm_if_get_type(77), static_cast<unsigned>(LSM_IF_TYPE_ETHERNET));
  const auto ports = host::ddm::ports();
  ASSERT_EQ(ports->size(), 2u);
  EXPECT_EQ((*ports)[0].name, "lo");
  EXPECT_EQ((*ports)[1].mac, (std::array<std::uint8_t, 6>{0x02, 0, 0, 0, 0, 9}));
  EXPECT_TRUE((*ports)[1].up);
  host::fault::fail(host::fault::Point::ddm_phyid, -1);
  EXPECT_EQ(libddm_get_phyid_by_ifx(9, &phyid), -1);
}

using MachinePorts = RuntimeTest;

TEST_F(MachinePorts, AreTheMachinesInterfacesAndFollowTheirState) {
  if (unshare(CLONE_NEWNET) != 0) GTEST_SKIP() << "needs a network name space of its own: " << strerror(errno);
  ASSERT_EQ(libddm_init(global, "core_test"), 0);
  std::uint32_t phyid = 0;
  ASSERT_EQ(libddm_get_phyid_by_ifx(1, &phyid), 0);
  EXPECT_EQ(phyid, 1u);
  const auto before = host::ddm::ports();
  EXPECT_EQ((*before)[0].name, "lo");
  EXPECT_FALSE((*before)[0].up);
  EXPECT_EQ(host::ddm::ports(), before) << "not read again while nothing changes";

  ifreq request{};
  strcpy(request.ifr_name, "lo");
  request.ifr_flags = IFF_UP;
  const int fd = socket(AF_INET, SOCK_DGRAM, 0);
  ASSERT_EQ(ioctl(fd, SIOCSIFFLAGS, &request), 0);
  close(fd);
  EXPECT_TRUE(host::run_until([] { return (*host::ddm::ports())[0].up; }, 2s));
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
  ut_ss_fp_appmng_time_start(&record);
  host::clock::warp(5ms);
  ut_ss_fp_appmng_time_stop(&record, 0);
  ut_ss_fp_appmng_time_stop(&record, 0);
  EXPECT_EQ(record.total, 5'000'000u) << "the second start replaces the first, the second stop counts nothing";
  ut_ss_fp_appmng_time_start(&record);
  host::clock::warp(1ms);
  ut_ss_fp_appmng_time_stop(&record, 0);
  ut_ss_fp_appmng_time_publish(&record, "SDN_ADD_FLOW");
  ut_ss_fp_appmng_time_publish(&record, "SDN_ADD_FLOW");
  EXPECT_EQ(host::timing::view(),
            nlohmann::json::parse(
                R"([{"name":"SDN_ADD_FLOW","count":2,"avg_us":3000.0,"max_us":5000.0,"last_us":1000.0,"total_us":6000.0}])"));
  EXPECT_EQ(record.started, 0u);
}

TEST_F(Timing, StartsAndStopsOfManyThreadsNeverGiveNonsense) {
  ut_ss_fp_appmng_time record{};
  const auto begin = host::clock::now();
  {
    std::vector<std::jthread> threads;
    for (int t = 0; t < 4; ++t) {
      threads.emplace_back([&] {
        for (int i = 0; i < 20'000; ++i) {
          ut_ss_fp_appmng_time_start(&record);
          ut_ss_fp_appmng_time_stop(&record, 0);
        }
      });
    }
  }
  const auto elapsed = static_cast<std::uint64_t>((host::clock::now() - begin).count());
  EXPECT_LE(record.count, 80'000u);
  EXPECT_LE(record.max, elapsed);
  EXPECT_LE(record.total, 4 * elapsed);
}

}  // namespace
