// The object database's contract, the same for every store: expiry and overwrite tags.
#include <algorithm>
#include <functional>

#include "component/mom_conformance.h"

namespace mom_test {
namespace {

class MomExpiry : public MomConformance {};

INSTANTIATE_TEST_SUITE_P(Stores, MomExpiry, every_store(), store_name);

TEST_P(MomExpiry, ObjectsExpireAloneUnlessRewritten) {
  world->watch<0>(kFlow);
  Flow one(1), two(2), three(3), four(4), missing(9);
  for (Flow *flow : {&one, &two, &three, &four}) ASSERT_EQ(world->set(*flow), 0);
  for (Flow *flow : {&one, &two, &three, &missing}) ASSERT_EQ(world->pexpire(*flow, 500), 0);
  ASSERT_EQ(world->set(two), 0);
  ASSERT_EQ(world->del_expire(three), 0);
  ASSERT_EQ(world->del_expire(four), 0);
  world->settle();
  EXPECT_EQ(world->get(one).cmd, 1u);
  recorders[0].seen.clear();
  world->backend().pass(550ms);
  ASSERT_TRUE(run_until([] { return !recorders[0].seen.empty(); }));
  EXPECT_EQ(world->get(one).cmd, 0u);
  EXPECT_EQ(world->del(one), -7);
  EXPECT_EQ(trace(world->scan(one)), "1:2 1:3 1:4");
  world->settle();
  EXPECT_EQ(trace(recorders[0].seen), "3:1");
  EXPECT_EQ(recorders[0].seen[0].type, "s_policy_kelim.flow");

  // A later expiry takes the place of an earlier one.
  ASSERT_EQ(world->pexpire(two, 3'600'000), 0);
  ASSERT_EQ(world->pexpire(two, 50), 0);
  ASSERT_EQ(world->pexpire(three, 50), 0);
  ASSERT_EQ(world->pexpire(three, 3'600'000), 0);
  world->settle();
  world->backend().pass(60ms);
  ASSERT_TRUE(run_until([] { return recorders[0].seen.size() == 2; }));
  EXPECT_EQ(trace(world->scan(one)), "1:3 1:4");
}

TEST_P(MomExpiry, WhatExpiresAtOnceIsAnnouncedToo) {
  constexpr uint64_t kCount = 5000;
  world->watch<0>(kFlow);
  for (uint64_t i = 1; i <= kCount; ++i) {
    Flow flow(i);
    ASSERT_EQ(world->set(flow), 0);
  }
  world->settle();
  recorders[0].seen.clear();
  Flow all(0), one(1);
  ASSERT_EQ(world->pexpire(one, 0), 0);
  world->backend().pass(1ms);
  ASSERT_TRUE(run_until([] { return !recorders[0].seen.empty(); }));
  EXPECT_EQ(trace(recorders[0].seen), "3:1");
  ASSERT_EQ(world->pexpire(all, 0), 0);
  world->backend().pass(1ms);
  EXPECT_TRUE(run_until([] { return recorders[0].seen.size() == kCount; })) << recorders[0].seen.size();
  EXPECT_TRUE(world->scan(all).empty());
}

TEST_P(MomExpiry, TypesExpireAsAWholeUnlessRewritten) {
  world->watch<0>(kFlow);
  world->watch<1>(kMeter);
  Flow all(0), one(1), two(2), three(3), late(4);
  FlowSta other(1);
  Meter meters(0), meter(1);
  for (Flow *flow : {&one, &two, &three}) ASSERT_EQ(world->set(*flow), 0);
  ASSERT_EQ(world->set(other), 0);
  ASSERT_EQ(world->set(meter), 0);
  ASSERT_EQ(world->pexpire(all, 500), 0);
  ASSERT_EQ(world->pexpire(meters, 500), 0);
  ASSERT_EQ(world->setow(two, 1), 0);  // replayed
  ASSERT_EQ(world->set(late), 0);      // new
  ASSERT_EQ(world->del_expire(meters), 0);
  world->settle();
  recorders[0].seen.clear();
  recorders[1].seen.clear();
  world->backend().pass(550ms);
  ASSERT_TRUE(run_until([] { return recorders[0].seen.size() == 2; }));
  world->settle();
  std::sort(recorders[0].seen.begin(), recorders[0].seen.end(), [](const Seen &a, const Seen &b) { return a.key < b.key; });
  EXPECT_EQ(trace(recorders[0].seen), "3:1 3:3");  // expiries have no order among themselves
  EXPECT_EQ(trace(world->scan(all)), "1:2 1:4");
  EXPECT_EQ(trace(world->scan(other)), "1:1");
  EXPECT_EQ(trace(world->scan(meters)), "6:1");
  EXPECT_TRUE(recorders[1].seen.empty());
}

TEST_P(MomExpiry, SingleAndWholeExpiryCombine) {
  world->watch<0>(kFlow);
  Flow all(0), one(1), two(2), three(3);
  for (Flow *flow : {&one, &two, &three}) ASSERT_EQ(world->set(*flow), 0);
  ASSERT_EQ(world->pexpire(one, 3'600'000), 0);
  ASSERT_EQ(world->pexpire(all, 500), 0);        // takes over
  ASSERT_EQ(world->pexpire(two, 3'600'000), 0);  // leaves the whole's
  ASSERT_EQ(world->del_expire(three), 0);
  world->settle();
  recorders[0].seen.clear();
  world->backend().pass(550ms);
  ASSERT_TRUE(run_until([] { return !recorders[0].seen.empty(); }));
  world->settle();
  EXPECT_EQ(trace(recorders[0].seen), "3:1");
  EXPECT_EQ(trace(world->scan(all)), "1:2 1:3");
  ASSERT_EQ(world->pexpire(three, 50), 0);
  ASSERT_EQ(world->pexpire(all, 3'600'000), 0);  // takes over from the shorter one
  world->settle();
  world->backend().pass(60ms);
  EXPECT_FALSE(host::run_until([] { return recorders[0].seen.size() > 1; }, 100ms));
  ASSERT_EQ(world->pexpire(three, 50), 0);
  ASSERT_EQ(world->del_expire(all), 0);  // takes back both kinds
  ASSERT_EQ(world->pexpire(all, 40), 0);
  ASSERT_EQ(world->set(two), 0);
  world->settle();
  world->backend().pass(100ms);
  ASSERT_TRUE(run_until([] { return recorders[0].seen.size() == 3; }));  // 3:1, 1:2, 3:3
  EXPECT_EQ(trace(world->scan(all)), "1:2");
}

TEST_P(MomExpiry, TagsChooseAmongWhatIsUnderExpiry) {
  world->watch<0>(kFlow);
  Flow all(0), tag1(1), tag2(2), none(3), again1(4), retagged(5);
  ASSERT_EQ(world->setow(tag1, 1), 0);
  ASSERT_EQ(world->setow(tag2, 2), 0);
  ASSERT_EQ(world->set(none), 0);
  ASSERT_EQ(world->setow(again1, 1), 0);
  ASSERT_EQ(world->setow(retagged, 1), 0);
  ASSERT_EQ(world->setow(retagged, -9'000'000'000), 0);
  ASSERT_EQ(world->del_expire_ow(all, 1), 0);  // nothing is under expiry yet
  world->settle();
  EXPECT_EQ(world->scan(all).size(), 5u);
  ASSERT_EQ(world->pexpire(all, 3'600'000), 0);
  ASSERT_EQ(world->setow(again1, 1), 0);  // rewritten in time
  world->settle();
  recorders[0].seen.clear();
  ASSERT_EQ(world->del_expire_ow(all, 1), 0);
  EXPECT_EQ(world->get(tag1).cmd, 0u);  // now, not later
  world->settle();
  EXPECT_EQ(trace(recorders[0].seen), "3:1");
  EXPECT_EQ(trace(world->scan(all)), "1:2 1:3 1:4 1:5");
  ASSERT_EQ(world->del_expire_ow(all, -9'000'000'000), 0);
  EXPECT_EQ(trace(world->scan(all)), "1:2 1:3 1:4");
  ASSERT_EQ(world->set(tag2), 0);  // a plain write leaves no tag
  ASSERT_EQ(world->pexpire(tag2, 3'600'000), 0);
  ASSERT_EQ(world->del_expire_ow(all, 2), 0);
  EXPECT_EQ(trace(world->scan(all)), "1:2 1:3 1:4");
  ASSERT_EQ(world->del_expire_ow(all, 0), 0);
  EXPECT_EQ(trace(world->scan(all)), "1:4");
}

// Requests for a whole type take their place among the writes, however many objects it has.
TEST_P(MomExpiry, WholeTypeRequestsKeepTheirPlaceAmongTheWrites) {
  constexpr uint64_t kCount = 5000;
  static unsigned confirmed;
  confirmed = 0;
  const auto confirm = [] {
    ++confirmed;
    return 0;
  };
  const auto write_each = [&](uint64_t step) {
    for (uint64_t i = step; i <= kCount; i += step) {
      Flow flow(i);
      ASSERT_EQ(world->setow(flow, 1), 0);
    }
  };
  const auto count_if = [&](const std::function<bool(uint64_t)> &wanted) {
    size_t count = 0;
    for (uint64_t i = 1; i <= kCount; ++i) count += wanted(i);
    return count;
  };
  Flow all(0);
  world->watch<0>(kFlow, 8, QX_MOM_PACKED);
  const auto deletions = [] {
    return std::count_if(recorders[0].seen.begin(), recorders[0].seen.end(), [](const Seen &seen) { return seen.cmd == 3; });
  };

  // Rewritten before the deletion by tag, or after it.
  write_each(1);
  ASSERT_EQ(qx_mom_pexpire(world->global(), 8, all, 0, 3'600'000, 0, confirm, nullptr), 0);
  write_each(10);
  ASSERT_EQ(world->del_expire_ow(all, 1), 0);
  write_each(7);
  const auto left = world->scan(all);
  EXPECT_EQ(confirmed, 0u);
  EXPECT_EQ(left.size(), count_if([](uint64_t i) { return i % 10 == 0 || i % 7 == 0; }));
  for (const Seen &seen : left) EXPECT_TRUE(seen.key % 10 == 0 || seen.key % 7 == 0) << seen.key;
  world->settle();
  EXPECT_EQ(confirmed, 1u);
  EXPECT_EQ(static_cast<size_t>(deletions()), count_if([](uint64_t i) { return i % 10 != 0; }));

  // Expired or taken out of expiry, and rewritten behind that.
  write_each(1);
  ASSERT_EQ(world->pexpire(all, 3'600'000), 0);
  ASSERT_EQ(world->del_expire(all), 0);
  ASSERT_EQ(world->del_expire_ow(all, 1), 0);  // finds nothing
  EXPECT_EQ(world->scan(all).size(), kCount);
  world->settle();
  recorders[0].seen.clear();
  ASSERT_EQ(world->pexpire(all, 300), 0);
  write_each(3);
  world->settle();
  world->backend().pass(400ms);
  const size_t kept = count_if([](uint64_t i) { return i % 3 == 0; });
  ASSERT_TRUE(run_until([&] { return static_cast<size_t>(deletions()) == kCount - kept; })) << deletions();
  EXPECT_EQ(world->scan(all).size(), kept);
}

TEST_P(MomExpiry, ExpiryRequestIsConfirmedOnceAndLater) {
  static unsigned confirmed;
  confirmed = 0;
  Flow all(0);
  const auto confirm = [] {
    ++confirmed;
    return 0;
  };
  ASSERT_EQ(qx_mom_pexpire(world->global(), 8, all, 0, 500, 0, confirm, nullptr), 0);
  EXPECT_EQ(confirmed, 0u);
  ASSERT_TRUE(run_until([] { return confirmed > 0; }));
  world->settle();
  EXPECT_EQ(confirmed, 1u);
}

}  // namespace
}  // namespace mom_test
