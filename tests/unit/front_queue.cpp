// The queue of outstanding requests: its rules case by case, and the indexed queue against the rules written down naively.
#include <gtest/gtest.h>

#include <algorithm>
#include <list>
#include <random>
#include <string>
#include <vector>

#include "host/of_ss/testing.h"
#include "kelim/common/kelim_debug.h"
#include "southbound.h"
#include "ssc_kelim/sdn/ssc_kelim_ds_stage.h"
#include "ssc_kelim/sdn/ssc_sdn_msg_queue.h"

namespace {

constexpr std::uint32_t kFlow = 0, kBarrier = 14;

// What the controller side is told: "flow 7 class 2", "barrier 3".
std::vector<std::string> g_answers;

void note_reply(std::span<const std::byte> reply) {
  const auto type = southbound::get<std::uint16_t>(reply.data(), 0);
  if (type == 11) {
    ASSERT_EQ(reply.size(), 24u);
    g_answers.push_back("flow " + std::to_string(southbound::get<std::uint64_t>(reply.data(), 8)) + " class " +
                        std::to_string(southbound::get<std::uint32_t>(reply.data(), 16)));
  } else if (type == 32) {
    ASSERT_EQ(reply.size(), 24u);
    EXPECT_EQ(southbound::get<std::uint32_t>(reply.data(), 20), 0x0100007fu) << "echoes the controller's address";
    g_answers.push_back("barrier " + std::to_string(southbound::get<std::uint32_t>(reply.data(), 16)));
  } else {
    ADD_FAILURE() << "a reply of type " << type;
  }
}

class Queue : public testing::Test {
 protected:
  void SetUp() override {
    kelim_debug_reset_for_tests();
    g_ssc_ds_stage = {0, 1, 1, 0, 0};
    ssc_sdn_msg_queue_reset_for_tests();
    host::of_ss::hold_agent(true);
    host::of_ss::set_reply_tap(note_reply);
    g_answers.clear();
  }
  void TearDown() override {
    ssc_sdn_msg_queue_reset_for_tests();
    host::of_ss::of_ss_reset_for_tests();
    kelim_debug_reset_for_tests();
  }

