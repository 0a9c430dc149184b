// The runtime: timers on the host's clock, making it again in one process.
#include <gtest/gtest.h>

#include "host/runtime/loop.h"
#include "host/runtime/services.h"
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
