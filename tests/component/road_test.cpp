// The road of a flow from the callback to the store and back, with barriers behind it.
#include <gtest/gtest.h>

#include "component/harness.h"
#include "s_policy_kelim.pb-c.h"

namespace {

using namespace harness;

constexpr std::int32_t kUdp = 8;

SPolicyKelim__FlowKey key_of(std::uint64_t index) {
  SPolicyKelim__FlowKey key = S_POLICY_KELIM__FLOW_KEY__INIT;
  key.flow_index = index;
  return key;
}

// Answers a flow as the programming service does.
void answer(const Daemon &daemon, std::uint64_t index, SPolicyKelim__StatusE status) {
  SPolicyKelim__FlowKey key = key_of(index);
  SPolicyKelim__FlowSta sta = S_POLICY_KELIM__FLOW_STA__INIT;
  sta.index = &key;
  sta.status = status;
  ASSERT_EQ(daemon.write(kUdp, &sta.base), 0);
}

void send(int (*callback)(void *), Bytes msg) {
  ASSERT_EQ(callback(msg.data()), 0);
}

TEST(Road, BarrierWaitsForEveryFlowBeforeItAndBarriersLeaveInOrder) {
  Daemon daemon;
  send(daemon.pi().flow_mod, simple_flow(1));
  send(daemon.pi().flow_mod, simple_flow(2));
  send(daemon.pi().barrier, barrier(0x100));
  send(daemon.pi().flow_mod, simple_flow(3));
  send(daemon.pi().barrier, barrier(0x200));
  daemon.tick();
  EXPECT_EQ(daemon.count(kUdp, &s_policy_kelim__flow__descriptor), 3u);

  answer(daemon, 2, S_POLICY_KELIM__STATUS_E__STATUS_INSTALLED);
  answer(daemon, 3, S_POLICY_KELIM__STATUS_E__STATUS_INSTALLED);
  EXPECT_TRUE(daemon.replies(southbound::kBarrierReply).empty());

  answer(daemon, 1, S_POLICY_KELIM__STATUS_E__STATUS_INSTALLED);
  const auto barriers = daemon.replies(southbound::kBarrierReply);
  ASSERT_EQ(barriers.size(), 2u);
  EXPECT_EQ(southbound::get<std::uint32_t>(barriers[0].data(), 16), 0x100u);
  EXPECT_EQ(southbound::get<std::uint32_t>(barriers[1].data(), 16), 0x200u);
  EXPECT_TRUE(daemon.replies(southbound::kFlowResult).empty());
  EXPECT_EQ(daemon.finish(), 0);
}

}  // namespace
