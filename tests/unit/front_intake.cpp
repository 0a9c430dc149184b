// The southbound callbacks and their intakes: what is queued, what is refused, what is answered and counted.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/of_ss/testing.h"
#include "kelim/common/kelim_debug.h"
#include "southbound.h"
#include "ssc_kelim/sdn/ssc_kelim_init.h"
#include "ssc_kelim/sdn/ssc_kelim_msg_to_ssd.h"
#include "ssc_kelim/sdn/ssc_sdn_proxy.h"

namespace {

using Bytes = std::vector<std::uint8_t>;

std::vector<Bytes> g_replies;

// A message in a block of its own size, so that a read beyond it is seen by the address sanitizer. Its header is always there.
class Message {
 public:
  Message(std::uint16_t type, std::uint16_t len) : bytes_(std::make_unique<std::uint8_t[]>(std::max<std::size_t>(len, 8))) {
    southbound::put_header(bytes_.get(), type, 4, len, 1);
  }
  template <typename T>
  Message &put(std::size_t offset, T value) {
    if (offset + sizeof value <= southbound::get<std::uint16_t>(bytes_.get(), 4)) southbound::put(bytes_.get(), offset, value);
    return *this;
  }
  void *get() { return bytes_.get(); }
  Message &&take() { return std::move(*this); }

