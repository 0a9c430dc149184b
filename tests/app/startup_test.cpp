// Start-up, reconnection, the event timer, the watchers of install results, and where log lines go.
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "app/flow_world.h"
#include "host/base/loop.h"
#include "host/base/services.h"
#include "host/log/log.h"
#include "host/mom/testing.h"
#include "host/of_ss/testing.h"
#include "ssc_kelim/main.h"
#include "ssc_kelim/sdn/ssc_kelim_mom.h"
#include "ssc_kelim/sdn/ssc_sdn_main_list.h"

int ssc_kelim_main();  // the daemon's main, renamed

namespace {

using namespace flow_world;
using namespace std::chrono_literals;
using host::fault::Point;

class RunningDaemon : public FlowWorld {
 protected:
  void flow_and_barrier(std::uint64_t index, std::uint32_t xid) {
    flow(typical_flow(index));
    handle(d.pi().barrier, barrier(xid));
  }
};

using Xids = std::vector<std::uint32_t>;

// ---- start-up

TEST(StartUp, GoesOnWithoutHealthMonitoringCommandsOrTopics) {
  host::fault::fail(Point::ham_init, -1);
  host::fault::fail(Point::ssat_init, -1, 0, 2);
  host::fault::fail(Point::cgst_topic, -1, 1, 3);  // of those behind the second nothing is heard
  Daemon d;
  for (const char *line : {"ut_ssc_sdn_dbg_init: reg ssat fail! rv:-1", "libproxy_sdn_debug_init: reg ssat fail",
                           "libcgstctrl_gen_topic_reg meter_entry failed, rv:-1", "fp_udp_cgst_register failed, rv:-1"})
    d.expect_error(line);
}

// Each step in turn: it is reported in a line, its code is passed on, and nothing of what comes behind it is done.
TEST_F(RunningDaemon, EveryStepReportsItsFailureAndEndsTheChain) {
  const auto start = [] { return ssc_kelim_rdnd_unware_cb(nullptr, nullptr); };
  const auto connected = [] { return ssc_udp_async_connect_cb(g_ssc_kelim_global, nullptr); };
  const auto reconnected = [] { return ssc_kelim_app_reconnect_cb(nullptr, kAppDb, 2); };
  const auto timer = [] { return ssc_kelim_event_pthrd(nullptr); };
  const struct {
    int (*run)();
    int result;
    Point point;
    unsigned skip;
    const char *line;  // the last one
  } steps[] = {
      {start, -1, Point::ddm_init, 0, "ddm init fail. rv:-1\n "},
      {start, -1, Point::mom_connect_sync, 0, "ssc_kelim_app_db_connect error. rv:-1"},
      {start, -1, Point::mom_connect_sync, 1, "sync connect QX_MOM_ASIC_DB fail. rv = -1"},
      {start, -1, Point::mom_setnx, 0, "kelim_pkt_start failed. rv = -1"},
      {start, -1, Point::mom_connect_sync, 2, "ssc_kelim_udp_db_connect error. rv:-1"},
      {connected, -1, Point::mom_subscribe, 0, "ssc_kelim_start_subscribe fail. rv:-1"},
      {connected, -1, Point::mom_subscribe, 2, "ssc_kelim_start_subscribe fail. rv:-1"},
      {connected, 0, Point::cgst_init, 0, "libcgstctrl_gen_init failed, rv:-1"},
      {reconnected, 0, Point::mom_subscribe, 0, "qx_mom_subscribe flow_to_ace error."},
      {timer, -11, Point::timer_insert, 0, "qx_thread_insert_event fail."},
  };
  d.expect_error("");
  for (const auto &step : steps) {
    SCOPED_TRACE(step.line);
    const std::size_t before = d.errors().size();
    d.on_loop([&] {
      host::fault::fail(step.point, -1, step.skip);
      EXPECT_EQ(step.run(), step.result);
      host::fault::clear();
    });
    const Texts errors = d.errors();
    EXPECT_LE(errors.size(), before + 2);
    EXPECT_TRUE(errors.back().ends_with(step.line)) << errors.back();
  }
}

// The process with that call failing at its start; it must not stay and do nothing.
[[noreturn]] void start_with_fault(const TempDir &run_dir, Point point, unsigned skip) {
  setenv("KELIM_RUN_DIR", run_dir.path().c_str(), 1);
  setenv("KELIM_PROGRAMMER_EMBEDDED", "false", 1);
  host::of_ss::hold_agent(true);
  host::fault::fail(point, -1, skip);
  alarm(static_cast<unsigned>(kPatience.count()));
  std::exit(ssc_kelim_main());
}

bool openflow_runs() {
  for (const auto &thread : std::filesystem::directory_iterator("/proc/self/task")) {
    std::string name;
    if (std::ifstream(thread.path() / "comm") >> name && name == "openflow") return true;
  }
  return false;
}

void leave_once_openflow_runs() {
  if (openflow_runs()) ssc_kelim_udp_reconnect_cb(nullptr, kUdpDb, 1);
  host::post(leave_once_openflow_runs);
}

// The process with a running agent, which reads the configuration, finding another server. What is registered first is called
// last: by then the thread must have ended.
[[noreturn]] void leave_with_an_agent(const TempDir &run_dir) {
  std::atexit([] {
    // A thread that was joined may show for another moment.
    const auto limit = std::chrono::steady_clock::now() + 2s;
    while (openflow_runs())
      if (std::chrono::steady_clock::now() > limit) _exit(1);
  });
  setenv("KELIM_RUN_DIR", run_dir.path().c_str(), 1);
  setenv("KELIM_OPENFLOW_LISTEN", "ptcp:127.0.0.1:0", 1);
  host::at_start("test", [](qx_global *) { return host::post(leave_once_openflow_runs), 0; });
  alarm(static_cast<unsigned>(kPatience.count()));
  std::exit(ssc_kelim_main());
}

TEST(ExitDeathTest, NoThreadReadsWhatTheEndDestroys) {
  const TempDir dir;
  EXPECT_EXIT(leave_with_an_agent(dir), testing::ExitedWithCode(77), "");
}

TEST(ExitDeathTest, AProcessThatCannotWorkOrFindsAnotherServerEndsToBeStartedAgain) {
  const TempDir dir;
  const testing::ExitedWithCode failed(1), other_server(77);
  const std::string ends = "ssc_kelim ends, to be started again: ";
  EXPECT_EXIT(start_with_fault(dir, Point::mom_connect_sync, 0), failed, ends + "ssc_kelim did not take up its work \\(-1\\)");
  EXPECT_EXIT(start_with_fault(dir, Point::mom_subscribe, 1), failed, ends + "the connect callback of database 8 gave -1");
  EXPECT_EXIT(ssc_kelim_app_reconnect_cb(nullptr, kAppDb, 1), other_server, "");
  EXPECT_EXIT(ssc_kelim_udp_reconnect_cb(nullptr, kUdpDb, 1), other_server, "");
}

// ---- reconnection

TEST_F(RunningDaemon, TheSameServerRepeatsTheConnectCallback) {
  for (const char *line : {"reconnect db:8 type:0", "reconnect db:8 type:2"}) d.expect_error(line);
  flow_and_barrier(1, 100);
  const libss_pthrd_mst *list = ssc_sdn_mst;
  d.on_loop([] {
    host::mom::testing::provoke_reconnect(kUdpDb, 0);
    EXPECT_FALSE(ssc_sdn_msg_queue_empty()) << "a lost connection changes nothing";
    host::mom::testing::provoke_reconnect(kUdpDb, 2);
  });
  EXPECT_TRUE(d.until([] { return ssc_sdn_msg_queue_empty(); })) << "the queue is made empty";
  EXPECT_EQ(ssc_sdn_mst, list) << "the list is not made a second time";

  flow_and_barrier(2, 101);
  answer(2, 2);
  EXPECT_EQ(barriers_answered(), Xids{101}) << "it works on, and what was outstanding is dropped without an answer";
}

// ---- watchers

TEST_F(RunningDaemon, BarriersWaitForTheOutcomeOfEveryFlowBeforeThem) {
  announce({"flow index:3 install failed. status:3", "flow index:4 install failed. status:14",
            "send flow error msg to PI, dune to op flow failed", "flow node del failed.flow_index:3, vsd_id:0"});
  Bytes first = barrier(100);
  first[8] = std::byte{9};
  send(d.pi().barrier, first);
  d.warp(49ms);
  EXPECT_EQ(barriers_answered(), Xids{}) << "what is handed over waits for the tick";
  d.warp(1ms);
  EXPECT_TRUE(d.until([&] { return !d.replies(32).empty(); }));
  // Type 32; everything else is the request's.
  EXPECT_EQ(replies(32), Texts{"20000400180001000900000000000000640000007f000001"});

  for (std::uint64_t index : {1, 2, 3, 4}) flow_and_barrier(index, static_cast<std::uint32_t>(100 + index));
  answer(2, 2);
  answer(1, 1);
  EXPECT_EQ(barriers_answered(), Xids{100}) << "still installing";
  answer(1, 2);
  EXPECT_EQ(barriers_answered(), (Xids{100, 101, 102}));

  // A failed flow is reported at once, wherever it stands: its node goes with the rest of its data. Barriers wait.
  answer(4, 14);
  EXPECT_EQ(barriers_answered().size(), 3u);
  answer(3, 3);
  // A shortage that the programming service reports is a failure like any other here; only the status record tells it apart.
  EXPECT_EQ(replies(11), (Texts{failure(4), failure(3)}));
  EXPECT_EQ(barriers_answered(), (Xids{100, 101, 102, 103, 104}));
  EXPECT_EQ(flows().size(), 2u);
  EXPECT_EQ(flows_cached(), 2u);
  EXPECT_TRUE(queue_empty());
  handle(deletion(typical_flow(3)));
  EXPECT_EQ(replies(11).size(), 2u) << "one reply a flow";
}

// Of the handshake the fetch half came at start-up, from the meters' subscription; the other half is the connection.
TEST_F(RunningDaemon, TheMetersSubscriptionReportsFailuresAndDrivesTheHandshake) {
  std::atomic<int> fetches = 0;
  host::of_ss::set_fetch_tap([&] { ++fetches; });
  const auto notify = [&](qx_mom_notify_cb callback, std::uint32_t cmd, void *value, int result) {
    const qx_obj msg{.cmd = cmd, .flag = 9, .value = value, .error_code = 0, .packed = nullptr, .packed_len = 0};
    d.on_loop([&] { EXPECT_EQ(callback(nullptr, &msg), result) << "command " << cmd; });
  };
  d.pi().connected();
  EXPECT_EQ(replies(36), Texts{"240000001800000001000000000000000000000058020000"}) << "600 flows";
  notify(flow_install_call_back, 29, nullptr, 0);
  notify(flow_to_ace_install_call_back, 29, nullptr, 0);
  EXPECT_EQ(fetches, 1) << "of the other subscriptions the signal means nothing";
  notify(meter_install_call_back, 29, nullptr, 0);
  d.pi().connected();
  EXPECT_EQ(fetches, 3);

  d.expect_error("");
  Meter meter(5u);
  for (int status : {1, 2, 3}) {
    meter.record.status = static_cast<SPolicyKelim__StatusE>(status);
    d.write(kUdpDb, meter);
  }
  qx_mom_hash_value empty{}, broken{.record = meter, .reserved = {}, .error_code = 5};
  notify(meter_install_call_back, 4, nullptr, -1);
  notify(meter_install_call_back, 6, &empty, -1);
  notify(meter_install_call_back, 4, &broken, -1);  // whatever its status says
  notify(flow_to_ace_install_call_back, 3, nullptr, -4);
  EXPECT_EQ(replies(18), Texts{"12000000100000000500000001000000"});
}

// ---- log facility

TEST_F(RunningDaemon, SwitchesAndLevelDecideWhatIsLogged) {
  Texts logged;
  host::log::set_tap([&](const host::log::LineView &line) { logged.emplace_back(line.text); });
  const auto logged_with = [&](std::uint32_t switches, std::uint32_t level) {
    logged.clear();
    d.on_loop([&] {
      ssc_sdn_debug_sw = switches;
      g_policy_error_zlog_level = level;
      SDN_ERROR_AS("f", "an error");
      ssc_sdn_dbg_msg("\x0a", 1);
      ssc_sdn_debug_sw = 0;
    });
    return logged;
  };
  const Texts error = {"an error"};
  EXPECT_EQ(logged_with(0, 6), error);
  EXPECT_EQ(logged_with(SDN_DBG_VER_SERVICE, 6), (Texts{"an error", "[", "0a ", "]"}));
  EXPECT_EQ(logged_with(SDN_DBG_VER_SERVICE, 4), error);
  EXPECT_EQ(logged_with(15, 0), Texts{}) << "level 0 keeps everything from the log service";
  d.on_loop([] { host::log::set_tap(nullptr); });  // the daemon's end is logged too
}

}  // namespace
