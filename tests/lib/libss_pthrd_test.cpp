// The handler list: order, final nodes, death of a master, blocking drain, two threads.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "libss_pthrd.h"

namespace {

using Values = std::vector<std::uint32_t>;

Values g_ran;  // values of the nodes that ran, in order
libss_pthrd_mst *g_mst = nullptr;

void note(libss_pthrd_hdl *hdl) {
  g_ran.push_back(hdl->value);
}

class HandlerList : public testing::Test {
 protected:
  void SetUp() override {
    g_ran.clear();
    g_mst = libss_pthrd_create_mst_withname(std::string(300, 'n').c_str());
    ASSERT_EQ(g_mst->name, std::string(255, 'n')) << "the name is cut to its room";
  }
  void TearDown() override {
    libss_pthrd_destroy_mst(g_mst);
    libss_pthrd_drain(g_mst, 0);
  }

  static void add(libss_pthrd_handler handler, std::uint32_t value, std::uint32_t flag = LIBSS_PTHRD_PLAIN) {
    ASSERT_NE(libss_pthrd_add_hdl(g_mst, handler, nullptr, value, flag), nullptr);
  }
};

TEST_F(HandlerList, RunsInOrderWithWhatHandlersAppendAndSkipsNullHandlers) {
  const auto append = [](libss_pthrd_hdl *hdl) {
    note(hdl);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(hdl->next), 0x100100u);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(hdl->prev), 0x200200u);
    EXPECT_EQ(libss_pthrd_get_hdl_num(g_mst), 1u) << "the mutex is free, and one node still waits";
    add(note, 4);
  };
  add(note, 1);
  add(nullptr, 0);
  add(append, 2);
  add(note, 3);
  libss_pthrd_tranv_node(g_mst, note);
  EXPECT_EQ(std::exchange(g_ran, {}), (Values{1, 0, 2, 3})) << "a visit sees every node and takes none";
  EXPECT_EQ(libss_pthrd_get_hdl_num(g_mst), 4u);
  EXPECT_EQ(libss_pthrd_drain(g_mst, 0), LIBSS_PTHRD_EMPTY);
  EXPECT_EQ(g_ran, (Values{1, 2, 3, 4}));
}

TEST_F(HandlerList, AFinalNodeEndsTheDrainUnlessItsHandlerTakesTheMarkAway) {
  const auto unmark = [](libss_pthrd_hdl *hdl) {
    note(hdl);
    EXPECT_EQ(hdl->arg, 77u);
    hdl->flag = LIBSS_PTHRD_PLAIN;
  };
  add(note, 1, LIBSS_PTHRD_FINAL);
  add(unmark, 2, LIBSS_PTHRD_FINAL);
  add(nullptr, 0, LIBSS_PTHRD_FINAL);
  add(note, 3);
  EXPECT_EQ(libss_pthrd_drain(g_mst, 77), LIBSS_PTHRD_FINAL_RAN);
  EXPECT_EQ(g_ran, Values{1});
  EXPECT_EQ(libss_pthrd_drain(g_mst, 77), LIBSS_PTHRD_FINAL_RAN) << "past the second, to the one without a handler";
  EXPECT_EQ(g_ran, (Values{1, 2}));
  EXPECT_EQ(libss_pthrd_drain(g_mst, 77), LIBSS_PTHRD_EMPTY);
  EXPECT_EQ(g_ran, (Values{1, 2, 3}));
}

TEST_F(HandlerList, ClearFreesTheDataAndKeepsTheCount) {
  for (std::uint32_t i = 0; i < 3; ++i) ASSERT_NE(libss_pthrd_add_hdl(g_mst, note, std::malloc(8), i, 0), nullptr);
  libss_pthrd_clear_hdl(g_mst);
  EXPECT_EQ(libss_pthrd_get_hdl_num(g_mst), 3u);
  add(note, 9);
  EXPECT_EQ(libss_pthrd_drain(g_mst, 0), LIBSS_PTHRD_EMPTY);
  EXPECT_EQ(g_ran, Values{9});
  EXPECT_EQ(libss_pthrd_get_hdl_num(g_mst), 3u);
}

TEST_F(HandlerList, AMasterThatDiesDuringADrainRunsWhatIsLeftFirst) {
  add([](libss_pthrd_hdl *) { libss_pthrd_destroy_mst(g_mst); }, 1);
  add(note, 2);
  EXPECT_EQ(libss_pthrd_drain(g_mst, 0), LIBSS_PTHRD_FREED);
  EXPECT_EQ(g_ran, Values{2});
  g_mst = nullptr;
}

TEST_F(HandlerList, ADeadMasterTakesNothingAndIsFreedByTheNextDrain) {
  ASSERT_NE(libss_pthrd_add_hdl(g_mst, note, std::malloc(8), 1, 0), nullptr);
  libss_pthrd_destroy_mst(g_mst);
  EXPECT_EQ(libss_pthrd_add_hdl(g_mst, note, nullptr, 2, 0), nullptr);
  EXPECT_EQ(libss_pthrd_get_hdl_num(g_mst), 0u);
  EXPECT_EQ(libss_pthrd_block_ot(g_mst, 0, 0), LIBSS_PTHRD_NO_MASTER);
  EXPECT_EQ(libss_pthrd_drain(g_mst, 0), LIBSS_PTHRD_FREED);
  EXPECT_EQ(g_ran, Values{});
  g_mst = nullptr;
  EXPECT_EQ(libss_pthrd_drain(g_mst, 0), LIBSS_PTHRD_NO_MASTER);
  EXPECT_EQ(libss_pthrd_block_ot(g_mst, 0, 0), LIBSS_PTHRD_NO_MASTER);
}

TEST_F(HandlerList, TheBlockingDrainWaitsForItsTimeOutOrAFinalNodeWhileOthersAppend) {
  add(note, 1);
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(libss_pthrd_block_ot(g_mst, 5, 40), LIBSS_PTHRD_EMPTY);
  EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(40));
  EXPECT_EQ(std::exchange(g_ran, {}), Values{1});

  constexpr std::uint32_t kEach = 20000;
  std::vector<std::thread> appenders;
  for (std::uint32_t id : {0u, 1u})
    appenders.emplace_back([id] {
      for (std::uint32_t i = 0; i < kEach; ++i) add(note, i * 2 + id, i + 1 == kEach ? LIBSS_PTHRD_FINAL : LIBSS_PTHRD_PLAIN);
    });
  for (std::thread &appender : appenders) {
    EXPECT_EQ(libss_pthrd_block_ot(g_mst, 5, 0), LIBSS_PTHRD_FINAL_RAN);
    appender.join();
  }
  std::uint32_t next[2] = {};
  for (std::uint32_t value : g_ran) EXPECT_EQ(value / 2, next[value % 2]++) << "each thread's nodes in their order";
  EXPECT_EQ(g_ran.size(), 2 * kEach);
}

}  // namespace
