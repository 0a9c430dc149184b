// The queue of outstanding requests, which is indexed, against its rules written down naively.
#include <gtest/gtest.h>

#include <algorithm>
#include <list>
#include <random>
#include <utility>
#include <vector>

#include "host/of_ss/testing.h"
#include "kelim/common/kelim_debug.h"
#include "southbound.h"
#include "ssc_kelim/sdn/ssc_kelim_ds_stage.h"
#include "ssc_kelim/sdn/ssc_sdn_msg_queue.h"
#include "support/reset.h"

namespace {

constexpr std::uint32_t kFlow = 0, kBarrier = 14;

// What the controller side is told: a flow with the class of its failure, or a barrier with the type of its reply.
using Answers = std::vector<std::pair<std::uint64_t, std::uint32_t>>;
constexpr std::uint32_t kBarrierReply = 32;

Answers g_answers;

void note_reply(std::span<const std::byte> reply) {
  ASSERT_EQ(reply.size(), 24u);
  const auto type = southbound::get<std::uint16_t>(reply.data(), 0);
  if (type == kBarrierReply)
    g_answers.emplace_back(southbound::get<std::uint32_t>(reply.data(), 16), type);
  else
    g_answers.emplace_back(southbound::get<std::uint64_t>(reply.data(), 8), southbound::get<std::uint32_t>(reply.data(), 16));
}

struct Node {
  std::uint32_t type;
  std::uint64_t id;
  std::uint32_t ds_type;
  bool is_ds, is_ret = false, is_set = false;
  std::uint32_t ret_val = 0;
  bool operator==(const Node &) const = default;
};

void start_anew() {
  reset_process();
  g_ssc_ds_stage = {0, 1, 1, 0, 0};
  host::of_ss::hold_agent(true);
  host::of_ss::set_reply_tap(note_reply);
  g_answers.clear();
}

std::int32_t flow(std::uint64_t index, std::uint32_t ds_type) {
  std::byte msg[16] = {};
  southbound::put(msg, 8, index);
  return ssc_sdn_msg_queue_alloc_flow_msg_node(msg, ds_type);
}
std::int32_t barrier(std::uint32_t xid) {
  std::byte msg[24] = {};
  southbound::put_header(msg, 31, 4, 24, 0);
  southbound::put(msg, 16, xid);
  return ssc_sdn_msg_queue_alloc_barrier_msg_node(msg);
}
std::vector<Node> queued() {
  std::vector<Node> nodes;
  for (auto *link = g_ssc_sdn_msg_queue.next; link != &g_ssc_sdn_msg_queue; link = link->next) {
    const auto &node = static_cast<const ssc_sdn_msg_queue_node &>(*link);
    EXPECT_EQ(link->next->prev, link);
    nodes.push_back({node.type, node.msg_id, node.ds_type, node.is_ds != 0, node.is_ret != 0, node.is_set != 0, node.ret_val});
  }
  return nodes;
}

// ---- the rules, naively

struct Model {
  using At = std::list<Node>::iterator;
  std::list<Node> nodes;
  Answers answers;

