// The southbound callbacks and their intakes: what is queued, what is refused, what is answered and counted.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "host/of_ss/testing.h"
#include "kelim/common/kelim_debug.h"
#include "southbound.h"
#include "ssc_kelim/sdn/ssc_kelim_data_sync.h"
#include "ssc_kelim/sdn/ssc_kelim_init.h"
#include "ssc_kelim/sdn/ssc_kelim_intake.h"
#include "ssc_kelim/sdn/ssc_kelim_msg_to_ssd.h"
#include "ssc_kelim/sdn/ssc_kelim_requests.h"
#include "ssc_kelim/sdn/ssc_sdn_main_list.h"
#include "ssc_kelim/sdn/ssc_sdn_proxy.h"
#include "support/record_text.h"
#include "support/reset.h"

namespace {

using Bytes = std::vector<std::uint8_t>;
using Texts = std::vector<std::string>;
using Handlers = std::vector<libss_pthrd_handler>;

Texts g_replies;  // as hexadecimal digits
Handlers g_waiting;

// In a block of its own size, so that a read beyond it is seen by the address sanitizer. The header is always there.
Bytes message(std::uint16_t type, std::uint16_t len, std::uint8_t command = 0) {
  Bytes bytes(std::max<std::size_t>(len, 8));
  southbound::put_header(bytes.data(), type, 4, len, 1);
  const std::size_t command_at = type == 10 ? 28 : 8;
  if (command_at < len) bytes[command_at] = command;
  return bytes;
}

// What waits in the handler list; it is taken out.
Handlers take_waiting() {
  g_waiting.clear();
  libss_pthrd_tranv_node(ssc_sdn_mst, [](libss_pthrd_hdl *hdl) { g_waiting.push_back(hdl->handler); });
  ssc_kelim_init_reset_for_tests();
  EXPECT_EQ(ssc_sdn_main_pthread_init(), 0);
  return g_waiting;
}

class Intake : public testing::Test {
 protected:
  void SetUp() override {
    reset_process();
    libproxy_sdn_debug_sw = 0;
    host::of_ss::hold_agent(true);
    host::of_ss::set_reply_tap([](std::span<const std::byte> reply) {
      g_replies.push_back(record_text::digits(reinterpret_cast<const std::uint8_t *>(reply.data()), reply.size()));
    });
    g_replies.clear();
    take_waiting();
  }
  void TearDown() override { reset_process(); }
};

constexpr unsigned kNone = 48;  // no counter

// One kind of request, as its callback gets it, and how it is counted and answered. Those that are left out are like one of
// these.
struct Kind {
  const char *name;
  int (*callback)(void *);
  std::uint16_t type, len;
  std::uint8_t command;
  libss_pthrd_handler handler;
  unsigned op;                               // slot of libproxy_sdn_op_cnt
  unsigned received, failed, not_queued;     // slots of sdn_opt_cnt
  std::uint32_t blocks = 0;                  // allocations of the intake
  std::uint16_t shortest = 0, readable = 0;  // lengths: the first that is queued, the first that shows type and command
  unsigned replies = 0, refusals = 0;        // to a failure of memory or of the hand-over; to a short message
};

// An answer has the type behind the request's. A refused flow add is answered by the intake and by the callback, a meter's by
// both whatever the reason. A packet signal that cannot be queued counts as a failed delete-all.
const Kind kKinds[] = {
    {"flow add", libproxy_fp_sdn_op_flow, 10, 64, 0, ssc_sdn_add_flow_handler, 2, 0, 2, 2, 2, 44, 0, 2, 1},
    {"flow delete", libproxy_fp_sdn_op_flow, 10, 64, 1, ssc_sdn_del_flow_handler, 3, 3, 5, 5, 2, 44, 29},
    {"flow, unknown", libproxy_fp_sdn_op_flow, 10, 64, 5, ssc_sdn_del_flow_handler, 3, 3, 5, 5, 2, 44, 29},
    {"meter add", libproxy_fp_sdn_op_meter, 17, 32, 0, ssc_sdn_add_meter_handler, 4, 6, kNone, kNone, 2, 16, 0, 2, 2},
    {"meter delete", libproxy_fp_sdn_op_meter, 17, 16, 2, ssc_sdn_del_meter_handler, 5, 9, 11, 11, 2, 16, 10},
    {"open", libproxy_fp_sdn_open, 6, 12, 0, ssc_sdn_enable_msg_handler, 6, 12, 14, 14, 1},
    {"data-sync start", libproxy_fp_sdn_ds_start, 33, 8, 0, ssc_sdn_ds_recv_start_handler, 9, 21, 23, 23},
    {"statistics", libproxy_fp_sdn_statistic, 13, 16, 0, ssc_sdn_get_statistic_val_handler, 14, 30, 32, 32, 1, 16, 0, 1, 1},
    {"flow count", libproxy_fp_sdn_flowcount_config_para, 26, 16, 0, ssc_sdn_flowcnt_cfg_handler, 1, kNone, kNone, kNone, 1, 16,
     1},
    {"barrier", libproxy_fp_sdn_barrier, 31, 24, 0, ssc_sdn_add_barrier_handler, 17, 42, 44, 44, 1},
    {"all", [](void *) { return libproxy_fp_sdn_del_all(), 0; }, 8, 8, 0, ssc_sdn_del_all_handler, 18, 45, kNone, 47},
    {"packet start", libproxy_fp_sdn_pkt_start, 28, 8, 0, ssc_sdn_pkt_start_handler, 11, kNone, kNone, 47, 1},
};

// Hands one message of a kind over: of the daemon's counters just these go up by one, and it waits where it is `queued`.
void call(const Kind &kind, std::uint16_t len, bool queued, unsigned failure, unsigned replies) {
  SCOPED_TRACE(std::string(kind.name) + " of length " + std::to_string(len) + (queued ? "" : ", failing"));
  g_replies.clear();
  const std::vector<std::uint64_t> before(sdn_opt_cnt, sdn_opt_cnt + 48);
  const std::uint64_t op_before = libproxy_sdn_op_cnt[kind.op];
  Bytes bytes = message(kind.type, len, kind.command);
  kind.callback(bytes.data());
  for (unsigned i = 0; i < 48; ++i) {
    const bool meter_reply = i == 8 && kind.op == 4 && !queued;
    EXPECT_EQ(sdn_opt_cnt[i] - before[i], unsigned{i == kind.received} + (i == failure) + meter_reply) << "counter " << i;
  }
  EXPECT_EQ(libproxy_sdn_op_cnt[kind.op] - op_before, 1u);
  EXPECT_EQ(g_replies.size(), replies);
  for (const std::string &reply : g_replies) EXPECT_EQ(std::stoul(reply.substr(0, 2), nullptr, 16), kind.type + 1u);
  if (ssc_sdn_mst->alive != 0) {
    EXPECT_EQ(take_waiting(), queued ? Handlers{kind.handler} : Handlers{});
  }
}

TEST_F(Intake, EveryKindIsQueuedOrFailsWithItsCountersAndReplies) {
  for (const Kind &kind : kKinds) {
    call(kind, kind.len, true, kNone, 0);
    for (std::uint32_t n = 1; n <= kind.blocks; ++n) {
      ssc_sdn_malloc_fail_nth(n);
      call(kind, kind.len, false, kind.failed, kind.replies);
    }
    for (std::uint16_t len = kind.readable; len < kind.shortest; ++len) call(kind, len, false, kind.failed, kind.refusals);
    call(kind, kind.shortest, true, kNone, 0);
  }
  libss_pthrd_destroy_mst(ssc_sdn_mst);
  for (const Kind &kind : kKinds) call(kind, kind.len, false, kind.not_queued, kind.replies);
}

TEST_F(Intake, WhatIsMissingOrOfAnotherKindIsRefusedAndAShortBarrierFilled) {
  for (const Kind &kind : kKinds) {
    if (kind.type == 10 || kind.type == 8) continue;  // the callback gives 0, or takes no message
    EXPECT_EQ(kind.callback(nullptr), -4) << kind.name;
  }
  EXPECT_EQ(ssc_sdn_add_flow_msg(0, nullptr, 64), -4);
  for (unsigned failed : {2, 14, 23}) EXPECT_EQ(sdn_opt_cnt[failed], 1u) << "counter " << failed;

  Bytes address = message(30, 16, 2), signal = message(30, 8), flow = message(10, 64);
  libproxy_fp_sdn_op_onc_info(address.data());
  libproxy_fp_sdn_pkt_start(signal.data());
  for (std::uint32_t len : {63u, 65u}) EXPECT_EQ(ssc_sdn_add_flow_msg(0, flow.data(), len), -4) << "not what its header says";
  // Without memory for its message the callback has nothing to hand in.
  ssc_sdn_malloc_fail_nth(1);
  libproxy_fp_sdn_del_all_flow();
  EXPECT_EQ(sdn_opt_cnt[18], 0u);
  EXPECT_EQ(take_waiting(), Handlers{});
  EXPECT_EQ(g_replies, Texts{});

  Bytes barrier = message(31, 20);
  southbound::put(barrier.data(), 16, 0x01020304u);
  libproxy_fp_sdn_barrier(barrier.data());
  libss_pthrd_tranv_node(ssc_sdn_mst, [](libss_pthrd_hdl *hdl) {
    EXPECT_EQ(southbound::get<std::uint64_t>(hdl->data, 16), 0x01020304u) << "a short one is zero-filled";
  });
}

// ---- handshake and registration

TEST_F(Intake, AConnectionWaitsForTheFetch) {
  qx_global global{};
  EXPECT_EQ(libproxy_fp_sdn_dep_init(nullptr), -4);
  EXPECT_EQ(libproxy_fp_sdn_dep_init(&global), 0);
  libproxy_fp_sdn_establisth_connect();
  EXPECT_EQ(g_replies, Texts{});
  libproxy_fp_sdn_ds_fetch();
  EXPECT_EQ(g_replies.size(), 1u);
}

}  // namespace
