// The runtime: timers on the host's clock, work from other threads, signals, making it again in one process.
#include <gtest/gtest.h>
#include <signal.h>

#include <thread>

#include "host/fault/fault.h"
#include "host/runtime/clock.h"
#include "host/runtime/loop.h"
#include "host/runtime/services.h"
#include "host/runtime/timer.h"
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
  qx_thread late{}, early{}, same{};
  ASSERT_EQ(qx_thread_insert_timer_timeval(global->master, &late, note, &fired, 3600, 0, "late"), 0);
  ASSERT_EQ(qx_thread_insert_timer_timeval(global->master, &early, note, &fired, 0, 50'000, "early"), 0);
  ASSERT_EQ(qx_thread_insert_timer_timeval(global->master, &same, note, &fired, 0, 50'000, "same"), 0);
  EXPECT_EQ(qx_thread_insert_timer_timeval(global->master, &early, note, &fired, 0, 1, "early"), -1) << "armed already";

  host::clock::warp(49ms);
  EXPECT_FALSE(host::run_until([&] { return !fired.names.empty(); }, 20ms)) << "a millisecond early";
  host::clock::warp(1ms);
  EXPECT_TRUE(host::run_until([&] { return fired.names.size() == 2; }, 2s));
  host::clock::warp(2h);
  EXPECT_TRUE(host::run_until([&] { return fired.names.size() == 3; }, 2s));
  EXPECT_EQ(fired.names, (std::vector<std::string>{"early", "same", "late"}));
}

TEST_F(Runtime, ATimerThatRearmsItselfWithoutDelayLetsTheLoopTurn) {
  host::clock::stop();
  Fired fired;
  fired.rearm = true;
  qx_thread t{};
  ASSERT_EQ(qx_thread_insert_timer_timeval(global->master, &t, note, &fired, 0, 0, "again"), 0);
  EXPECT_TRUE(host::run_until([&] { return fired.before_post > 0 && fired.names.size() > 1; }, 2s));
  EXPECT_LE(fired.before_post, 2u);
}

TEST_F(Runtime, InsertFailsAsDocumented) {
  Fired fired;
  qx_thread t{};
  EXPECT_EQ(qx_thread_insert_timer_timeval(nullptr, &t, note, &fired, 0, 0, "x"), -1);
  EXPECT_EQ(qx_thread_insert_timer_timeval(global->master, nullptr, note, &fired, 0, 0, "x"), -1);
  host::fault::fail(host::fault::Point::timer_insert, -1, 1);
  EXPECT_EQ(qx_thread_insert_timer_timeval(global->master, &t, note, &fired, 0, 0, "first"), 0);
  qx_thread second{};
  EXPECT_EQ(qx_thread_insert_timer_timeval(global->master, &second, note, &fired, 0, 0, "second"), -1);

  qx_thread_master_finish(global->master);
  EXPECT_EQ(qx_thread_insert_timer_timeval(global->master, &second, note, &fired, 0, 0, "second"), -1);
  bool turned = false;
  host::post([&] { turned = true; });
  EXPECT_TRUE(host::run_until([&] { return turned; }, 2s)) << "the loop itself goes on";
  EXPECT_FALSE(host::run_until([&] { return !fired.names.empty(); }, 10ms)) << "armed timers are dropped";
}

TEST_F(Runtime, AHostTimerMovesCancelsAndMayDestroyItself) {
  host::clock::stop();
  int count = 0;
  auto timer = std::make_unique<host::Timer>([&] { ++count; });
  timer->arm(1s);
  timer->arm(3s);
  host::clock::warp(2s);
  EXPECT_FALSE(host::run_until([&] { return count > 0; }, 10ms));
  timer->cancel();
  EXPECT_FALSE(timer->armed());
  host::clock::warp(2s);
  EXPECT_FALSE(host::run_until([&] { return count > 0; }, 10ms));

  const std::string big(100, 'x');
  std::string seen;
  timer = std::make_unique<host::Timer>([&, big] {
    timer.reset();
    seen = big;
  });
  timer->arm(1s);
  host::clock::warp(1s);
  EXPECT_TRUE(host::run_until([&] { return seen == big; }, 2s));
}

TEST_F(Runtime, WorkOfManyThreadsArrivesOnceAndInEachOnesOrder) {
  constexpr int kThreads = 4, kEach = 2000;
  std::vector<int> next(kThreads, 0);
  int out_of_order = 0;
  std::vector<std::jthread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kEach; ++i) host::post([&, t, i] { out_of_order += next[t]++ != i; });
    });
  }
  EXPECT_TRUE(host::run_until([&] { return next == std::vector<int>(kThreads, kEach); }, 10s));
  EXPECT_EQ(out_of_order, 0);
}

TEST_F(Runtime, SleepersFollowTheClock) {
  host::clock::stop();
  std::atomic<bool> woken{false};
  std::jthread sleeper([&, until = host::clock::now() + 60s] {
    host::clock::sleep_until(until);
    woken = true;
  });
  host::clock::warp(59s);
  EXPECT_FALSE(host::run_until([&] { return woken.load(); }, 20ms));
  host::clock::warp(1s);
  EXPECT_TRUE(host::run_until([&] { return woken.load(); }, 2s));
}

TEST_F(Runtime, SignalsAndStopEndTheRunCleanly) {
  for (const int signal : {SIGTERM, SIGINT}) {
    host::post([signal] { raise(signal); });
    EXPECT_EQ(qx_global_run(global), 0);
  }
  host::stop_loop();
  EXPECT_EQ(qx_global_run(global), 0) << "a stop before the run ends it at once";
  raise(SIGPIPE);
}

TEST_F(Runtime, ItIsReleasedWholeAndCanBeMadeAgain) {
  std::string order;
  host::at_finish([&] { order += "first "; });
  host::at_finish([&] { order += "second "; });
  host::post([&] { order += "never "; });
  EXPECT_EQ(qx_global_init("second", nullptr), nullptr) << "one at a time";
  EXPECT_EQ(host::runtime_name(), "core_test");
  qx_global_finish(global);
  EXPECT_EQ(order, "second first ");
  EXPECT_EQ(host::loop_base(), nullptr);
  host::post([&] { order += "never "; });

  global = qx_global_init("again", nullptr);
  ASSERT_NE(global, nullptr);
  bool turned = false;
  host::post([&] { turned = true; });
  EXPECT_TRUE(host::run_until([&] { return turned; }, 2s));
  EXPECT_EQ(order, "second first ");
}

TEST_F(Runtime, TimeTextHasMillisecondsAndIsCut) {
  char text[30];
  ASSERT_EQ(qx_time_2_string(text, sizeof text), text);
  int y, mo, d, h, mi, s, ms;
  EXPECT_EQ(sscanf(text, "%4d-%2d-%2d %2d:%2d:%2d.%3d", &y, &mo, &d, &h, &mi, &s, &ms), 7) << text;
  EXPECT_EQ(strlen(text), 23u);
  char cut[5] = "xxxx";
  qx_time_2_string(cut, sizeof cut);
  EXPECT_EQ(strlen(cut), 4u);
  EXPECT_EQ(qx_timeval_to_us({.tv_sec = 3, .tv_nsec = 2'000'999}), 3'002'000u);
}

}  // namespace