  At find(std::uint32_t type, std::uint64_t id) {
    return std::ranges::find_if(nodes, [=](const Node &node) { return node.type == type && node.id == id; });
  }
  At pop(At at) {
    if (at->type == kBarrier) answers.emplace_back(at->id, kBarrierReply);
    if (at->type == kFlow && at->ret_val != 0) answers.emplace_back(at->id, at->ret_val == 14 ? 1 : 2);
    return nodes.erase(at);
  }
  void traverse() {
    bool all_returned = true;
    for (At at = nodes.begin(); at != nodes.end();) {
      if (at->type == kBarrier && !all_returned) return;
      const bool leaves = at->type == kBarrier || at->is_ret;
      all_returned = all_returned && leaves;
      at = leaves ? pop(at) : std::next(at);
    }
  }
  int check(std::uint32_t ds_type) const {
    bool seen = false;
    for (const Node &node : nodes) {
      if (node.type != kFlow) continue;
      if (!node.is_ds && seen) return 1;
      if (node.is_ds && node.ds_type == ds_type && !node.is_set) return 0;
      seen = seen || node.is_ds;
    }
    return 1;
  }
};

// Equal ids, barriers with equal transaction ids, results without traversals and the removal of nodes from the middle are all
// more frequent here than in life; VER lines are on half of the time, which makes traversals walk.
TEST(Queue, DoesWhatTheRulesSayOverRandomHistories) {
  for (unsigned seed = 1; seed <= 60; ++seed) {
    start_anew();
    std::mt19937 random(seed);
    const auto below = [&random](std::size_t n) { return static_cast<std::uint32_t>(random() % n); };
    const unsigned ids = seed % 3 == 0 ? 300 : 12;
    ssc_sdn_debug_sw = seed % 2 == 0 ? std::uint32_t{SDN_DBG_VER_SERVICE} : 0;
    Model model;
    for (int step = 0; step < 2000; ++step) {
      SCOPED_TRACE(testing::Message() << "seed " << seed << " step " << step);
      const std::uint32_t id = below(ids), what = below(100), ds_type = below(5);
      const bool is_ds = g_ssc_ds_stage.in_progress != 0 && g_ssc_ds_stage.end_received == 0;
      if (what < 42) {
        const bool memory = below(10) != 0;  // without it nothing changes; a node takes two blocks
        if (!memory) ssc_sdn_malloc_fail_nth(1 + below(2));
        const Node node = what < 34 ? Node{kFlow, id, ds_type, is_ds} : Node{kBarrier, id, 2, is_ds};
        ASSERT_EQ(node.type == kFlow ? flow(id, ds_type) : barrier(id), memory ? 0 : -2);
        if (memory) model.nodes.push_back(node);
      } else if (what < 66) {
        const std::uint32_t type = what == 65 ? kBarrier : kFlow, code = below(3) == 0 ? 14 : below(2);
        const auto at = model.find(type, id);
        ASSERT_EQ(ssc_sdn_msg_queue_update_msg_node(type, id, code), at != model.nodes.end() ? 0 : -7);
        if (at != model.nodes.end()) at->is_ret = true, at->ret_val = code;
      } else if (what < 78) {
        ssc_sdn_msg_queue_update_node_set_status(id);
        if (const auto at = model.find(kFlow, id); at != model.nodes.end()) at->is_set = true;
      } else if (what < 88) {
        ASSERT_EQ(ssc_sdn_msg_queue_check_ds_end_by_type(ds_type), model.check(ds_type));
      } else if (what < 93) {
        ssc_sdn_msg_queue_destory_flow_msg_node(id);
        if (const auto at = model.find(kFlow, id); at != model.nodes.end()) model.pop(at);
      } else if (what < 96 && !model.nodes.empty()) {
        const std::uint32_t position = below(model.nodes.size());
        auto *link = g_ssc_sdn_msg_queue.next;
        for (std::uint32_t i = 0; i < position; ++i) link = link->next;
        ssc_sdn_msg_queue_pop_msg_node(static_cast<ssc_sdn_msg_queue_node *>(link));
        model.pop(std::next(model.nodes.begin(), position));
      } else if (what < 99) {
        g_ssc_ds_stage.in_progress = below(2) != 0;
        g_ssc_ds_stage.end_received = below(3) == 0;
      } else if (below(10) == 0) {
        ssc_sdn_msg_queue_destory_all_flow_msg_node();
        while (!model.nodes.empty()) model.pop(model.nodes.begin());
      }
      if (what < 42 || (what >= 62 && what < 99)) continue;  // as in life, most results are followed by a traversal
      ssc_sdn_msg_queue_traverse_pop_msg_node();
      model.traverse();
      ASSERT_TRUE(std::ranges::equal(queued(), model.nodes));
      ASSERT_EQ(g_answers, model.answers);
    }
  }
  start_anew();
}

// The node that returned last may leave by another way than a traversal; what is queued next may lie where it lay.
TEST(Queue, ANodeThatIsGoneIsNotTakenForTheOneThatReturned) {
  start_anew();
  for (const std::uint64_t id : {1, 2, 3}) flow(id, 0);
  for (const std::uint64_t id : {2, 3}) ssc_sdn_msg_queue_update_msg_node(kFlow, id, 0);
  ssc_sdn_msg_queue_traverse_pop_msg_node();
  for (const std::uint64_t id : {4, 5}) flow(id, 0);
  for (const std::uint64_t id : {4, 5}) ssc_sdn_msg_queue_update_msg_node(kFlow, id, 0);
  ssc_sdn_msg_queue_destory_flow_msg_node(5);
  flow(6, 0);
  ssc_sdn_msg_queue_traverse_pop_msg_node();
  EXPECT_EQ(queued(), (std::vector<Node>{{kFlow, 1, 0, false}, {kFlow, 6, 0, false}}));
  start_anew();
}

}  // namespace