 private:
  std::unique_ptr<std::uint8_t[]> bytes_;
};

Message flow_mod(std::uint16_t len, std::uint8_t command = 0) {
  return Message(10, len).put(8, std::uint64_t{0x1122334455667788}).put(28, command).take();
}
Message meter_mod(std::uint16_t len, std::uint16_t command) {
  return Message(17, len).put(8, command).put(12, std::uint32_t{0xa1b2c3d4}).take();
}
Message stat_request(std::uint16_t len) {
  return Message(13, len).put(8, std::uint64_t{9}).take();
}
Message onc_info(std::uint16_t len, std::uint16_t command) {
  return Message(30, len).put(8, command).take();
}

// What waits in the handler list, and is then taken out of it.
struct Waiting {
  libss_pthrd_handler handler;
  std::uint32_t value;
  Bytes data;
};
std::vector<Waiting> g_waiting;

bool carries_a_job(libss_pthrd_handler handler) {
  return handler == ssc_sdn_add_flow_handler || handler == ssc_sdn_del_flow_handler || handler == ssc_sdn_add_meter_handler ||
         handler == ssc_sdn_del_meter_handler;
}

void look(libss_pthrd_hdl *hdl) {
  Waiting waiting{hdl->handler, hdl->value, {}};
  EXPECT_EQ(hdl->flag, 0u);
  if (carries_a_job(hdl->handler)) {
    auto *job = static_cast<ssc_sdn_flow_job *>(hdl->data);
    // Both jobs have the length first and the copy at byte 8; a meter's length has 32 bits.
    const auto *copy = static_cast<const std::uint8_t *>(job->msg);
    waiting.data.assign(copy, copy + static_cast<std::uint32_t>(job->len));
    ssc_sdn_free(job->msg);
  } else if (hdl->data != nullptr) {
    waiting.data.push_back(*static_cast<std::uint8_t *>(hdl->data));
  }
  g_waiting.push_back(waiting);
}

std::vector<Waiting> take_waiting() {
  g_waiting.clear();
  libss_pthrd_tranv_node(ssc_sdn_mst, look);
  libss_pthrd_clear_hdl(ssc_sdn_mst);
  return g_waiting;
}

class Intake : public testing::Test {
 protected:
  void SetUp() override {
    kelim_debug_reset_for_tests();
    libproxy_sdn_debug_sw = 0;
    libproxy_fp_sdn_reset_for_tests();
    host::of_ss::hold_agent(true);
    host::of_ss::set_reply_tap([](std::span<const std::byte> reply) {
      const auto *bytes = reinterpret_cast<const std::uint8_t *>(reply.data());
      g_replies.emplace_back(bytes, bytes + reply.size());
    });
    g_replies.clear();
    ASSERT_EQ(ssc_sdn_main_pthread_init(), 0);
  }
  void TearDown() override {
    take_waiting();
    ssc_kelim_init_reset_for_tests();
    libproxy_fp_sdn_reset_for_tests();
    host::of_ss::of_ss_reset_for_tests();
    kelim_debug_reset_for_tests();
  }
};

// One kind of request, as its callback gets it, with what the requirement says of it. Slots are those of sdn_opt_cnt.
struct Kind {
  const char *name;
  std::function<void()> call;
  libss_pthrd_handler handler;
  std::optional<unsigned> received, failed, not_queued;
  unsigned op;               // slot of libproxy_sdn_op_cnt
  std::uint32_t blocks;      // allocations of the intake
  std::uint16_t reply_type;  // of a failure, 0 for none
  unsigned replies;          // to a failure of memory or of the hand-over
};

int (*const kOpFlow)(void *) = libproxy_fp_sdn_op_flow;

std::function<void()> with(int (*callback)(void *), const std::function<Message()> &make) {
  return [callback, make] {
    Message message = make();
    callback(message.get());
  };
}

const std::vector<Kind> &kinds() {
  static const std::vector<Kind> all = {
      // A refused add is answered by the intake and by the callback.
      {"flow add", with(kOpFlow, [] { return flow_mod(64); }), ssc_sdn_add_flow_handler, 0, 2, 2, 2, 2, 11, 2},
      {"flow delete", with(kOpFlow, [] { return flow_mod(64, 1); }), ssc_sdn_del_flow_handler, 3, 5, 5, 3, 2, 0, 0},
      {"flow delete by any other command", with(kOpFlow, [] { return flow_mod(64, 5); }), ssc_sdn_del_flow_handler, 3, 5, 5, 3, 2,
       0, 0},
      {"meter add",
       with(libproxy_fp_sdn_op_meter, [] { return meter_mod(32, 0); }),
       ssc_sdn_add_meter_handler,
       6,
       {},
       {},
       4,
       2,
       18,
       2},
      {"meter delete", with(libproxy_fp_sdn_op_meter, [] { return meter_mod(16, 2); }), ssc_sdn_del_meter_handler, 9, 11, 11, 5,
       2, 0, 0},
      {"open", with(libproxy_fp_sdn_open, [] { return Message(6, 12); }), ssc_sdn_enable_msg_handler, 12, 14, 14, 6, 1, 0, 0},
      {"close", with(libproxy_fp_sdn_close, [] { return Message(7, 12); }), ssc_sdn_disable_msg_handler, 15, 17, 17, 7, 1, 0, 0},
      {"data-sync start", with(libproxy_fp_sdn_ds_start, [] { return Message(33, 8); }), ssc_sdn_ds_recv_start_handler, 21, 23,
       23, 9, 0, 0, 0},
      {"data-sync end", with(libproxy_fp_sdn_ds_end, [] { return Message(34, 8); }), ssc_sdn_ds_recv_end_handler, 24, 26, 26, 10,
       0, 0, 0},
      {"statistics", with(libproxy_fp_sdn_statistic, [] { return stat_request(16); }), ssc_sdn_get_statistic_val_handler, 30, 32,
       32, 14, 1, 14, 1},
      {"flow-count configuration",
       with(libproxy_fp_sdn_flowcount_config_para, [] { return Message(26, 16); }),
       ssc_sdn_flowcnt_cfg_handler,
       {},
       {},
       {},
       1,
       1,
       0,
       0},
      {"ONC add", with(libproxy_fp_sdn_op_onc_info, [] { return onc_info(16, 0); }), ssc_sdn_add_onc_handler, 36, 38, 38, 15, 1,
       0, 0},
      {"ONC delete", with(libproxy_fp_sdn_op_onc_info, [] { return onc_info(16, 1); }), ssc_sdn_del_onc_handler, 39, 41, 41, 16,
       1, 0, 0},
      {"barrier", with(libproxy_fp_sdn_barrier, [] { return Message(31, 24); }), ssc_sdn_add_barrier_handler, 42, 44, 44, 17, 1,
       0, 0},
      {"delete all flows", libproxy_fp_sdn_del_all_flow, ssc_sdn_del_all_flow_handler, 18, {}, 20, 8, 0, 0, 0},
      {"delete all", libproxy_fp_sdn_del_all, ssc_sdn_del_all_handler, 45, {}, 47, 18, 0, 0, 0},
      // Deliberately counted as a failed delete-all when it cannot be queued.
      {"packet start",
       with(libproxy_fp_sdn_pkt_start, [] { return Message(28, 8); }),
       ssc_sdn_pkt_start_handler,
       {},
       {},
       47,
       11,
       1,
       0,
       0},
      {"packet end",
       with(libproxy_fp_sdn_pkt_end, [] { return Message(29, 8); }),
       ssc_sdn_pkt_start_handler,
       {},
       {},
       47,
       12,
       1,
       0,
       0},
  };
  return all;
}

// Runs one call and checks that of the daemon's counters just these went up by one.
void expect_counts(const Kind &kind, std::optional<unsigned> failure, unsigned meter_replies = 0) {
  std::uint64_t before[48], op_before = libproxy_sdn_op_cnt[kind.op];
  for (unsigned i = 0; i < 48; ++i) before[i] = sdn_opt_cnt[i];
  kind.call();
  for (unsigned i = 0; i < 48; ++i) {
    std::uint64_t expected = (i == kind.received) + (i == failure);
    if (i == 8) expected += meter_replies;
    EXPECT_EQ(sdn_opt_cnt[i] - before[i], expected) << "counter " << i;
  }
  EXPECT_EQ(libproxy_sdn_op_cnt[kind.op] - op_before, 1u);
}

TEST_F(Intake, QueuesEveryKindForItsHandler) {
  for (const Kind &kind : kinds()) {
    SCOPED_TRACE(kind.name);
    expect_counts(kind, {});
    const auto waiting = take_waiting();
    ASSERT_EQ(waiting.size(), 1u);
    EXPECT_EQ(waiting[0].handler, kind.handler);
    EXPECT_EQ(waiting[0].value, 0u);
  }
  EXPECT_TRUE(g_replies.empty());
}

TEST_F(Intake, WithoutMemoryNothingIsQueuedAndOnlySomeAreAnswered) {
  for (const Kind &kind : kinds()) {
    SCOPED_TRACE(kind.name);
    for (std::uint32_t n = 1; n <= kind.blocks; ++n) {
      SCOPED_TRACE("allocation " + std::to_string(n));
      g_replies.clear();
      ssc_sdn_malloc_fail_nth(n);
      expect_counts(kind, kind.failed, kind.reply_type == 18 ? 1 : 0);
      EXPECT_TRUE(take_waiting().empty());
      ASSERT_EQ(g_replies.size(), kind.replies);
      for (const Bytes &reply : g_replies) EXPECT_EQ(southbound::get<std::uint16_t>(reply.data(), 0), kind.reply_type);
    }
    if (kind.handler == ssc_sdn_del_all_flow_handler) continue;
    ssc_sdn_malloc_fail_nth(kind.blocks + 1);
    kind.call();
    EXPECT_EQ(take_waiting().size(), 1u) << "the intake allocates no more than that";
  }
  // The delete-all-flows callback allocates the message; without it there is no intake that could count anything.
  ssc_sdn_malloc_fail_nth(1);
  libproxy_fp_sdn_del_all_flow();
  EXPECT_TRUE(take_waiting().empty());
  EXPECT_EQ(sdn_opt_cnt[18], 0u);
}

TEST_F(Intake, WhatCannotBeHandedOverIsFreedAndCounted) {
  libss_pthrd_destroy_mst(ssc_sdn_mst);
  for (const Kind &kind : kinds()) {
    SCOPED_TRACE(kind.name);
    g_replies.clear();
    expect_counts(kind, kind.not_queued, kind.reply_type == 18 ? 1 : 0);
    ASSERT_EQ(g_replies.size(), kind.replies);
  }
}

// ---- bad messages

struct Refusal {
  const char *name;
  int (*callback)(void *);
  std::function<Message(std::uint16_t)> of_length;
  std::uint16_t shortest;  // that is queued
  std::optional<unsigned> failed;
  unsigned replies;  // of the callback and, for meters, the intake
};

TEST_F(Intake, AMessageShorterThanItsFieldsIsRefusedAndNeverReadBeyondItsEnd) {
  const std::vector<Refusal> refusals = {
      {"flow add", libproxy_fp_sdn_op_flow, [](std::uint16_t len) { return flow_mod(len); }, 44, 2, 1},
      {"meter add", libproxy_fp_sdn_op_meter, [](std::uint16_t len) { return meter_mod(len, 0); }, 16, {}, 2},
      {"statistics", libproxy_fp_sdn_statistic, [](std::uint16_t len) { return stat_request(len); }, 16, 32, 1},
      {"flow-count configuration",
       libproxy_fp_sdn_flowcount_config_para,
       [](std::uint16_t len) { return Message(26, len); },
       16,
       {},
       0},
      {"ONC add", libproxy_fp_sdn_op_onc_info, [](std::uint16_t len) { return onc_info(len, 0); }, 16, 38, 0},
      {"barrier", libproxy_fp_sdn_barrier, [](std::uint16_t len) { return Message(31, len); }, 0, 44, 0},
      {"open", libproxy_fp_sdn_open, [](std::uint16_t len) { return Message(6, len); }, 0, 14, 0},
  };
  for (const Refusal &refusal : refusals) {
    SCOPED_TRACE(refusal.name);
    for (std::uint16_t len = 0; len < refusal.shortest + 2; ++len) {
      SCOPED_TRACE("length " + std::to_string(len));
      g_replies.clear();
      const std::uint64_t before = refusal.failed ? sdn_opt_cnt[*refusal.failed].load() : 0;
      Message message = refusal.of_length(len);
      refusal.callback(message.get());
      const bool refused = len < refusal.shortest;
      EXPECT_EQ(take_waiting().size(), refused ? 0u : 1u);
      EXPECT_EQ(g_replies.size(), refused ? refusal.replies : 0u);
      if (!refusal.failed) continue;
      EXPECT_EQ(sdn_opt_cnt[*refusal.failed] - before, refused ? 1u : 0u);
    }
  }
  // A delete long enough to show its command is refused too, without a word.
  g_replies.clear();
  Message cut_delete = flow_mod(40, 1);
  EXPECT_EQ(libproxy_fp_sdn_op_flow(cut_delete.get()), 0);
  EXPECT_EQ(sdn_opt_cnt[5], 1u);
  EXPECT_TRUE(g_replies.empty());
}

TEST_F(Intake, ABarrierAndAnOpenMessageAreZeroFilledForTheirHandlers) {
  Message barrier = Message(31, 20).put(16, std::uint32_t{0x01020304}).take();
  libproxy_fp_sdn_barrier(barrier.get());
  Message open(6, 4);
  libproxy_fp_sdn_open(open.get());
  static std::vector<Bytes> copies;
  copies.clear();
  libss_pthrd_tranv_node(ssc_sdn_mst, [](libss_pthrd_hdl *hdl) {
    const auto *copy = static_cast<const std::uint8_t *>(hdl->data);
    copies.emplace_back(copy, copy + (copies.empty() ? 24 : 8));
  });
  ASSERT_EQ(copies.size(), 2u);
  EXPECT_EQ(Bytes(copies[0].begin() + 16, copies[0].end()), (Bytes{4, 3, 2, 1, 0, 0, 0, 0}));
  EXPECT_EQ(copies[1], (Bytes{6, 0, 4, 0, 0, 0, 0, 0})) << "what the header has beyond its own length is not taken over";
}

TEST_F(Intake, ALengthThatDiffersFromTheHeadersIsRefused) {
  Message flow = flow_mod(64), meter = meter_mod(32, 0), request = stat_request(16);
  for (std::uint32_t len : {63u, 65u}) {
    EXPECT_EQ(ssc_sdn_add_flow_msg(0, flow.get(), len), -4);
    EXPECT_EQ(ssc_sdn_del_flow_msg(0, flow.get(), len), -4);
  }
  EXPECT_EQ(sdn_opt_cnt[2], 2u);
  EXPECT_EQ(sdn_opt_cnt[5], 2u);
  EXPECT_TRUE(g_replies.empty()) << "the intake of a flow answers no bad length";
  EXPECT_EQ(ssc_sdn_statistic_msg(0, request.get(), 17), -4);
  EXPECT_EQ(ssc_sdn_del_meter_msg(0, meter.get(), 31), -4);
  EXPECT_TRUE(g_replies.empty());
  EXPECT_EQ(ssc_sdn_add_meter_msg(0, meter.get(), 33), -4);
  EXPECT_EQ(g_replies, (std::vector<Bytes>{{18, 0, 0, 0, 16, 0, 0, 0, 0xd4, 0xc3, 0xb2, 0xa1, 1, 0, 0, 0}}));
  EXPECT_TRUE(take_waiting().empty());
}

TEST_F(Intake, AMissingMessageIsRefused) {
  EXPECT_EQ(ssc_sdn_add_flow_msg(0, nullptr, 64), -4);
  EXPECT_EQ(ssc_sdn_del_flow_msg(0, nullptr, 64), -4);
  EXPECT_EQ(ssc_sdn_add_meter_msg(0, nullptr, 16), -4);
  EXPECT_EQ(ssc_sdn_del_meter_msg(0, nullptr, 16), -4);
  EXPECT_EQ(ssc_sdn_enable_msg(0, nullptr, 8), -4);
  EXPECT_EQ(ssc_sdn_disable_msg(0, nullptr, 8), -4);
  EXPECT_EQ(ssc_sdn_barrier_msg(0, nullptr, 24), -4);
  EXPECT_EQ(ssc_sdn_del_all_flow(0, nullptr, 8), -4);
  EXPECT_EQ(ssc_sdn_ds_recv_start_sig(0, nullptr, 8), -4);
  EXPECT_EQ(ssc_sdn_ds_recv_end_sig(0, nullptr, 8), -4);
  EXPECT_EQ(ssc_sdn_statistic_msg(0, nullptr, 16), -4);
  EXPECT_EQ(ssc_sdn_flowcnt_cfg_sig(0, nullptr, 16), -4);
  EXPECT_EQ(ssc_sdn_add_onc_msg(0, nullptr, 16), -4);
  EXPECT_EQ(ssc_sdn_del_onc_msg(0, nullptr, 16), -4);
  EXPECT_EQ(ssc_sdn_pkt_start_msg(0, nullptr, 8), -11);
  for (unsigned failed : {2, 5, 11, 14, 17, 20, 23, 26, 32, 38, 41, 44})
    EXPECT_EQ(sdn_opt_cnt[failed], 1u) << "counter " << failed;
  for (int (*callback)(void *) :
       {libproxy_fp_sdn_op_meter, libproxy_fp_sdn_statistic, libproxy_fp_sdn_barrier, libproxy_fp_sdn_op_onc_info,
        libproxy_fp_sdn_pkt_start, libproxy_fp_sdn_pkt_end, libproxy_fp_sdn_flowcount_config_para})
    EXPECT_EQ(callback(nullptr), -4);
  for (unsigned op = 0; op < 20; ++op) EXPECT_EQ(libproxy_sdn_op_cnt[op], 0u) << "a missing message is not counted";
  EXPECT_TRUE(take_waiting().empty());
  EXPECT_TRUE(g_replies.empty());
}

TEST_F(Intake, APacketSignalOfAnotherTypeIsRefused) {
  Message other(30, 8), start(28, 8), end(29, 8);
  EXPECT_EQ(ssc_sdn_pkt_start_msg(0, other.get(), 8), -11);
  libproxy_fp_sdn_pkt_start(start.get());
  libproxy_fp_sdn_pkt_end(end.get());
  const auto waiting = take_waiting();
  ASSERT_EQ(waiting.size(), 2u);
  EXPECT_EQ(waiting[0].data, Bytes{1});
  EXPECT_EQ(waiting[1].data, Bytes{0});
  EXPECT_EQ(sdn_opt_cnt[47], 0u);
}

TEST_F(Intake, AnAddressWithAnotherCommandIsIgnored) {
  Message other = onc_info(16, 2);
  EXPECT_EQ(libproxy_fp_sdn_op_onc_info(other.get()), 0);
  EXPECT_TRUE(take_waiting().empty());
  EXPECT_EQ(libproxy_sdn_op_cnt[15] + libproxy_sdn_op_cnt[16], 0u);
}

TEST_F(Intake, TheCopyIsTheMessageToTheLastByte) {
  Message meter = meter_mod(40, 0);
  for (std::size_t i = 16; i < 40; ++i) meter.put(i, static_cast<std::uint8_t>(i));
  libproxy_fp_sdn_op_meter(meter.get());
  const auto *bytes = static_cast<const std::uint8_t *>(meter.get());
  const Bytes sent(bytes, bytes + 40);
  std::memset(meter.get(), 0xee, 40);
  const auto waiting = take_waiting();
  ASSERT_EQ(waiting.size(), 1u);
  EXPECT_EQ(waiting[0].data, sent);
}

// ---- replies of the southbound layer, byte for byte

TEST_F(Intake, FailureRepliesCarryVersionAndTableOfTheLatestOpenMessage) {
  Message open = Message(6, 12).put(2, std::uint16_t{4}).put(6, std::uint16_t{0x0301}).take();
  libproxy_fp_sdn_open(open.get());

  Message modify = meter_mod(16, 1);
  const std::uint64_t meters = libproxy_sdn_op_cnt[4] + libproxy_sdn_op_cnt[5];
  EXPECT_EQ(libproxy_fp_sdn_op_meter(modify.get()), 0);
  EXPECT_EQ(libproxy_sdn_op_cnt[4] + libproxy_sdn_op_cnt[5], meters) << "counts nothing";
  Message flow = flow_mod(40);
  libproxy_fp_sdn_op_flow(flow.get());
  Message request = stat_request(16).put(4, std::uint16_t{15}).take();
  libproxy_fp_sdn_statistic(request.get());
  libproxy_fp_sdn_flow_table_capacity_notify();

  ASSERT_EQ(g_replies.size(), 4u);
  EXPECT_EQ(g_replies[0], (Bytes{18, 0, 4, 0, 16, 0, 1, 3, 0xd4, 0xc3, 0xb2, 0xa1, 2, 0, 0, 0}));
  EXPECT_EQ(g_replies[1],
            (Bytes{11, 0, 4, 0, 24, 0, 1, 3, 0x88, 0x77, 0x66, 0x55, 0x44, 0x33, 0x22, 0x11, 2, 0, 0, 0, 0, 0, 0, 0}));
  Bytes statistics(40);
  const Bytes head = {14, 0, 4, 0, 40, 0, 1, 3, 9};
  std::copy(head.begin(), head.end(), statistics.begin());
  statistics[32] = 2;
  EXPECT_EQ(g_replies[2], statistics);
  EXPECT_EQ(g_replies[3], (Bytes{36, 0, 0, 0, 24, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x58, 2, 0, 0}));
  EXPECT_EQ(libproxy_sdn_op_cnt[19], 1u);
}

TEST_F(Intake, ErrorCodesBecomeResultClasses) {
  for (std::int32_t code : {14, -14, 0, -2, -11, 2}) sdn_send_flow_ret_val_2_proxy(0, 7, code);
  for (std::int32_t code : {14, -14, 0, -4}) sdn_send_meter_ret_val_2_proxy(0, 7, code);
  std::vector<std::uint32_t> classes;
  for (const Bytes &reply : g_replies)
    classes.push_back(southbound::get<std::uint32_t>(reply.data(), reply.size() == 24 ? 16 : 12));
  EXPECT_EQ(classes, (std::vector<std::uint32_t>{1, 1, 2, 2, 2, 2, 0, 0, 1, 1}));
}

// ---- handshake and registration

TEST_F(Intake, CapacityAndFetchGoOutWhenBothHalvesAreThere) {
  static int fetches;
  fetches = 0;
  host::of_ss::set_fetch_tap([] { ++fetches; });
  libproxy_fp_sdn_establisth_connect();
  libproxy_fp_sdn_establisth_connect();
  EXPECT_TRUE(g_replies.empty());
  EXPECT_EQ(fetches, 0);
  libproxy_fp_sdn_ds_fetch();
  EXPECT_EQ(g_replies.size(), 1u);
  EXPECT_EQ(fetches, 1);
  libproxy_fp_sdn_establisth_connect();
  libproxy_fp_sdn_ds_fetch();
  EXPECT_EQ(g_replies.size(), 3u);
  EXPECT_EQ(fetches, 3);
  EXPECT_EQ(libproxy_sdn_op_cnt[0], 3u);
  EXPECT_EQ(libproxy_sdn_op_cnt[13], 2u);
  libproxy_fp_sdn_reset_for_tests();
  g_replies.clear();
  libproxy_fp_sdn_ds_fetch();
  EXPECT_TRUE(g_replies.empty()) << "fetched without a connection";
}

TEST_F(Intake, CallbacksAreRegisteredOnce) {
  qx_global global{};
  EXPECT_EQ(libproxy_fp_sdn_dep_init(nullptr), -4);
  EXPECT_FALSE(host::of_ss::callbacks().complete());
  EXPECT_EQ(libproxy_fp_sdn_dep_init(&global), 0);
  EXPECT_TRUE(host::of_ss::callbacks().complete());
  EXPECT_EQ(host::of_ss::callbacks().mgmt_ifx, host::of_ss::callbacks().open);
  host::of_ss::of_ss_reset_for_tests();
  EXPECT_EQ(libproxy_fp_sdn_dep_init(&global), 0);
  EXPECT_FALSE(host::of_ss::callbacks().complete()) << "the second time registers nothing";
}

}  // namespace
