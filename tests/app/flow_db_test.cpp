// The flow cache: its index and its nodes.
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
};

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
  const std::uint32_t buckets = flow_info_list->n_buckets;
  for (std::uint64_t flow = 5000; flow < 50'000; ++flow) ssc_kelim_del_flow_node(add(flow));
  EXPECT_EQ(flow_info_list->n_buckets, buckets) << "deletions do not make it grow";

  const auto cross_off = [](flow_info_node *node, void *arg) {
    return static_cast<std::int32_t>(1 - static_cast<decltype(model) *>(arg)->erase({node->flow_index, node->vsd_id}));
  };
  EXPECT_EQ(ssc_kelim_del_flow_node(nullptr), -5);
  EXPECT_EQ(ssc_kelim_for_each_flow_node_op(cross_off, &model), 0);
  EXPECT_TRUE(model.empty());
}

}  // namespace
