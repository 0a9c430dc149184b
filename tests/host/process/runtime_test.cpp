// The runtime: timers on the host's clock, making it again in one process.
#include <gtest/gtest.h>

#include "host/base/loop.h"
#include "host/base/owner_timer.h"
#include "host/base/services.h"
#include "support/runtime_fixture.h"

namespace {

using namespace std::chrono_literals;

using Runtime = RuntimeTest;

struct Fired {
  std::vector<std::string> names;
  bool rearm = false;
  std::size_t before_post = 0;  // how often it fired before what its first time posted
};

int note(qx_thread *t) {
  auto *fired = static_cast<Fired *>(t->arg);
  fired->names.emplace_back(t->name);
  if (fired->names.size() == 1) host::post([fired] { fired->before_post = fired->names.size(); });
  if (fired->rearm && fired->names.size() < 10'000) qx_thread_insert_timer_timeval(t->master, t, note, fired, 0, 0, t->name);
  return 0;
}

TEST_F(Runtime, TimersRunInDeadlineOrderOnTheHostClock) {
  host::clock::stop();
  Fired fired;
  qx_thread late{}, early{}, same{}, never{};
  ASSERT_EQ(qx_thread_insert_timer_timeval(global->master, &late, note, &fired, 3600, 0, "late"), 0);
  ASSERT_EQ(qx_thread_insert_timer_timeval(global->master, &early, note, &fired, 0, 50'000, "early"), 0);
  ASSERT_EQ(qx_thread_insert_timer_timeval(global->master, &same, note, &fired, 0, 50'000, "same"), 0);
  EXPECT_EQ(qx_thread_insert_timer_timeval(global->master, &early, note, &fired, 0, 1, "early"), -1) << "armed already";

  host::clock::warp(49ms);
  EXPECT_FALSE(host::run_until([&] { return !fired.names.empty(); }, 20ms)) << "a millisecond early";
  host::clock::warp(1ms);
  EXPECT_TRUE(host::run_until([&] { return fired.names.size() == 2; }, kPatience));
  host::clock::warp(2h);
  EXPECT_TRUE(host::run_until([&] { return fired.names.size() == 3; }, kPatience));
  EXPECT_EQ(fired.names, (std::vector<std::string>{"early", "same", "late"}));

  ASSERT_EQ(qx_thread_insert_timer_timeval(global->master, &never, note, &fired, 0, 0, "never"), 0);
  qx_thread_master_finish(global->master);
  EXPECT_EQ(qx_thread_insert_timer_timeval(global->master, &late, note, &fired, 0, 0, "late"), -1);
  EXPECT_FALSE(host::run_until([&] { return fired.names.size() > 3; }, 10ms)) << "armed timers are dropped";
}

TEST_F(Runtime, ATimerThatRearmsItselfWithoutDelayLetsTheLoopTurn) {
  host::clock::stop();
  Fired fired;
  fired.rearm = true;
  qx_thread t{};
  ASSERT_EQ(qx_thread_insert_timer_timeval(global->master, &t, note, &fired, 0, 0, "again"), 0);
  EXPECT_TRUE(host::run_until([&] { return fired.before_post > 0 && fired.names.size() > 1; }, kPatience));
  EXPECT_LE(fired.before_post, 2u);
}

// The owner's timer is the one under the runtime's own name, "core_test".
TEST_F(Runtime, WhatIsHandedToTheOwnerMakesItsTimerRunAtOnceAndNoOther) {
  Fired fired;
  qx_thread owner{}, other{};
  const auto arm = [&](qx_thread &t, const char *name) {
    ASSERT_EQ(qx_thread_insert_timer_timeval(global->master, &t, note, &fired, 3600, 0, name), 0);
  };
  int told = 0;
  host::after_owner_timer([&] { ++told; });
  host::handed_to_owner(true);
  EXPECT_TRUE(host::run_until([&] { return told == 1; }, kPatience)) << "without a timer, in its place";

  arm(other, "other");
  arm(owner, "core_test");
  host::handed_to_owner(false);
  EXPECT_FALSE(host::run_until([&] { return told > 1; }, 20ms)) << "not prompt: at its own time";
  host::clock::warp(2h);
  EXPECT_TRUE(host::run_until([&] { return fired.names.size() == 2 && told == 2; }, kPatience));
  fired.names.clear();

  arm(other, "other");
  for (int again = 3; again < 6; ++again) {
    arm(owner, "core_test");
    host::handed_to_owner(true);
    host::handed_to_owner(true);
    EXPECT_TRUE(host::run_until([&] { return told == again; }, kPatience)) << "whatever is handed over after a run has its own";
  }
  EXPECT_EQ(fired.names, (std::vector<std::string>{"core_test", "core_test", "core_test"}));

  arm(owner, "core_test");
  host::clock::stop();
  host::handed_to_owner(true);
  EXPECT_FALSE(host::run_until([&] { return told == 6; }, 20ms)) << "a clock that stands is not hastened";
  host::clock::warp(2h);
  EXPECT_TRUE(host::run_until([&] { return told == 6; }, kPatience));
}

TEST_F(Runtime, ItIsReleasedWholeAndCanBeMadeAgain) {
  std::string order;
  host::at_finish([&] { order += "first "; });
  host::at_finish([&] { order += "second "; });
  host::post([&] { order += "never "; });
  EXPECT_EQ(qx_global_init("second", nullptr), nullptr) << "one at a time";
  qx_global_finish(global);
  EXPECT_EQ(order, "second first ");
  host::post([&] { order += "never "; });

  global = qx_global_init("again", nullptr);
  ASSERT_NE(global, nullptr);
  host::post([&] { order += "again"; });
  EXPECT_TRUE(host::run_until([&] { return order == "second first again"; }, kPatience)) << order;
  host::stop_loop();
  EXPECT_EQ(qx_global_run(global), 0) << "a stop before the run ends it at once";
}

}  // namespace