  static std::int32_t flow(std::uint64_t index, std::uint32_t ds_type = 0) {
    std::byte msg[16] = {};
    southbound::put(msg, 8, index);
    return ssc_sdn_msg_queue_alloc_flow_msg_node(msg, ds_type);
  }
  static std::int32_t barrier(std::uint32_t xid) {
    std::byte msg[24] = {};
    southbound::put_header(msg, 31, 4, 24, 0);
    southbound::put(msg, 16, xid);
    southbound::put(msg, 20, std::uint32_t{0x0100007f});
    return ssc_sdn_msg_queue_alloc_barrier_msg_node(msg);
  }
  static void result(std::uint64_t index, std::uint32_t code) {
    EXPECT_EQ(ssc_sdn_msg_queue_update_msg_node(kFlow, index, code), 0);
    ssc_sdn_msg_queue_traverse_pop_msg_node();
  }
  // "f1 b2" for a flow 1 and a barrier 2; a returned flow in capitals.
  static std::string content() {
    std::string text;
    for (auto *link = g_ssc_sdn_msg_queue.next; link != &g_ssc_sdn_msg_queue; link = link->next) {
      const auto &node = static_cast<const ssc_sdn_msg_queue_node &>(*link);
      EXPECT_EQ(link->next->prev, link);
      text += (text.empty() ? "" : " ") +
              std::string(node.type == kBarrier ? "b"
                          : node.is_ret         ? "F"
                                                : "f") +
              std::to_string(node.msg_id);
    }
    return text;
  }
};

using Answers = std::vector<std::string>;

TEST_F(Queue, ABarrierWaitsForEverythingBeforeIt) {
  flow(1);
  flow(2);
  barrier(30);
  flow(4);
  barrier(31);
  result(2, 0);
  EXPECT_EQ(content(), "f1 b30 f4 b31") << "a finished flow leaves past an unfinished one";
  result(4, 2);
  EXPECT_EQ(content(), "f1 b30 F4 b31") << "behind a waiting barrier nothing leaves";
  EXPECT_EQ(g_answers, Answers{});
  result(1, 0);
  EXPECT_EQ(content(), "");
  EXPECT_EQ(g_answers, (Answers{"barrier 30", "flow 4 class 2", "barrier 31"}));
}

TEST_F(Queue, ABarrierAtTheHeadIsAnsweredByTheFirstTraversal) {
  barrier(1);
  barrier(1);
  ssc_sdn_msg_queue_traverse_pop_msg_node();
  EXPECT_EQ(g_answers, (Answers{"barrier 1", "barrier 1"}));
  EXPECT_TRUE(ssc_sdn_msg_queue_empty());
}

TEST_F(Queue, SeveralReturnedBeforeOneTraversalLeaveInOrder) {
  for (std::uint64_t index : {1, 2, 3}) flow(index);
  ssc_sdn_msg_queue_update_msg_node(kFlow, 3, 14);
  ssc_sdn_msg_queue_update_msg_node(kFlow, 1, 2);
  ssc_sdn_msg_queue_traverse_pop_msg_node();
  EXPECT_EQ(content(), "f2");
  EXPECT_EQ(g_answers, (Answers{"flow 1 class 2", "flow 3 class 1"}));
}

TEST_F(Queue, OnlyTheFirstOfEqualNodesIsMeant) {
  g_ssc_ds_stage.in_progress = 1;
  flow(5);
  flow(5);
  barrier(5);
  ssc_sdn_msg_queue_update_node_set_status(5);
  EXPECT_EQ(ssc_sdn_msg_queue_check_ds_end_by_type(0), 0) << "the second is not set";
  result(5, 2);
  EXPECT_EQ(content(), "f5 b5");
  EXPECT_EQ(ssc_sdn_msg_queue_update_msg_node(kBarrier, 5, 9), 0) << "another type with the same id is another node";
  ssc_sdn_msg_queue_traverse_pop_msg_node();
  EXPECT_EQ(content(), "f5 b5") << "a result does not let a barrier out";
  EXPECT_EQ(ssc_sdn_msg_queue_update_msg_node(kFlow, 6, 0), -7);
  ssc_sdn_msg_queue_destory_flow_msg_node(6);
  EXPECT_EQ(content(), "f5 b5");
  ssc_sdn_msg_queue_destory_flow_msg_node(5);
  EXPECT_EQ(content(), "b5");
  EXPECT_EQ(g_answers, Answers{"flow 5 class 2"});
}

TEST_F(Queue, DestroyAllAnswersBarriersAndReportsFailedFlows) {
  flow(1);
  flow(2);
  barrier(3);
  flow(4);
  ssc_sdn_msg_queue_update_msg_node(kFlow, 2, 2);
  ssc_sdn_msg_queue_destory_all_flow_msg_node();
  EXPECT_TRUE(ssc_sdn_msg_queue_empty());
  EXPECT_EQ(g_answers, (Answers{"flow 2 class 2", "barrier 3"}));
}

TEST_F(Queue, InitDropsWhatIsLeftWithoutAWord) {
  flow(1);
  barrier(2);
  ssc_sdn_msg_queue_update_msg_node(kFlow, 1, 2);
  ssc_sdn_msg_queue_init();
  EXPECT_TRUE(ssc_sdn_msg_queue_empty());
  EXPECT_EQ(g_answers, Answers{});
  flow(1);
  result(1, 2);
  EXPECT_EQ(g_answers, Answers{"flow 1 class 2"}) << "and is as new";
}

TEST_F(Queue, WithoutMemoryNothingChanges) {
  flow(1);
  for (std::uint32_t n : {1u, 2u}) {
    ssc_sdn_malloc_fail_nth(n);
    EXPECT_EQ(flow(2), -2);
    ssc_sdn_malloc_fail_nth(n);
    EXPECT_EQ(barrier(3), -2);
    EXPECT_EQ(content(), "f1");
  }
  ssc_sdn_malloc_fail_nth(3);
  EXPECT_EQ(flow(2), 0) << "two blocks a node";
  EXPECT_EQ(content(), "f1 f2");
}

TEST_F(Queue, AStageIsOverWhenItsFirstRunHasNoUnsetFlowOfTheClass) {
  EXPECT_EQ(ssc_sdn_msg_queue_check_ds_end_by_type(0), 1) << "an empty queue";
  flow(1, 0);  // before the synchronisation
  g_ssc_ds_stage.in_progress = 1;
  flow(2, 2);
  flow(3, 1);
  barrier(9);
  g_ssc_ds_stage.end_received = 1;
  EXPECT_EQ(ssc_sdn_msg_queue_check_ds_end_by_type(0), 1) << "nothing of the class";
  EXPECT_EQ(ssc_sdn_msg_queue_check_ds_end_by_type(1), 0);
  EXPECT_EQ(ssc_sdn_msg_queue_check_ds_end_by_type(2), 0) << "barriers are not looked at, flow 2 is";
  ssc_sdn_msg_queue_update_node_set_status(2);
  EXPECT_EQ(ssc_sdn_msg_queue_check_ds_end_by_type(2), 1);
  EXPECT_EQ(ssc_sdn_msg_queue_check_ds_end_by_type(1), 0);

  flow(4, 1);  // after its end: closes the run
  g_ssc_ds_stage.end_received = 0;
  flow(5, 1);  // of the next synchronisation
  ssc_sdn_msg_queue_update_node_set_status(3);
  EXPECT_EQ(ssc_sdn_msg_queue_check_ds_end_by_type(1), 1) << "flow 5 stands behind the run's end";
  ssc_sdn_msg_queue_destory_flow_msg_node(4);
  EXPECT_EQ(ssc_sdn_msg_queue_check_ds_end_by_type(1), 0) << "without flow 4 the runs are one";
}

// ---- the rules, naively

struct ModelNode {
  std::uint32_t type;
  std::uint64_t id;
  std::uint32_t ds_type;
  bool is_ds;
  bool is_ret = false;
  bool is_set = false;
  std::uint32_t ret_val = 0;
};

class Model {
 public:
  std::list<ModelNode> nodes;
  std::vector<std::string> answers;

