// The flow cache: its index bucket by bucket, and its nodes.
#include <gtest/gtest.h>

#include <map>
#include <random>
#include <utility>
#include <vector>

#include "kelim/common/kelim_debug.h"
#include "ssc_kelim/sdn/ssc_kelim_flow_db.h"
#include "support/flow_bytes.h"
#include "support/reset.h"

using namespace flow_bytes;

namespace {

class FlowDb : public testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(flow_info_hash_init(), 0); }
  void TearDown() override { reset_process(); }

  static flow_info_node key_of(std::uint64_t flow_index, std::uint32_t vsd_id = 0) {
    flow_info_node key{};
    key.flow_index = flow_index;
    key.vsd_id = vsd_id;
    return key;
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

// Flow 5 hashes like flow 3 in 8 buckets, and flow 6 tries 5, 6, 0, 3 and 7 before it comes to 4.
TEST_F(FlowDb, BucketsOfWhatIsDeletedAreUsedAgain) {
  for (std::uint64_t flow : {1, 2, 3, 4, 5, 6}) add(flow);
  EXPECT_EQ(in_buckets(0, 100), (Indexes{5, 1, 6, 2, 4, 3}));
  EXPECT_EQ(in_buckets(4, 2), (Indexes{6, 2}));
  EXPECT_EQ(in_buckets(8, 1), Indexes{});
  // Where flow 6 was, and flows 2 and 4 before it on its way: the first of the tombstones is used again.
  for (std::uint64_t flow : {6, 2, 4}) EXPECT_EQ(ssc_kelim_del_flow_node(find(flow)), 0);
  EXPECT_EQ(ssc_kelim_del_flow_node(nullptr), -5);
  add(6);
  EXPECT_EQ(in_buckets(5, 1), Indexes{6});
  for (std::uint64_t flow : {1, 3, 5, 6}) ssc_kelim_del_flow_node(find(flow));
  for (std::uint64_t flow = 100; flow < 1100; ++flow) ssc_kelim_del_flow_node(add(flow));
  EXPECT_EQ(flow_info_list->n_buckets, 8u) << "deletions do not make it grow";
}

TEST_F(FlowDb, AgreesWithAMapUnderRandomChurn) {
  std::map<std::pair<std::uint64_t, std::uint32_t>, flow_info_node *> model;
  std::mt19937 random(1);
  for (int i = 0; i < 20000; ++i) {
    // Grows to about 4,000 flows, then shrinks to few.
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

TEST_F(FlowDb, TheSetItself) {
  flow_info_node a = key_of(1), same = key_of(1);
  for (flow_info_node *node : {&a, &same}) EXPECT_EQ(flow_info_hash_insert(node), 0);
  EXPECT_EQ(flow_info_hash_find(&same), &a);
  flow_info_hash_remove(&same);
  EXPECT_EQ(flow_info_hash_find(&a), nullptr);

  // A refreshed node takes over what its template says and forgets its copy, which stays with whoever holds it.
  flow_info_node *node = add(1), *refreshed = nullptr;
  std::uint8_t *const copy = node->raw;
  a.install_state = 4;
  EXPECT_EQ(flow_info_cache_create(&refreshed, &a), node);
  EXPECT_EQ(node->install_state, 4u);
  EXPECT_EQ(node->flow_field_bitmap, 0u);
  EXPECT_EQ(node->raw, nullptr);
  flow_info_cache_destroy(node);
  ssc_sdn_free(copy);
  EXPECT_EQ(flow_info_hash_size(), 0u);
}

}  // namespace
