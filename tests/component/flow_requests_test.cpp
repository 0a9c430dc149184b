// The controller's other requests: meters, connections, barriers, statistics and reports, controller addresses, packet path.
#include "component/flow_world.h"
#include "host/runtime/clock.h"
#include "s_cluster.pb-c.h"
#include "ssc_kelim/sdn/ssc_kelim_adapt.h"
#include "ssc_kelim/sdn/ssc_kelim_init.h"
#include "ssc_kelim/sdn/ssc_kelim_msg_to_ssd.h"

namespace {

using namespace flow_world;
using namespace std::chrono_literals;

class FlowRequests : public FlowWorld {
 protected:
  static Bytes meter_mod(std::uint16_t command, std::uint32_t id) {
    return message(17, le(command) + le(std::uint16_t{1}) + le(id) + hex("0100 1000 e8030000 64000000 00000000"));
  }
  void counter(std::uint64_t index, std::uint64_t packets, std::uint64_t bytes, std::uint64_t packet_sum = 0,
               std::uint64_t byte_sum = 0) {
    SPolicyKelim__FlowKey key = S_POLICY_KELIM__FLOW_KEY__INIT;
    key.flow_index = index;
    SPolicyKelim__FlowCounter record = S_POLICY_KELIM__FLOW_COUNTER__INIT;
    record.index = &key;
    record.packet_count = packets;
    record.byte_count = bytes;
    record.packet_sum = packet_sum;
    record.byte_sum = byte_sum;
    d.on_loop([&] { ASSERT_EQ(qx_mom_set(g_ssc_kelim_global, kUdpDb, &record.base, 0, 0), 0); });
  }
  void ask_statistics(std::uint64_t index) {
    send(d.pi().statistic, message(13, le(index)));
    d.tick();
  }
  void configure_cells(std::uint32_t cells, std::uint16_t type = 26) {
    send(d.pi().flow_count, message(type, le(cells) + le(std::uint32_t{9})));
    d.tick();
  }
  // Lets the sending thread's five seconds pass, until it sleeps again; the lengths of all reports so far.
  std::vector<std::size_t> reports() {
    EXPECT_TRUE(d.until([] { return host::clock::sleeps() > 0; }));
    const std::uint64_t before = host::clock::sleeps();
    d.warp(5000ms);
    EXPECT_TRUE(d.until([before] { return host::clock::sleeps() > before; }));
    std::vector<std::size_t> lengths;
    for (const Bytes &report : d.replies(27)) lengths.push_back(report.size());
    return lengths;
  }
};

TEST_F(FlowRequests, meters) {
  const Bytes add = meter_mod(0, 5);
  send(d.pi().meter_mod, add);
  d.tick();
  EXPECT_EQ(stored(kUdpDb, s_policy_kelim__meter__descriptor),
            Texts{"index={meter_id=0x5} status=0x1 meter_data=" + digits(add)});
  EXPECT_TRUE(d.replies().empty());

  d.expect_error("ssc sdn add flow FAIL!");
  d.expect_error("send meter error msg to PI, dune to op meter failed,meter_id = 6, ret_val = -14");
  d.expect_error("send meter error msg to PI, dune to op meter failed,meter_id = 7, ret_val = -1");
  d.expect_error("qx_mom_set FAIL! rv:");
  for (const auto &[id, code] : {std::pair{6u, -14}, std::pair{7u, -1}}) {
    host::fault::fail(host::fault::Point::mom_set, code);
    send(d.pi().meter_mod, meter_mod(0, id));
    d.tick();
  }
  // Result 0: out of resources, 1: any other failure.
  EXPECT_EQ(replies(18), (Texts{"1200000010000000"
                                "0600000000000000",
                                "1200000010000000"
                                "0700000001000000"}));

  d.expect_error("ssc sdn del meter FAIL!");
  send(d.pi().meter_mod, meter_mod(2, 5));
  send(d.pi().meter_mod, meter_mod(2, 9));
  d.tick();
  EXPECT_EQ(d.count(kUdpDb, &s_policy_kelim__meter__descriptor), 0u);
  EXPECT_EQ(replies(18).size(), 2u) << "deletions are not answered";
  EXPECT_EQ(sdn_opt_cnt[7], 3u);
  EXPECT_EQ(sdn_opt_cnt[8], 2u);
  EXPECT_EQ(sdn_opt_cnt[10], 2u);
  EXPECT_EQ(sdn_opt_cnt[11], 1u);
}

TEST_F(FlowRequests, open_and_close_set_what_replies_carry) {
  const auto versions = [&] {
    std::uint32_t both = 0;
    d.on_loop([&] { both = ssc_sdn_get_sdn_vers() * 0x100u + ssc_sdn_get_sdn_tbl_pro(); });
    return both;
  };
  d.expect_error("recev  openflow msg version= 4!");
  send(d.pi().open, message(6, le(1u) + le(2u)));
  d.tick();
  EXPECT_EQ(versions(), 0x401u);
  EXPECT_EQ(sdn_opt_cnt[13], 1u);
  EXPECT_EQ(sdn_opt_cnt[14], 0u);

  // Without interfaces it is refused, yet version and table are taken over.
  d.expect_error("recev  openflow msg version= 5!");
  d.expect_error("enable msg fail,rv :-4");
  Bytes bare = message(6, {});
  put16(bare, 2, 5);
  send(d.pi().open, bare);
  d.tick();
  EXPECT_EQ(versions(), 0x501u);
  EXPECT_EQ(sdn_opt_cnt[14], 1u);

  d.expect_error("NOT SUPPORT NOW!");
  d.expect_error("disable msg fail,rv :-20");
  send(d.pi().close, message(5, le(1u)));
  send(d.pi().close, message(7, le(1u)));
  send(d.pi().mgmt_ifx, message(24, le(1u) + Bytes(3)));  // a list that ends within an entry
  d.tick();
  EXPECT_EQ(sdn_opt_cnt[16], 2u);
  EXPECT_EQ(sdn_opt_cnt[17], 1u);

  d.expect_error("mem malloc failed");
  d.expect_error("MALLOC ERR![");
  d.expect_error("enable msg fail,rv :-2");
  send(d.pi().open, message(6, le(1u)));
  fail_allocation(1);
  d.tick();
  EXPECT_TRUE(d.replies().empty());
}

TEST_F(FlowRequests, interfaces_are_traced_while_verbose) {
  d.expect_error("recev  openflow msg version= 4!");
  send(d.pi().open, message(6, le(7u) + le(9u)));
  d.on_loop([] { ssc_sdn_debug_sw = SDN_DBG_VER; });
  testing::internal::CaptureStdout();
  d.tick();
  d.on_loop([] {
    ssc_sdn_debug_sw = 0;
    std::fflush(stdout);
  });
  const std::string printed = testing::internal::GetCapturedStdout();
  EXPECT_NE(printed.find("\n====ssc_sdn_dump_sdn_ifx_array, ifx_num: 2====\nifx[0]: 7,\nifx[1]: 9,\n"
                         "\n====end ssc_sdn_dump_sdn_ifx_array====\n"),
            std::string::npos)
      << printed;
}

TEST_F(FlowRequests, a_barrier_with_nothing_before_it_is_answered_at_once) {
  Bytes request = barrier(0x11223344);
  request[8] = std::byte{9};
  send(d.pi().barrier, request);
  d.tick();
  // Type 32; everything else is the request's.
  EXPECT_EQ(replies(32), Texts{"2000040018000100"
                               "0900000000000000"
                               "443322117f000001"});
  send(d.pi().barrier, barrier(2));
  d.tick();
  d.on_loop([] { EXPECT_EQ(southbound::get<std::uint32_t>(g_ssc_sdn_answered_barrier, 16), 2u) << "the latest one stays"; });

  flow(typical_flow(1));
  send(d.pi().barrier, barrier(3));
  send(d.pi().barrier, barrier(4));
  d.tick();
  EXPECT_EQ(barriers_answered().size(), 2u);
  answer(1, 2);
  EXPECT_EQ(barriers_answered(), (std::vector<std::uint32_t>{0x11223344, 2, 3, 4}));
}

TEST_F(FlowRequests, statistics_of_one_flow_are_its_totals) {
  counter(0x21, 1, 2, 0x1000, 0x200000);
  ask_statistics(0x21);
  // Type 14, 40 bytes, flow index, packets, bytes, status 0.
  EXPECT_EQ(replies(14), Texts{"0e00000028000000"
                               "2100000000000000"
                               "0010000000000000"
                               "0000200000000000"
                               "0000000000000000"});
  EXPECT_EQ(sdn_opt_cnt[31], 1u);

  d.expect_error("get flow:34 counter entry fail.");
  ask_statistics(0x22);
  d.expect_error("get flow:33 counter entry fail.");
  host::fault::fail(host::fault::Point::mom_get, -1);
  ask_statistics(0x21);
  EXPECT_EQ(replies(14).size(), 1u) << "no counters, no reply";
  EXPECT_EQ(sdn_opt_cnt[32], 2u);
}

TEST_F(FlowRequests, statistics_of_all_flows_are_one_reply_a_counter) {
  for (std::uint64_t index : {1, 2, 3}) counter(index, 0, 0, index * 16, 0);
  ask_statistics(~std::uint64_t{0});
  const Texts all = replies(14);
  ASSERT_EQ(all.size(), 3u);
  for (std::uint64_t i = 0; i < 3; i++) {
    EXPECT_EQ(all[i], "0e00000028000000" + digits(le(i + 1)) + digits(le((i + 1) * 16)) + std::string(32, '0'));
  }
  d.expect_error("qx_mom_scan_sync  counter fail.");
  host::fault::fail(host::fault::Point::mom_scan, -1);
  ask_statistics(~std::uint64_t{0});
  EXPECT_EQ(replies(14).size(), 3u);
}

TEST_F(FlowRequests, counter_changes_leave_in_packed_reports) {
  EXPECT_EQ(reports().size(), 0u) << "no change, no report";
  for (std::uint64_t i = 1; i <= 101; i++) counter(i, i * 2, i * 3);
  d.tick();
  EXPECT_EQ(reports(), (std::vector<std::size_t>{8 + 24 * 100, 8 + 24}));
  const Texts sent = replies(27);
  // Type 27, version 4 whatever the connection's, 2408 bytes; the changes of flow 1.
  EXPECT_EQ(sent[0].substr(0, 64),
            "1b00040068090000"
            "0100000000000000"
            "0200000000000000"
            "0300000000000000");
  EXPECT_EQ(sent[1],
            "1b00040020000000"
            "6500000000000000"
            "ca00000000000000"
            "2f01000000000000");
}

TEST_F(FlowRequests, the_size_of_a_report_can_be_set) {
  const auto changes = [&](int count) {
    for (int i = 0; i < count; i++) counter(1, 1, static_cast<std::uint64_t>(i));
    d.tick();
  };
  // Lowered below the fill of the last report: it leaves as it is.
  changes(3);
  configure_cells(2);
  changes(3);
  EXPECT_EQ(reports(), (std::vector<std::size_t>{8 + 24 * 3, 8 + 24 * 2, 8 + 24}));
  d.forget_replies();
  // Raised: a report begun under the lower maximum keeps its size.
  changes(1);
  configure_cells(100);
  changes(3);
  EXPECT_EQ(reports(), (std::vector<std::size_t>{8 + 24 * 2, 8 + 24 * 2}));
  d.forget_replies();
  // What cannot be: nothing a report, more than its length can say, and a message of another type.
  d.expect_error("OF TYPE(25) IS ERROR");
  configure_cells(0);
  configure_cells(50, 25);
  changes(2);
  EXPECT_EQ(reports(), (std::vector<std::size_t>{8 + 24, 8 + 24}));
  d.forget_replies();
  configure_cells(0x7fffffff);
  changes(2731);
  EXPECT_EQ(reports(), (std::vector<std::size_t>{8 + 24 * 2730, 8 + 24}));
  d.forget_replies();
  d.expect_error("MALLOC ERR![");
  d.expect_error("Error: failed to alloc memory.");
  fail_allocation(1);
  changes(2);
  EXPECT_EQ(reports(), (std::vector<std::size_t>{8 + 24})) << "one cell is lost";
}

TEST_F(FlowRequests, controller_addresses) {
  const auto onc = [](std::uint16_t command, std::uint32_t ip) {
    return message(30, le(command) + le(std::uint16_t{0}) + le(ip));
  };
  // 10.0.0.1: the first octet is the least significant byte.
  send(d.pi().onc_info, onc(0, 0x0100000a));
  d.on_loop([] { ssc_sdn_debug_sw = SDN_DBG_VER; });
  testing::internal::CaptureStdout();
  d.tick();
  d.on_loop([] {
    ssc_sdn_debug_sw = 0;
    std::fflush(stdout);
  });
  EXPECT_NE(testing::internal::GetCapturedStdout().find("add onc ip is 10.0.0.1"), std::string::npos);
  EXPECT_EQ(stored(kUdpDb, s_policy_kelim__onc_ip__descriptor), Texts{"index={ip=0x100000a} status=0x1"});
  send(d.pi().onc_info, onc(0, 0x0100000a));
  send(d.pi().onc_info, onc(1, 0x0100000a));
  d.tick();
  EXPECT_EQ(stored(kUdpDb, s_policy_kelim__onc_ip__descriptor), Texts{});
  EXPECT_EQ(sdn_opt_cnt[38], 0u);

  d.expect_error("ssc_sdn_add_op_onc_ace failed, rv -7");
  send(d.pi().onc_info, onc(1, 0x0100000a));
  d.tick();
  EXPECT_EQ(sdn_opt_cnt[41], 1u);
  d.expect_error("ssc_kelim_mom_set failed, rv -1");
  d.expect_error("qx_mom_set FAIL! rv:-1");
  host::fault::fail(host::fault::Point::mom_set, -1);
  send(d.pi().onc_info, onc(0, 0x0100000a));
  d.tick();
  EXPECT_EQ(sdn_opt_cnt[38], 1u);
}

TEST_F(FlowRequests, packet_path) {
  EXPECT_EQ(stored(0, s_cluster__reg_pkt_info__descriptor), Texts{"index={name='kelim'} dlib_name='libkelim.pkt.ss.so'"});
  d.on_loop([] { EXPECT_EQ(kelim_pkt_start(), 0) << "registered already"; });
  d.watch(kUdpDb, {&s_policy_kelim__pkt_sig__descriptor, nullptr});
  send(d.pi().pkt_start, message(28, {}));
  send(d.pi().pkt_start, message(28, {}));
  send(d.pi().pkt_end, message(29, {}));
  d.tick();
  const auto seen = d.changes();
  ASSERT_EQ(seen.size(), 3u);
  EXPECT_EQ(seen[0].record.as<SPolicyKelim__PktSig>()->is_pkt_start, 1u);
  EXPECT_EQ(seen[1].record.as<SPolicyKelim__PktSig>()->is_pkt_start, 1u);
  EXPECT_EQ(seen[2].record.as<SPolicyKelim__PktSig>()->is_pkt_start, 0u);

  d.expect_error("qx_mom_set error. rv:-7");
  d.on_loop([] {
    EXPECT_EQ(kelim_pkt_end(), 0);
    EXPECT_EQ(kelim_pkt_end(), -7);
  });
  EXPECT_EQ(stored(0, s_cluster__reg_pkt_info__descriptor), Texts{});
  d.expect_error("qx_mom_setnx_sync fail. rv:-1");
  host::fault::fail(host::fault::Point::mom_setnx, -1);
  d.on_loop([] { EXPECT_EQ(kelim_pkt_start(), -1); });
}

TEST_F(FlowRequests, failures_of_the_access_control_layer_are_counted) {
  d.expect_error("g_acl_fail = 1.");
  d.expect_error("g_ace_fail = 1.");
  d.expect_error("g_apply_fail = 1.");
  d.expect_error("g_apply_fail = 2.");
  for (int slot = 0; slot < 17; slot++)
    EXPECT_EQ(ssc_kelim_fp_handler[slot] != nullptr, slot == 1 || slot == 3 || slot == 5) << slot;
  d.on_loop([] {
    for (const int slot : {1, 3, 5, 5}) ssc_kelim_fp_handler[slot]();
  });
  EXPECT_EQ(g_acl_fail, 1u);
  EXPECT_EQ(g_ace_fail, 1u);
  EXPECT_EQ(g_apply_fail, 2u);
  d.on_loop([] {
    g_policy_error_zlog_level = 0;
    ssc_kelim_fp_handler[5]();
  });
  EXPECT_EQ(g_apply_fail, 3u) << "counted whether it is logged or not";
  d.on_loop([] { EXPECT_EQ(ssc_kelim_pack_send_task_init(), 0) << "the sending thread is started once"; });
}

}  // namespace
