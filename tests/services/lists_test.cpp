// Action lists in the plane's memory: sharing, reuse after a grace period, and what an earlier service has left.
#include <gtest/gtest.h>

#include "programmer/linux/lists.h"

namespace {

using namespace programmer::dataplane;

std::vector<dp_step> list(std::initializer_list<__u16> values) {
  std::vector<dp_step> steps;
  for (const __u16 value : values) {
    steps.emplace_back();
    steps.back().kind = DP_STEP_QUEUE;
    steps.back().value = value;
  }
  return steps;
}

class Lists : public testing::Test {
 protected:
  std::vector<__u16> read(std::uint32_t first) const {
    std::vector<__u16> values;
    for (std::uint32_t at = first; at != 0; at = memory[at - 1].next) values.push_back(memory[at - 1].value);
    return values;
  }
  std::vector<dp_step> memory = std::vector<dp_step>(DP_MAX_STEPS);
};

TEST_F(Lists, AreSharedAndReusedOnlyAfterAGracePeriod) {
  ActionLists lists(memory.data(), {});
  const std::uint32_t one = lists.use(list({1, 2, 3})), other = lists.use(list({1, 2}));
  EXPECT_EQ(lists.use(list({1, 2, 3})), one);
  EXPECT_EQ(read(one), (std::vector<__u16>{1, 2, 3}));
  EXPECT_EQ(read(other), (std::vector<__u16>{1, 2}));
  std::vector<std::uint32_t> all;
  for (__u16 n = 0; n < DP_MAX_STEPS / DP_LIST_STEPS - 1; ++n) {
    std::vector<dp_step> long_one = list({n});
    long_one.resize(DP_LIST_STEPS);
    all.push_back(lists.use(long_one));
  }
  const std::vector<dp_step> longest(DP_LIST_STEPS);
  EXPECT_EQ(lists.use(longest), 0U) << "no room";
  lists.release(all.back());
  EXPECT_EQ(lists.use(longest), 0U) << "a reader may still be there";
  EXPECT_TRUE(lists.begin_grace());
  EXPECT_EQ(lists.use(longest), 0U);
  lists.end_grace();
  EXPECT_NE(lists.use(longest), 0U);
  EXPECT_EQ(lists.use(std::vector<dp_step>(DP_LIST_STEPS + 1)), 0U) << "too long";
  EXPECT_EQ(read(one), (std::vector<__u16>{1, 2, 3}));
}

TEST_F(Lists, OfAnEarlierServiceStayUntilTheyAreDropped) {
  ActionLists before(memory.data(), {});
  const std::uint32_t kept = before.use(list({1, 2, 3})), unused = before.use(list({4}));
  memory[DP_MAX_STEPS - 1].next = DP_MAX_STEPS;  // damaged: leads round
  ActionLists lists(memory.data(), {kept, unused, kept, DP_MAX_STEPS, DP_MAX_STEPS + 5});
  EXPECT_EQ(lists.size(), 2U);
  const std::uint32_t fresh = lists.use(list({5}));
  EXPECT_EQ(lists.use(list({1, 2, 3})), kept);
  EXPECT_EQ(read(kept), (std::vector<__u16>{1, 2, 3}));
  EXPECT_EQ(read(fresh), (std::vector<__u16>{5}));
  lists.drop_inherited();
  EXPECT_EQ(lists.size(), 2U);
  lists.release(kept);
  EXPECT_EQ(lists.size(), 1U);
}

}  // namespace
