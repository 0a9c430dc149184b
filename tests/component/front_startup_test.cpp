// Start-up, reconnection, the event timer and the watchers of install results.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "component/harness.h"
#include "host/fault/fault.h"
#include "host/log/log.h"
#include "host/mom/testing.h"
#include "kelim/common/kelim_debug.h"
#include "s_policy_kelim.pb-c.h"
#include "ssc_kelim/main.h"
#include "ssc_kelim/sdn/ssc_kelim_init.h"
#include "ssc_kelim/sdn/ssc_sdn_msg_queue.h"
#include "support/runtime_fixture.h"

int ssc_kelim_main();  // the daemon's main, renamed

namespace {

using harness::Bytes;
using harness::Daemon;
using host::fault::Point;

constexpr std::int32_t kAppDb = 4, kUdpDb = 8;

// What the programming service writes about a flow.
void write_status(const Daemon &daemon, std::uint64_t flow_index, SPolicyKelim__StatusE status) {
  SPolicyKelim__FlowKey key = S_POLICY_KELIM__FLOW_KEY__INIT;
  key.flow_index = flow_index;
  SPolicyKelim__FlowSta sta = S_POLICY_KELIM__FLOW_STA__INIT;
  sta.index = &key;
  sta.status = status;
  EXPECT_EQ(daemon.write(kUdpDb, &sta.base), 0);
}

void send_flow_and_barrier(Daemon &daemon, std::uint64_t flow_index, std::uint32_t xid) {
  Bytes flow = harness::simple_flow(flow_index), barrier = harness::barrier(xid);
  daemon.pi().flow_mod(flow.data());
  daemon.pi().barrier(barrier.data());
  daemon.tick();
}

std::vector<std::uint32_t> answered(const Daemon &daemon) {
  std::vector<std::uint32_t> xids;
  for (const Bytes &reply : daemon.replies(32)) xids.push_back(southbound::get<std::uint32_t>(reply.data(), 16));
  return xids;
}

// ---- start-up

TEST(StartUp, GoesOnWithoutHealthMonitoringCommandsOrCongestionControl) {
  host::fault::fail(Point::ham_init, -1);
  host::fault::fail(Point::ssat_init, -1, 0, 2);
  host::fault::fail(Point::cgst_init, -3);
  Daemon daemon;
  daemon.expect_error("reg ssat fail! rv:-1");
  daemon.expect_error("reg ssat fail");
  daemon.expect_error("libcgstctrl_gen_init failed, rv:-3");
  EXPECT_TRUE(daemon.pi().complete());
}

TEST(StartUp, AFailingTopicStopsTheTopicsOnly) {
  host::fault::fail(Point::cgst_topic, -1, 1);
  Daemon daemon;
  daemon.expect_error("libcgstctrl_gen_topic_reg meter_entry failed, rv:-1");
  daemon.expect_error("fp_udp_cgst_register failed, rv:-1");
  EXPECT_EQ(daemon.errors().size(), 2u) << "the topics behind it are not tried";
  EXPECT_TRUE(daemon.pi().complete());
}

// Each step of the chain in turn: its line, its code, and nothing of what comes behind it.
TEST(StartUp, EveryStepReportsItsFailureAndEndsTheChain) {
  struct Step {
    Point point;
    unsigned skip;
    int expected;
    std::vector<std::string> lines;
  };
  const std::vector<Step> steps = {
      {Point::ddm_init, 0, -1, {"ddm init fail. rv:-1\n "}},
      {Point::mom_connect_sync, 0, -1, {"sync connect APP db fail.\n", "ssc_kelim_app_db_connect error. rv:-1"}},
      {Point::mom_connect, 0, -1, {"async connect APP db fail. rv:-1\n", "ssc_kelim_app_db_connect error. rv:-1"}},
      {Point::mom_set_reconnect_cb,
       0,
       -1,
       {"qx_mom_client_set_reconnect_cb fail. rv:-1\n", "ssc_kelim_app_db_connect error. rv:-1"}},
      {Point::mom_connect_sync, 1, -1, {"sync connect QX_MOM_ASIC_DB fail. rv = -1\n"}},
      {Point::mom_setnx, 0, -1, {"qx_mom_setnx_sync fail. rv:-1\n", "kelim_pkt_start failed. rv = -1\n"}},
      {Point::mom_connect_sync, 2, -1, {"sync connect UDP db fail. rv:-1 \n", "ssc_kelim_udp_db_connect error. rv:-1\n"}},
      {Point::mom_connect, 1, -1, {"async connect db fail. rv:-1 \n", "ssc_kelim_udp_db_connect error. rv:-1\n"}},
      {Point::mom_set_reconnect_cb,
       1,
       -1,
       {"qx_mom_client_set_reconnect_cb fail. rv:-1 \n", "ssc_kelim_udp_db_connect error. rv:-1\n"}},
  };
  Daemon daemon;
  g_policy_error_zlog_level = 0;  // the lines are looked at on standard output, with their line ends
  for (const Step &step : steps) {
    SCOPED_TRACE(step.lines.front());
    int rv = 0;
    std::string printed;
    daemon.on_loop([&] {
      ssc_sdn_debug_sw = SDN_DBG_ERROR;
      host::fault::fail(step.point, -1, step.skip);
      testing::internal::CaptureStdout();
      rv = ssc_kelim_rdnd_unware_cb(nullptr, nullptr);
      printed = testing::internal::GetCapturedStdout();
      host::fault::clear();
      ssc_sdn_debug_sw = 0;
    });
    EXPECT_EQ(rv, step.expected);
    std::size_t at = 0;
    for (const std::string &line : step.lines) {
      const std::size_t found = printed.find("]:" + line, at);
      ASSERT_NE(found, std::string::npos) << line << " in " << printed;
      at = found + line.size();
    }
    EXPECT_EQ(printed.size(), at + 2) << "one line more: " << printed;
  }
  g_policy_error_zlog_level = 6;
}

// What the process prints and its status when that call fails at its start; it must not stay and do nothing.
[[noreturn]] void start_with_fault(const TempDir &run_dir, Point point, unsigned skip) {
  for (const auto &[key, text] : {std::pair("KELIM_RUN_DIR", run_dir.path().c_str()),
                                  {"KELIM_LOG_TARGET", "stderr"},
                                  {"KELIM_OPENFLOW_LISTEN", ""},
                                  {"KELIM_PROGRAMMER_EMBEDDED", "false"}})
    setenv(key, text, 1);
  host::fault::fail(point, -1, skip);
  alarm(static_cast<unsigned>(kPatience.count()));
  std::exit(ssc_kelim_main());
}

TEST(StartUp, AProcessThatDidNotTakeUpItsWorkEndsToBeStartedAgain) {
  const TempDir dir;
  const testing::ExitedWithCode failed(1);
  const std::string ends = "ssc_kelim ends, to be started again: ";
  EXPECT_EXIT(start_with_fault(dir, Point::mom_connect_sync, 0), failed, ends + "ssc_kelim did not take up its work \\(-1\\)");
  EXPECT_EXIT(start_with_fault(dir, Point::timer_insert, 0), failed, ends + "ssc_kelim did not take up its work \\(-1\\)");
  EXPECT_EXIT(start_with_fault(dir, Point::mom_subscribe, 1), failed, ends + "the connect callback of database 8 gave -1");
}

TEST(StartUp, AFailingSubscriptionIsReportedUnderTheFlowsNameAndEndsTheConnect) {
  Daemon daemon;
  daemon.expect_error("qx_mom_subscribe flow_entry error.");
  daemon.expect_error("qx_mom_subscribe flow_counter error.");
  daemon.expect_error("ssc_kelim_start_subscribe fail. rv:-1");
  daemon.expect_error("qx_mom_subscribe flow_to_ace error.");
  daemon.expect_error("libcgstctrl_gen_init failed");
  daemon.on_loop([] {
    for (unsigned which : {0u, 1u, 2u}) {
      host::fault::fail(Point::mom_subscribe, -1, which);
      EXPECT_EQ(ssc_udp_async_connect_cb(nullptr, nullptr), -1);
    }
    host::fault::fail(Point::mom_subscribe, -1);
    EXPECT_EQ(ssc_app_async_connect_cb(nullptr, "again"), 0) << "reported as success";
    host::fault::clear();
    EXPECT_EQ(ssc_kelim_init(nullptr), -4);
  });
}

// ---- reconnection

TEST(Reconnect, AnotherServerEndsTheProcessWithStatus77) {
  EXPECT_EXIT(ssc_kelim_app_reconnect_cb(nullptr, kAppDb, 1), testing::ExitedWithCode(77), "");
  EXPECT_EXIT(ssc_kelim_udp_reconnect_cb(nullptr, kUdpDb, 1), testing::ExitedWithCode(77), "");
}

TEST(Reconnect, TheSameServerRepeatsTheConnectCallback) {
  Daemon daemon;
  daemon.expect_error("reconnect db:8 type:2");
  daemon.expect_error("reconnect db:4 type:2");
  daemon.expect_error("reconnect db:8 type:0");
  send_flow_and_barrier(daemon, 1, 100);
  libss_pthrd_mst *list = ssc_sdn_mst;
  daemon.on_loop([] {
    mom::testing::provoke_reconnect(kUdpDb, 0);
    EXPECT_FALSE(ssc_sdn_msg_queue_empty()) << "a lost connection changes nothing";
    mom::testing::provoke_reconnect(kUdpDb, 2);
    mom::testing::provoke_reconnect(kAppDb, 2);
  });
  EXPECT_TRUE(daemon.until([] { return ssc_sdn_msg_queue_empty(); })) << "the queue is made empty";
  EXPECT_EQ(ssc_sdn_mst, list) << "the list is not made a second time";
  EXPECT_TRUE(answered(daemon).empty()) << "what was outstanding is dropped without an answer";

  send_flow_and_barrier(daemon, 2, 101);
  write_status(daemon, 2, S_POLICY_KELIM__STATUS_E__STATUS_INSTALLED);
  EXPECT_EQ(answered(daemon), (std::vector<std::uint32_t>{101})) << "and the daemon works on";
}

// ---- event timer

TEST(EventTimer, RunsWhatWasAppendedOnceATick) {
  Daemon daemon;
  Bytes barrier = harness::barrier(1);
  daemon.pi().barrier(barrier.data());
  daemon.warp(std::chrono::milliseconds(49));
  EXPECT_TRUE(answered(daemon).empty());
  daemon.warp(std::chrono::milliseconds(1));
  EXPECT_TRUE(daemon.until([&] { return answered(daemon).size() == 1; }));
}

TEST(EventTimer, WithoutATimerTheTickSaysSo) {
  Daemon daemon;
  daemon.expect_error("qx_thread_insert_event fail.");
  daemon.on_loop([] {
    host::fault::fail(Point::timer_insert, -1);
    EXPECT_EQ(ssc_kelim_event_pthrd(nullptr), -11);
  });
}

// ---- watchers

TEST(Watchers, OnlyAFinalStatusIsAnOutcome) {
  Daemon daemon;
  daemon.expect_error("flow index:2 install failed. status:3");
  daemon.expect_error("flow index:3 install failed. status:14");
  daemon.expect_error("send flow error msg to PI");
  for (std::uint64_t index : {1, 2, 3}) send_flow_and_barrier(daemon, index, static_cast<std::uint32_t>(100 + index));
  write_status(daemon, 1, S_POLICY_KELIM__STATUS_E__STATUS_INSTALLING);
  EXPECT_TRUE(answered(daemon).empty());
  write_status(daemon, 1, S_POLICY_KELIM__STATUS_E__STATUS_INSTALLED);
  EXPECT_EQ(answered(daemon), (std::vector<std::uint32_t>{101}));
  EXPECT_TRUE(daemon.replies(11).empty());

  // A failed flow is reported at once, wherever it stands: its node goes with the rest of its data. Barriers wait.
  write_status(daemon, 3, S_POLICY_KELIM__STATUS_E__STATUS_RESOURCE);
  EXPECT_EQ(answered(daemon).size(), 1u);
  write_status(daemon, 2, S_POLICY_KELIM__STATUS_E__STATUS_FAILED);
  const auto failures = daemon.replies(11);
  ASSERT_EQ(failures.size(), 2u);
  for (std::size_t i : {0, 1}) EXPECT_EQ(southbound::get<std::uint64_t>(failures[i].data(), 8), 3 - i);
  EXPECT_EQ(answered(daemon), (std::vector<std::uint32_t>{101, 102, 103}));
}

TEST(Watchers, AMetersFailureIsReportedAndItsMalformedNotificationsAreRefused) {
  Daemon daemon;
  daemon.expect_error("send meter error msg to PI, dune to op meter failed,meter_id = 5, ret_val = 0");
  SPolicyKelim__MeterKey key = S_POLICY_KELIM__METER_KEY__INIT;
  key.meter_id = 5;
  SPolicyKelim__Meter meter = S_POLICY_KELIM__METER__INIT;
  meter.index = &key;
  for (auto status : {S_POLICY_KELIM__STATUS_E__STATUS_INSTALLING, S_POLICY_KELIM__STATUS_E__STATUS_INSTALLED,
                      S_POLICY_KELIM__STATUS_E__STATUS_FAILED}) {
    meter.status = status;
    daemon.write(kUdpDb, &meter.base);
  }
  daemon.remove(kUdpDb, &meter.base);
  const auto replies = daemon.replies(18);
  ASSERT_EQ(replies.size(), 1u);
  EXPECT_EQ(southbound::get<std::uint32_t>(replies[0].data(), 8), 5u);
  EXPECT_EQ(southbound::get<std::uint32_t>(replies[0].data(), 12), 1u);

  daemon.expect_error("msg->value is NULL. msg->cmd:4 msg->flag:9");
  daemon.expect_error("hash value is NULL. msg->cmd:6 msg->flag:9");
  daemon.expect_error("error_code:5 msg->cmd:4 msg->flag:9");
  daemon.on_loop([&] {
    qx_mom_hash_value empty{}, broken{.record = &meter.base, .reserved = {}, .error_code = 5};
    const auto notify = [](std::uint32_t cmd, void *value) {
      const qx_obj msg{.cmd = cmd, .flag = 9, .value = value, .error_code = 0, .packed = nullptr, .packed_len = 0};
      return meter_install_call_back(nullptr, &msg);
    };
    EXPECT_EQ(notify(4, nullptr), -1);
    EXPECT_EQ(notify(6, &empty), -1);
    EXPECT_EQ(notify(4, &broken), -1) << "whatever its status says";
    EXPECT_EQ(notify(24, nullptr), 0);
  });
  EXPECT_EQ(daemon.replies(18).size(), 1u);
}

// The fetch half of the handshake came at start-up, from the meters' subscription; the other half is the connection.
TEST(Watchers, TheMetersDataFetchIsHalfOfTheHandshake) {
  Daemon daemon;
  EXPECT_TRUE(daemon.replies(36).empty());
  daemon.pi().connected();
  EXPECT_EQ(daemon.replies(36).size(), 1u);
  daemon.on_loop([] {
    const qx_obj fetch{.cmd = 29, .flag = 0, .value = nullptr, .error_code = 0, .packed = nullptr, .packed_len = 0};
    EXPECT_EQ(flow_install_call_back(nullptr, &fetch), 0);
    EXPECT_EQ(flow_to_ace_install_call_back(nullptr, &fetch), 0);
  });
  EXPECT_EQ(daemon.replies(36).size(), 1u) << "of the other subscriptions the signal means nothing";
  daemon.on_loop([] {
    const qx_obj fetch{.cmd = 29, .flag = 0, .value = nullptr, .error_code = 0, .packed = nullptr, .packed_len = 0};
    EXPECT_EQ(meter_install_call_back(nullptr, &fetch), 0);
  });
  EXPECT_EQ(daemon.replies(36).size(), 2u);
  daemon.expect_error("value is null.");
  daemon.on_loop([] {
    const qx_obj deleted{.cmd = 3, .flag = 0, .value = nullptr, .error_code = 0, .packed = nullptr, .packed_len = 0};
    EXPECT_EQ(flow_to_ace_install_call_back(nullptr, &deleted), -4);
  });
}

// ---- log facility

TEST(Log, SwitchesAndLevelDecideWhereALineGoes) {
  Daemon daemon;
  daemon.expect_error("an error");
  const auto printed_with = [&](std::uint32_t switches, std::uint32_t level) {
    std::string printed;
    daemon.on_loop([&] {
      ssc_sdn_debug_sw = switches;
      g_policy_error_zlog_level = level;
      testing::internal::CaptureStdout();
      SDN_ERROR_AS("f", "an error %d", 1);
      SDN_VER_AS("f", "a trace\n");
      SDN_DS_AS("f", "a sync\n");
      SDN_BARRIER_LINE_AS("f", "a barrier\n");
      printed = testing::internal::GetCapturedStdout();
      ssc_sdn_debug_sw = 0;
      g_policy_error_zlog_level = 6;
    });
    return printed;
  };
  EXPECT_EQ(printed_with(0, 6), "");
  EXPECT_EQ(daemon.errors().size(), 1u);
  EXPECT_EQ(printed_with(128, 6), "") << "to the log service only";
  EXPECT_EQ(daemon.errors().size(), 2u);
  const std::string all = printed_with(15, 0);
  EXPECT_EQ(daemon.errors().size(), 2u) << "level 0 keeps everything from the log service";
  for (const char *line : {"][SDN][ERROR]f[", "]:an error 1[", "][SDN][VER]f[", "]:a trace\n", "][SDN][DS]f[", "]:a sync\n",
                           "][SDN][BARRIER]f[", "]:a barrier\n"})
    EXPECT_NE(all.find(line), std::string::npos) << line << " in " << all;
  EXPECT_EQ(printed_with(4, 6).find("VER"), std::string::npos);
}

TEST(Log, ALineCarriesItsPlaceUnderTheSourceRoot) {
  Daemon daemon;
  std::vector<std::string> places;
  host::log::set_tap([&places](const host::log::LineView &line) {
    places.push_back(std::string(line.category) + " " + std::string(line.file) + " " + std::string(line.function));
  });
  daemon.on_loop([] {
    ssc_kelim_app_reconnect_cb(nullptr, kAppDb, 0);
    ssc_sdn_malloc_fail_nth(1);
    EXPECT_EQ(ssc_sdn_malloc(8, "somebody", 7), nullptr);
  });
  EXPECT_EQ(places, (std::vector<std::string>{"policy_error app/ssc_kelim/main.cpp ssc_kelim_app_reconnect_cb",
                                              "policy_error header/kelim/common/kelim_debug.h ssc_sdn_malloc"}));
}

TEST(Log, DumpsAMessageAByteALine) {
  const unsigned char bytes[] = {0x0a, 0xff};
  ssc_sdn_debug_sw = SDN_DBG_VER;
  testing::internal::CaptureStdout();
  ssc_sdn_dbg_msg(bytes, 2);
  ssc_sdn_dbg_msg(bytes, -1);
  std::string printed = testing::internal::GetCapturedStdout();
  ssc_sdn_debug_sw = 0;
  for (std::size_t at; (at = printed.find("][SDN]")) != std::string::npos;) {
    const std::size_t begin = printed.rfind('[', at), end = printed.find("]:", at) + 2;
    printed.erase(begin, end - begin);
  }
  EXPECT_EQ(printed, "[\n0a \nff \n]\n\n[\n]\n\n");
}

}  // namespace
