// The log service: what reaches the file, collapsing, levels, load from many threads.
#include <gtest/gtest.h>

#include <fstream>
#include <thread>

#include "host/log/log.h"
#include "qx_zlog.h"
#include "support/runtime_fixture.h"

namespace {

using namespace std::chrono_literals;

class Log : public RuntimeTest {
 protected:
  void configure() override {
    set("log.target", "file");
    set("log.file", dir / "test.log");
  }
  void SetUp() override {
    RuntimeTest::SetUp();
    category = qx_zlog_init("policy_error");
    ASSERT_NE(category, nullptr);
  }

  void zlog(int level, const std::string &text, long line = 7) const {
    // Neither path nor function is terminated.
    qxdf_zlog(category, "app/a.cppXXX", 9, "runYYY", 3, line, level, "%s", text.c_str());
  }
  std::vector<std::string> lines(const std::string &name = "test.log") const {
    std::vector<std::string> all;
    std::ifstream in(dir / name);
    for (std::string line; std::getline(in, line);) all.push_back(line);
    return all;
  }
  std::vector<std::string> flushed() const {
    host::log::flush();
    return lines();
  }

  qx_zlog_category *category = nullptr;
};

TEST_F(Log, ALineCarriesTimeLevelCategoryTextAndPlace) {
  zlog(QX_ZLOG_ERROR, "flow index:5 install failed. status:3\n\n");
  zlog(QX_ZLOG_VERBOSE, "a verbose one");
  const int warned_at = __LINE__ + 1;
  host::log::warn("disk {} is {} % full", "sda", 93);
  const auto all = flushed();
  ASSERT_EQ(all.size(), 3u);
  for (const std::string &line : all) {
    int y, mo, d, h, mi, sec, ms, length = 0;
    ASSERT_EQ(sscanf(line.c_str(), "%4d-%2d-%2d %2d:%2d:%2d.%3d %n", &y, &mo, &d, &h, &mi, &sec, &ms, &length), 7) << line;
    ASSERT_EQ(length, 24) << line;
  }
  EXPECT_EQ(all[0].substr(24), "error   policy_error flow index:5 install failed. status:3  (app/a.cpp:7 run)");
  EXPECT_EQ(all[1].substr(24), "debug   policy_error a verbose one  (app/a.cpp:7 run)");
  EXPECT_EQ(all[2].substr(24, 45), "warning kelim_host   disk sda is 93 % full  (") << all[2];
  EXPECT_NE(all[2].find("core_log.cpp:" + std::to_string(warned_at) + " TestBody)"), std::string::npos) << all[2];
}

TEST_F(Log, LinesThatRepeatWithinASecondAreCounted) {
  host::clock::stop();
  for (int i = 0; i < 1000; ++i) {
    zlog(QX_ZLOG_ERROR, "again");
    if (i % 500 == 0) zlog(QX_ZLOG_ERROR, "between " + std::to_string(i));
  }
  zlog(QX_ZLOG_ERROR, "again", 8);  // another place is another line
  host::clock::warp(1000ms);
  zlog(QX_ZLOG_ERROR, "again");  // the window is over
  const auto all = flushed();
  ASSERT_EQ(all.size(), 6u);
  EXPECT_NE(all[0].find(" again  (app/a.cpp:7"), std::string::npos) << all[0];
  EXPECT_NE(all[1].find("between 0"), std::string::npos) << all[1];
  EXPECT_NE(all[2].find("between 500"), std::string::npos) << all[2];
  EXPECT_NE(all[3].find(" again  (app/a.cpp:8"), std::string::npos) << all[3];
  EXPECT_NE(all[4].find("again (repeated 999 times)"), std::string::npos) << all[4];
  EXPECT_NE(all[5].find(" again  (app/a.cpp:7"), std::string::npos) << all[5];
}

TEST_F(Log, LinesForDebuggingKeepTheirOrder) {
  for (const char *byte : {"00", "00", "ff", "00"}) zlog(QX_ZLOG_VERBOSE, byte);
  const auto all = flushed();
  ASSERT_EQ(all.size(), 4u);
  EXPECT_NE(all[2].find(" ff "), std::string::npos) << all[2];
  EXPECT_NE(all[3].find(" 00 "), std::string::npos) << all[3];
}

TEST_F(Log, ManyDifferentLinesAreAllKeptAndCountsOfOldOnesComeOut) {
  host::clock::stop();
  zlog(QX_ZLOG_ERROR, "first");
  zlog(QX_ZLOG_ERROR, "first");
  for (int i = 0; i < 2000; ++i) zlog(QX_ZLOG_ERROR, "line " + std::to_string(i));
  const auto all = flushed();
  EXPECT_EQ(all.size(), 2002u);
  const auto count =
      std::find_if(all.begin(), all.end(), [](auto &l) { return l.find("first (repeated 1 time)") != std::string::npos; });
  EXPECT_LT(count - all.begin(), 1000) << "only so many lines are watched at a time";
}

TEST_F(Log, TheTapSeesEveryLineOnItsThread) {
  std::vector<std::string> seen;
  host::log::set_tap([&](const host::log::LineView &line) {
    seen.push_back(std::string(line.category) + "|" + std::string(line.file) + "|" + std::string(line.function) + "|" +
                   std::to_string(line.line) + "|" + std::string(line.text));
  });
  zlog(QX_ZLOG_ERROR, "twice\n");
  zlog(QX_ZLOG_ERROR, "twice\n");
  host::log::set_tap(nullptr);
  zlog(QX_ZLOG_ERROR, "unseen");
  EXPECT_EQ(seen, (std::vector<std::string>(2, "policy_error|app/a.cpp|run|7|twice")));
}

TEST_F(Log, ThreadsKeepTheirOrderAndLongTextsAreCut) {
  std::vector<std::jthread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([this, t] {
      for (int i = 0; i < 500; ++i) zlog(QX_ZLOG_ERROR, "t" + std::to_string(t) + " " + std::to_string(i));
    });
  }
  threads.clear();
  zlog(QX_ZLOG_ERROR, std::string(100'000, 'x'));
  const auto all = flushed();
  ASSERT_EQ(all.size(), 2001u);
  EXPECT_LT(all.back().size(), 3000u);
  int next[4] = {};
  for (std::size_t i = 0; i < 2000; ++i) {
    int t = -1, n = -1;
    ASSERT_EQ(sscanf(all[i].c_str() + all[i].find(" t"), " t%d %d", &t, &n), 2) << all[i];
    EXPECT_EQ(next[t]++, n);
  }
}

TEST_F(Log, NullsAreIgnoredAndCategoriesFoundAgain) {
  qxdf_zlog(nullptr, "f", 1, "g", 1, 1, QX_ZLOG_ERROR, "nobody");
  qxdf_zlog(category, nullptr, 5, nullptr, 5, 1, QX_ZLOG_ERROR, "no place");
  EXPECT_EQ(qx_zlog_init("policy_error"), category);
  EXPECT_EQ(qx_zlog_init(nullptr), nullptr);
  host::fault::fail(host::fault::Point::zlog_init, -1);
  EXPECT_EQ(qx_zlog_init("other"), nullptr);
  ASSERT_EQ(flushed().size(), 1u);

  char small[4];
  EXPECT_EQ(at_snprintf(small, sizeof small, "%s", "abcdef"), 3);
  EXPECT_STREQ(small, "abc");
  EXPECT_EQ(at_snprintf(small, sizeof small, "%d", 7), 1);
  EXPECT_EQ(at_snprintf(nullptr, 0, "%d", 7), 0);
}

class QuietLog : public Log {
 protected:
  void configure() override {
    Log::configure();
    set("log.level", "error");
    set("log.max_bytes", "4096");
    set("log.files", "2");
  }
};

TEST_F(QuietLog, LevelsBelowTheThresholdAreDroppedAndTheFileRotates) {
  zlog(QX_ZLOG_VERBOSE, "hidden");
  host::log::warn("hidden too");
  for (int i = 0; i < 200; ++i) zlog(QX_ZLOG_ERROR, "line " + std::to_string(i) + std::string(100, '.'));
  host::log::flush();
  EXPECT_NE(lines().back().find("line 199"), std::string::npos);
  EXPECT_FALSE(lines("test.1.log").empty());
  EXPECT_TRUE(lines("test.3.log").empty()) << "two rotated files at most";
  for (const auto &name : {"test.log", "test.1.log", "test.2.log"}) {
    EXPECT_LE(std::filesystem::file_size(dir / name), 4096u);
    for (const std::string &line : lines(name)) EXPECT_EQ(line.find("hidden"), std::string::npos);
  }
}

TEST(LogClosed, AFileThatCannotBeOpenedKeepsTheRuntimeFromStarting) {
  TempDir dir;
  ASSERT_EQ(host::config_set("run_dir", dir.path()), "");
  ASSERT_EQ(host::config_set("log.target", "file"), "");
  ASSERT_EQ(host::config_set("log.file", "/proc/nowhere/x.log"), "");
  testing::internal::CaptureStderr();
  EXPECT_EQ(qx_global_init("core_test", nullptr), nullptr);
  EXPECT_NE(testing::internal::GetCapturedStderr().find("core_test: log.file cannot be opened"), std::string::npos);
  host::config_reset();
}

}  // namespace
