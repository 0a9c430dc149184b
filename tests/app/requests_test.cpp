// The controller's other requests: meters, connections, statistics and reports.
#include "app/flow_world.h"
#include "host/base/clock.h"
#include "ssc_kelim/sdn/ssc_kelim_adapt.h"
#include "ssc_kelim/sdn/ssc_kelim_mom.h"
#include "ssc_kelim/sdn/ssc_kelim_replies.h"
#include "ssc_kelim/sdn/ssc_kelim_requests.h"

namespace {

using namespace flow_world;
using namespace std::chrono_literals;

class FlowRequests : public FlowWorld {
 protected:
  // A counter record of flow `index`, with its changes and its totals.
  void counter(std::uint64_t index, std::uint64_t packets, std::uint64_t bytes) {
    FlowCounter counter(index);
    counter.record.packet_count = packets, counter.record.byte_count = bytes;
    counter.record.packet_sum = packets * 0x100, counter.record.byte_sum = bytes * 0x10000;
    d.on_loop([&] { ASSERT_EQ(qx_mom_set(g_ssc_kelim_global, kUdpDb, counter, 0, 0), 0); });
  }
  // `count` changes of counters arrive, and the sending thread's five seconds pass; the cells of each report that it sends, and
  // of those before until they are forgotten.
  std::vector<std::size_t> reports(int count) {
    for (int i = 0; i < count; ++i) counter(1, 1, static_cast<std::uint64_t>(i));
    d.tick();
    EXPECT_TRUE(d.until([] { return host::clock::sleeps() > 0; }));
    const std::uint64_t before = host::clock::sleeps();
    d.warp(5000ms);
    EXPECT_TRUE(d.until([before] { return host::clock::sleeps() > before; }));
    std::vector<std::size_t> cells;
    for (const Bytes &report : d.replies(27)) cells.push_back((report.size() - 8) / 24);
    return cells;
  }
};

TEST_F(FlowRequests, Meters) {
  const auto meter_mod = [](std::uint16_t command, std::uint32_t id) {
    return message(17, le(command) + le(std::uint16_t{1}) + le(id) + hex("0100 1000 e8030000 64000000 00000000"));
  };
  handle(d.pi().meter_mod, meter_mod(0, 5));
  EXPECT_EQ(stored(kUdpDb, s_policy_kelim__meter__descriptor),
            Texts{"index={meter_id=0x5} status=0x1 meter_data=" + digits(meter_mod(0, 5))});

  announce({"ssc sdn add flow FAIL!", "send meter error msg to PI, dune to op meter failed,meter_id = 6, ret_val = -14",
            "send meter error msg to PI, dune to op meter failed,meter_id = 7, ret_val = -1",
            "qx_mom_set FAIL! rv:", "ssc sdn del meter FAIL!"});
  for (const auto &[id, code] : {std::pair{6u, -14}, std::pair{7u, -1}}) {
    host::fault::fail(host::fault::Point::mom_set, code);
    handle(d.pi().meter_mod, meter_mod(0, id));
  }
  // Result 0: out of resources, 1: any other failure. Failed deletions are counted, not answered.
  const Texts failures = {"12000000100000000600000000000000", "12000000100000000700000001000000"};
  EXPECT_EQ(replies(18), failures);
  for (const std::uint32_t id : {5, 9}) handle(d.pi().meter_mod, meter_mod(2, id));
  EXPECT_EQ(meters(), 0u);
  EXPECT_EQ(replies(18), failures);
  expect_counters({{7, 3}, {8, 2}, {10, 2}, {11, 1}});
}

TEST_F(FlowRequests, OpenAndClose) {
  announce({"recev  openflow msg version= 4!", "recev  openflow msg version= 5!", "enable msg fail,rv :-4", "NOT SUPPORT NOW!",
            "disable msg fail,rv :-20", "mem malloc failed", "MALLOC ERR![", "enable msg fail,rv :-2",
            "invalid sdn statistic msg  length!"});
  ssc_sdn_debug_sw = SDN_DBG_VER;
  testing::internal::CaptureStdout();
  handle(d.pi().open, message(6, le(7u) + le(9u)));
  ssc_sdn_debug_sw = 0;
  EXPECT_NE(testing::internal::GetCapturedStdout().find("ifx_num: 2====\nifx[0]: 7,\nifx[1]: 9,\n"), std::string::npos);
  send(d.pi().close, message(5, le(1u)));  // of another type
  handle(d.pi().close, message(7, le(1u)));
  handle(d.pi().mgmt_ifx, message(24, le(1u) + Bytes(3)));  // a list that ends within an entry
  expect_counters({{13, 2}, {14, 0}, {16, 2}, {17, 1}});
  send(d.pi().open, message(6, le(1u)));
  fail_allocation(1);
  d.tick();
  // Without interfaces it is refused, yet its version is taken over.
  Bytes bare = message(6, {});
  put16(bare, 2, 5);
  handle(d.pi().open, bare);
  expect_counters({{13, 4}, {14, 2}});
  EXPECT_EQ(on_loop(ssc_sdn_get_sdn_vers), 5u);
  // Replies carry version and table of the latest open message. This one says that a request was too short.
  send(d.pi().statistic, message(13, Bytes(7)));
  EXPECT_EQ(replies(14), Texts{"0e00050028000100" + std::string(48, '0') + "0200000000000000"});
}

TEST_F(FlowRequests, StatisticsAreTheTotalsOfTheCounters) {
  const auto statistics = [&](std::uint64_t index) {
    d.forget_replies();
    handle(d.pi().statistic, message(13, le(index)));
    return replies(14);
  };
  for (std::uint64_t index : {0x21, 0x22}) counter(index, index, index);
  // Type 14, 40 bytes, flow index, packets, bytes, status 0.
  const Texts all = {"0e00000028000000210000000000000000210000000000000000210000000000" + std::string(16, '0'),
                     "0e00000028000000220000000000000000220000000000000000220000000000" + std::string(16, '0')};
  EXPECT_EQ(statistics(0x22), Texts{all[1]});
  EXPECT_EQ(statistics(~std::uint64_t{0}), all);

  announce({"get flow:35 counter entry fail.", "get flow:33 counter entry fail.", "qx_mom_scan_sync  counter fail."});
  EXPECT_EQ(statistics(0x23), Texts{}) << "no counters, no reply";
  host::fault::fail(host::fault::Point::mom_get, -1);
  EXPECT_EQ(statistics(0x21), Texts{});
  host::fault::fail(host::fault::Point::mom_scan, -1);
  EXPECT_EQ(statistics(~std::uint64_t{0}), Texts{});
  expect_counters({{31, 3}, {32, 2}});
}

TEST_F(FlowRequests, CounterChangesLeaveInPackedReports) {
  using Cells = std::vector<std::size_t>;
  EXPECT_EQ(reports(0), Cells{}) << "no change, no report";
  for (std::uint64_t i = 1; i <= 101; ++i) counter(i, i * 2, i * 3);
  EXPECT_EQ(reports(0), (Cells{100, 1}));
  // Type 27, version 4 whatever the connection's, 2408 bytes; the changes of flow 1.
  EXPECT_EQ(replies(27).at(0).substr(0, 64), "1b00040068090000010000000000000002000000000000000300000000000000");
  EXPECT_EQ(replies(27).at(1), "1b000400200000006500000000000000ca000000000000002f01000000000000");

  // The size of a report can be set. What cannot be: nothing a report, more than its length can say, a message of another type.
  d.expect_error("OF TYPE(25) IS ERROR");
  const struct {
    std::uint16_t type;
    std::uint32_t cells;
    int before, after;  // changes before and after the setting
    Cells reported;
  } cases[] = {
      {26, 2, 3, 3, {3, 2, 1}},  // lowered below the fill of the last report: it leaves as it is
      {26, 100, 1, 3, {2, 2}},   // raised: a report begun under the lower maximum keeps its size
      {26, 0, 0, 2, {1, 1}},    {25, 50, 0, 2, {1, 1}}, {26, 0x7fffffff, 0, 2731, {2730, 1}},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.cells);
    d.forget_replies();
    for (int i = 0; i < c.before; ++i) counter(1, 1, static_cast<std::uint64_t>(i));
    handle(d.pi().flow_count, message(c.type, le(c.cells) + le(9u)));
    EXPECT_EQ(reports(c.after), c.reported);
  }
  d.forget_replies();
  announce({"MALLOC ERR![", "Error: failed to alloc memory."});
  fail_allocation(1);
  EXPECT_EQ(reports(2), Cells{1}) << "one cell is lost";
}

TEST_F(FlowRequests, FailuresOfTheAccessControlLayerAreCounted) {
  announce({"g_acl_fail = 1.", "g_ace_fail = 1.", "g_apply_fail = 1.", "g_apply_fail = 2."});
  d.on_loop([] {
    for (const int slot : {1, 3, 5, 5}) ssc_kelim_fp_handler[slot]();
  });
}

}  // namespace
