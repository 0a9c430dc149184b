// The flow cache: its index bucket by bucket, its nodes, and what happens when memory is short.
#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <random>
#include <utility>
#include <vector>

#include "kelim/common/kelim_debug.h"
#include "ssc_kelim/sdn/ssc_kelim_flow_db.h"
#include "support/flow_bytes.h"

using namespace flow_bytes;

namespace {

flow_info_node key_of(std::uint64_t flow_index, std::uint32_t vsd_id = 0) {
  flow_info_node key{};
  key.flow_index = flow_index;
  key.vsd_id = vsd_id;
  return key;
}

class FlowCache : public testing::Test {
 protected:
  void SetUp() override { ASSERT_NE(ssc_kelim_flow_info_init(), nullptr); }
  void TearDown() override {
    ssc_sdn_malloc_fail_nth(0);
    ssc_kelim_flow_db_reset_for_tests();
  }

  static flow_info_node *add(std::uint64_t flow_index, std::uint32_t vsd_id = 0) {
    const Bytes message = flow_mod({.index = flow_index, .match = field(0x80000004, le(3u)), .actions = output(2)});
    const flow_info_node key = key_of(flow_index, vsd_id);
    return ssc_kelim_add_flow_node(message.data(), static_cast<std::int32_t>(message.size()), &key);
  }
  static flow_info_node *find(std::uint64_t flow_index, std::uint32_t vsd_id = 0) {
    const flow_info_node key = key_of(flow_index, vsd_id);
    return ssc_kelim_find_flow_node(&key);
  }
  // Flow indexes in bucket order, over buckets start to start + count.
  static std::vector<std::uint64_t> in_buckets(std::uint32_t start, std::uint32_t count) {
    std::vector<std::uint64_t> out;
    const auto note = [](flow_info_node *node, void *arg) {
      static_cast<std::vector<std::uint64_t> *>(arg)->push_back(node->flow_index);
      return 0;
    };
    EXPECT_EQ(flow_info_hash_traverse_with_index(note, start, count, &out), 0);
    return out;
  }
};

using Indexes = std::vector<std::uint64_t>;

// The buckets follow from lookup2 of the key and steps of 1, 2, 3, ...: flow 3 hashes like flow 1 in 4 buckets, flow 5 like flow
// 3 in 8, and flow 6 tries 5, 6, 0, 3 and 7 before it comes to 4.
TEST_F(FlowCache, buckets) {
  EXPECT_EQ(flow_info_list->n_buckets, 0u);
  EXPECT_EQ(find(1), nullptr);
  for (std::uint64_t flow : {1, 2, 3}) add(flow);
  EXPECT_EQ(flow_info_list->n_buckets, 4u);
  EXPECT_EQ(flow_info_list->upper_bound, 3u);
  EXPECT_EQ(in_buckets(0, 4), (Indexes{3, 2, 1}));
  EXPECT_EQ(in_buckets(2, 1), Indexes{});
  EXPECT_EQ(in_buckets(3, 1), Indexes{1});

  add(4);
  EXPECT_EQ(flow_info_list->n_buckets, 8u);
  EXPECT_EQ(flow_info_list->upper_bound, 6u);
  for (std::uint64_t flow : {5, 6}) add(flow);
  EXPECT_EQ(in_buckets(0, 100), (Indexes{5, 1, 6, 2, 4, 3}));
  EXPECT_EQ(in_buckets(4, 2), (Indexes{6, 2}));
  EXPECT_EQ(in_buckets(8, 1), Indexes{});
  EXPECT_EQ(in_buckets(0, 0), Indexes{});
  EXPECT_EQ(flow_info_hash_size(), 6u);
  for (std::uint64_t flow = 1; flow <= 6; flow++) EXPECT_EQ(find(flow)->flow_index, flow);

  // Every 64-bit index and virtual switch has a bucket of its own choice: 7 of 8, then 1 of 8 for the same index in switch 9.
  for (std::uint64_t flow : {1, 2, 3, 4, 5, 6}) ssc_kelim_del_flow_node(find(flow));
  add(0x1122334455667788);
  EXPECT_EQ(in_buckets(7, 1), Indexes{0x1122334455667788});
  add(0x1122334455667788, 9);
  EXPECT_EQ(in_buckets(1, 1), Indexes{0x1122334455667788});
}

TEST_F(FlowCache, all_sixteen_key_bytes_count) {
  flow_info_node *in_switch_0 = add(1, 0), *in_switch_1 = add(1, 1);
  EXPECT_NE(in_switch_0, in_switch_1);
  EXPECT_EQ(find(1, 0), in_switch_0);
  EXPECT_EQ(find(1, 1), in_switch_1);
  flow_info_node dirty = key_of(1);
  dirty.filler = 1;
  EXPECT_EQ(ssc_kelim_find_flow_node(&dirty), nullptr);
}

TEST_F(FlowCache, deletions_do_not_make_it_grow) {
  add(1), add(2), add(3), add(4);
  ASSERT_EQ(flow_info_list->n_buckets, 8u);
  ssc_kelim_del_flow_node(find(3));
  ssc_kelim_del_flow_node(find(4));
  for (std::uint64_t flow = 100; flow < 1100; flow++) {
    add(flow);
    ASSERT_EQ(ssc_kelim_del_flow_node(find(flow)), 0);
    ASSERT_EQ(flow_info_list->n_buckets, 8u);
    ASSERT_NE(find(1), nullptr);
    ASSERT_NE(find(2), nullptr);
  }
  EXPECT_EQ(ssc_kelim_del_flow_node(nullptr), -5);
}

// Flow 6 tries 5, where flow 2 was, then 6, where flow 4 was: the first of the two tombstones is used again.
TEST_F(FlowCache, the_first_tombstone_is_used_again) {
  for (std::uint64_t flow : {1, 2, 3, 4}) add(flow);
  for (std::uint64_t flow : {2, 4}) ssc_kelim_del_flow_node(find(flow));
  EXPECT_EQ(flow_info_list->n_occupied, 4u);
  add(6);
  EXPECT_EQ(in_buckets(5, 2), Indexes{6});
  EXPECT_EQ(in_buckets(5, 1), Indexes{6});
  EXPECT_EQ(flow_info_list->n_occupied, 4u);
  EXPECT_EQ(flow_info_hash_size(), 3u);
}

TEST_F(FlowCache, agrees_with_a_map_under_random_churn) {
  std::map<std::pair<std::uint64_t, std::uint32_t>, flow_info_node *> model;
  std::mt19937 random(1);
  for (int i = 0; i < 20000; i++) {
    // Grows to about 2,000 flows, then shrinks to few.
    const std::pair key{std::uint64_t{random() % 3000}, static_cast<std::uint32_t>(random() % 2)};
    const bool deleting = random() % 10 < (i < 10000 ? 3 : 8);
    flow_info_node *known = find(key.first, key.second);
    ASSERT_EQ(known, model.contains(key) ? model[key] : nullptr);
    if (known && deleting) {
      ASSERT_EQ(ssc_kelim_del_flow_node(known), 0);
      model.erase(key);
    } else if (!known) {
      model[key] = add(key.first, key.second);
    }
    ASSERT_EQ(flow_info_hash_size(), model.size());
    ASSERT_LE(flow_info_list->n_occupied, flow_info_list->upper_bound);
  }
  const auto cross_off = [](flow_info_node *node, void *arg) {
    return static_cast<std::int32_t>(1 - static_cast<decltype(model) *>(arg)->erase({node->flow_index, node->vsd_id}));
  };
  EXPECT_EQ(ssc_kelim_for_each_flow_node_op(cross_off, &model), 0);
  EXPECT_TRUE(model.empty());
}

TEST_F(FlowCache, a_walk_stops_at_the_first_result) {
  for (std::uint64_t flow : {1, 2, 3}) add(flow);
  int visited = 0;
  const auto stop_at_2 = [](flow_info_node *node, void *arg) {
    ++*static_cast<int *>(arg);
    return node->flow_index == 2 ? 77 : 0;
  };
  ssc_sdn_debug_sw = SDN_DBG_ERROR;
  testing::internal::CaptureStdout();
  EXPECT_EQ(ssc_kelim_for_each_flow_node_op(stop_at_2, &visited), 77);
  std::fflush(stdout);
  EXPECT_NE(testing::internal::GetCapturedStdout().find("for_each_db_flow_info_op failed, rv:77\n"), std::string::npos);
  ssc_sdn_debug_sw = 0;
  EXPECT_EQ(visited, 2);
}

TEST_F(FlowCache, a_node_holds_the_message_and_what_it_says) {
  const Bytes message = flow_mod({.index = 5, .match = field(0x80000c02, le(std::uint16_t{100})), .actions = output(2)});
  flow_info_node key = key_of(5);
  flow_info_node *node = ssc_kelim_add_flow_node(message.data(), static_cast<std::int32_t>(message.size()), &key);
  ASSERT_EQ(node->raw_len, message.size());
  EXPECT_EQ(std::memcmp(node->raw, message.data(), message.size()), 0);
  EXPECT_EQ(node->vid, 100u);
  EXPECT_EQ(node->flow_field_bitmap, 0x40u);
  EXPECT_EQ(node->action_bitmap, 0x11u);

  // A refreshed node is the same node. It takes over the install state and forgets its copy, which stays with whoever holds it.
  std::uint8_t *const copy = node->raw;
  key.install_state = 4;
  flow_info_node *refreshed = nullptr;
  EXPECT_EQ(flow_info_cache_create(&refreshed, &key), node);
  EXPECT_EQ(refreshed, node);
  EXPECT_EQ(node->install_state, 4u);
  EXPECT_EQ(node->flow_field_bitmap, 0u);
  EXPECT_EQ(node->raw, nullptr);
  EXPECT_EQ(node->vid, 100u);
  EXPECT_EQ(node->raw_len, message.size());
  ssc_sdn_free(copy);
}

// Node, index flags, raw copy: the three allocations of the first flow.
TEST_F(FlowCache, out_of_memory) {
  ssc_sdn_malloc_fail_nth(1);
  EXPECT_EQ(add(1), nullptr);
  EXPECT_EQ(flow_info_hash_size(), 0u);

  ssc_sdn_malloc_fail_nth(2);
  flow_info_node *unindexed = add(1);
  ASSERT_NE(unindexed, nullptr) << "the flow goes on without the index";
  EXPECT_EQ(unindexed->in_port, 3u);
  EXPECT_EQ(find(1), nullptr);
  EXPECT_EQ(flow_info_hash_size(), 0u);

  ssc_sdn_malloc_fail_nth(3);
  EXPECT_EQ(add(1), nullptr);
  ASSERT_NE(find(1), nullptr) << "the node stays without its copy";
  EXPECT_EQ(find(1)->raw, nullptr);

  for (std::uint64_t flow : {2, 3}) add(flow);
  ssc_sdn_malloc_fail_nth(2);
  flow_info_node *fourth = add(4);
  EXPECT_EQ(find(4), nullptr) << "the index could not grow";
  EXPECT_EQ(flow_info_list->n_buckets, 4u);
  EXPECT_EQ(ssc_kelim_del_flow_node(fourth), 0);
  flow_info_node *again = add(4);
  EXPECT_EQ(find(4), again);
  EXPECT_EQ(flow_info_list->n_buckets, 8u);
}

TEST_F(FlowCache, the_set_itself) {
  flow_info_node a = key_of(1), same = key_of(1);
  EXPECT_EQ(flow_info_hash_insert(&a), 0);
  EXPECT_EQ(flow_info_hash_insert(&same), 0);
  EXPECT_EQ(flow_info_hash_find(&same), &a);
  flow_info_hash_remove(&same);
  EXPECT_EQ(flow_info_hash_find(&a), nullptr);
  flow_info_node *made = nullptr;
  flow_info_cache_create(&made, &a);
  flow_info_cache_destroy(made);
  EXPECT_EQ(flow_info_hash_size(), 0u);
  EXPECT_EQ(flow_info_hash_init(), 0);
}

}  // namespace
