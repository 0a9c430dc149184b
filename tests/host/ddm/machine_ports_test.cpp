// The machine's interfaces as ports.
#include <sched.h>

#include "host/base/loop.h"
#include "host/ddm/ports.h"
#include "libddm.h"
#include "support/runtime_fixture.h"

namespace {

using MachinePorts = RuntimeTest;

TEST_F(MachinePorts, AreReadAgainWhenTheMachinesInterfacesChange) {
  if (unshare(CLONE_NEWNET) != 0) GTEST_SKIP() << "needs a network name space of its own: " << strerror(errno);
  EXPECT_TRUE(host::ddm::ports()->empty()) << "the loopback is none";
  set("ports", "9:lo:109");
  ASSERT_EQ(libddm_init(global, "core_test"), 0);
  const auto before = host::ddm::ports();
  EXPECT_EQ(std::tuple((*before)[0].ifx, (*before)[0].phyid, (*before)[0].enabled), std::tuple(9u, 109u, false));
  set("ports", "8:lo:108");
  EXPECT_EQ(host::ddm::ports(), before) << "not while nothing changes";
  unsigned changes = 0;
  host::ddm::on_change([&changes] { ++changes; });
  EXPECT_EQ(host::ddm::enable((*before)[0], true), 0);
  EXPECT_TRUE(host::run_until([&] { return changes > 0; }, kPatience));
  host::ddm::on_change(nullptr);
  const auto after = host::ddm::ports();
  EXPECT_EQ(std::tuple((*after)[0].ifx, (*after)[0].phyid, (*after)[0].enabled), std::tuple(8u, 108u, true));
}

}  // namespace