  ModelNode *find(std::uint32_t type, std::uint64_t id) {
    for (ModelNode &node : nodes)
      if (node.type == type && node.id == id) return &node;
    return nullptr;
  }
  void pop(std::list<ModelNode>::iterator at) {
    if (at->type == kBarrier) answers.push_back("barrier " + std::to_string(at->id));
    if (at->type == kFlow && at->ret_val != 0)
      answers.push_back("flow " + std::to_string(at->id) + " class " + (at->ret_val == 14 ? "1" : "2"));
    nodes.erase(at);
  }
  void traverse() {
    bool all_returned = true;
    for (auto at = nodes.begin(); at != nodes.end();) {
      const auto here = at++;
      if (here->type == kBarrier) {
        if (!all_returned) return;
        pop(here);
      } else if (here->is_ret) {
        pop(here);
      } else {
        all_returned = false;
      }
    }
  }
  int check(std::uint32_t ds_type) const {
    bool seen = false;
    for (const ModelNode &node : nodes) {
      if (node.type != kFlow) continue;
      if (node.is_ds) {
        seen = true;
        if (node.ds_type == ds_type && !node.is_set) return 0;
      } else if (seen) {
        return 1;
      }
    }
    return 1;
  }
  void destroy(std::uint64_t id) {
    const auto at = std::ranges::find_if(nodes, [id](const ModelNode &n) { return n.type == kFlow && n.id == id; });
    if (at != nodes.end()) pop(at);
  }
};

void expect_same(const Model &model) {
  auto *link = g_ssc_sdn_msg_queue.next;
  for (const ModelNode &expected : model.nodes) {
    ASSERT_NE(link, &g_ssc_sdn_msg_queue) << "a node is missing";
    const auto &node = static_cast<const ssc_sdn_msg_queue_node &>(*link);
    ASSERT_EQ(std::tie(node.type, node.msg_id, node.ds_type, node.ret_val),
              std::tie(expected.type, expected.id, expected.ds_type, expected.ret_val));
    ASSERT_EQ(node.is_ds != 0, expected.is_ds);
    ASSERT_EQ(node.is_ret != 0, expected.is_ret);
    ASSERT_EQ(node.is_set != 0, expected.is_set);
    link = link->next;
  }
  ASSERT_EQ(link, &g_ssc_sdn_msg_queue) << "a node too many";
  ASSERT_EQ(g_answers, model.answers);
}

// Equal ids, barriers with equal transaction ids, results without traversals and the removal of nodes from the middle are all
// more frequent here than in life; VER lines are on half of the time, which makes traversals walk.
TEST_F(Queue, DoesWhatTheRulesSayOverRandomHistories) {
  for (unsigned seed = 1; seed <= 60; ++seed) {
    SetUp();
    std::mt19937 random(seed);
    const auto below = [&random](unsigned n) { return static_cast<std::uint32_t>(random() % n); };
    const unsigned ids = seed % 3 == 0 ? 300 : 12;
    ssc_sdn_debug_sw = seed % 2 == 0 ? std::uint32_t{SDN_DBG_VER_SERVICE} : 0;
    Model model;
    for (int step = 0; step < 2000; ++step) {
      const std::uint64_t id = below(ids);
      const unsigned what = below(100);
      const bool is_ds = g_ssc_ds_stage.in_progress != 0 && g_ssc_ds_stage.end_received == 0;
      if (what < 34) {
        const std::uint32_t ds_type = below(5);
        ASSERT_EQ(flow(id, ds_type), 0);
        model.nodes.push_back({kFlow, id, ds_type, is_ds});
      } else if (what < 42) {
        ASSERT_EQ(barrier(static_cast<std::uint32_t>(id)), 0);
        model.nodes.push_back({kBarrier, id, 2, is_ds});
      } else if (what < 72) {
        const std::uint32_t type = what == 71 ? kBarrier : kFlow, code = below(3) == 0 ? 14 : below(2);
        ModelNode *node = model.find(type, id);
        ASSERT_EQ(ssc_sdn_msg_queue_update_msg_node(type, id, code), node != nullptr ? 0 : -7);
        if (node != nullptr) node->is_ret = true, node->ret_val = code;
        if (what < 66) {
          ssc_sdn_msg_queue_traverse_pop_msg_node();
          model.traverse();
        }
      } else if (what < 78) {
        ssc_sdn_msg_queue_update_node_set_status(id);
        if (ModelNode *node = model.find(kFlow, id)) node->is_set = true;
      } else if (what < 88) {
        const std::uint32_t ds_type = below(5);
        ASSERT_EQ(ssc_sdn_msg_queue_check_ds_end_by_type(ds_type), model.check(ds_type)) << "seed " << seed << " step " << step;
      } else if (what < 93) {
        ssc_sdn_msg_queue_destory_flow_msg_node(id);
        model.destroy(id);
      } else if (what < 96 && !model.nodes.empty()) {
        const std::uint32_t position = below(static_cast<unsigned>(model.nodes.size()));
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
      } else {
        ssc_sdn_msg_queue_traverse_pop_msg_node();
        model.traverse();
      }
      if (step % 16 != 0) continue;
      ASSERT_NO_FATAL_FAILURE(expect_same(model)) << "seed " << seed << " step " << step;
    }
    ASSERT_NO_FATAL_FAILURE(expect_same(model)) << "seed " << seed;
    TearDown();
  }
}

}  // namespace
