// The log service: what reaches the file, collapsing, levels, rotation.
#include <gtest/gtest.h>

#include <fstream>

#include "host/base/reload.h"
#include "host/log/log.h"
#include "qx_zlog.h"
#include "support/runtime_fixture.h"

namespace {

using namespace std::chrono_literals;

class Log : public RuntimeTest {
 protected:
  void configure() override {
    set("log.target", "file");
    set("log.file", dir / "%p.log");
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
  // What the file holds, without the time of 24 bytes that each line begins with.
  std::vector<std::string> lines(const std::string &name = "core_test.log") const {
    host::log::flush();
    std::vector<std::string> all;
    std::ifstream in(dir / name);
    for (std::string line; std::getline(in, line);) {
      int y, mo, d, h, mi, sec, ms, length = 0;
      EXPECT_EQ(sscanf(line.c_str(), "%4d-%2d-%2d %2d:%2d:%2d.%3d %n", &y, &mo, &d, &h, &mi, &sec, &ms, &length), 7) << line;
      EXPECT_EQ(length, 24) << line;
      all.push_back(line.substr(24));
    }
    return all;
  }

  qx_zlog_category *category = nullptr;
};

TEST_F(Log, ALineCarriesTimeLevelCategoryTextAndPlace) {
  zlog(QX_ZLOG_ERROR, "flow index:5 install failed. status:3\n\n");
  zlog(QX_ZLOG_VERBOSE, "a verbose one");
  const int warned_at = __LINE__ + 1;
  host::log::warn("disk {} is {} % full", "sda", 93);
  zlog(QX_ZLOG_ERROR, std::string(100'000, 'x'));
  const auto all = lines();
  ASSERT_EQ(all.size(), 4u);
  EXPECT_EQ(all[0], "error   policy_error flow index:5 install failed. status:3  (app/a.cpp:7 run)");
  EXPECT_EQ(all[1], "debug   policy_error a verbose one  (app/a.cpp:7 run)");
  EXPECT_EQ(all[2].find("warning kelim_host   disk sda is 93 % full  ("), 0u) << all[2];
  EXPECT_NE(all[2].find("log_test.cpp:" + std::to_string(warned_at) + " TestBody)"), std::string::npos) << all[2];
  EXPECT_LT(all[3].size(), 3000u);
}

TEST_F(Log, LinesThatRepeatWithinASecondAreCounted) {
  host::clock::stop();
  for (int i = 0; i < 1000; ++i) {
    zlog(QX_ZLOG_ERROR, "again");
    if (i % 500 == 0) zlog(QX_ZLOG_ERROR, "between", 9);
  }
  zlog(QX_ZLOG_ERROR, "again", 8);  // another place is another line
  for (const char *byte : {"00", "00", "ff"}) zlog(QX_ZLOG_VERBOSE, byte);
  host::clock::warp(1000ms);
  zlog(QX_ZLOG_ERROR, "again");  // the window is over
  const std::string error = "error   policy_error ", debug = "debug   policy_error ", place = "  (app/a.cpp:7 run)";
  EXPECT_EQ(lines(), (std::vector<std::string>{error + "again" + place, error + "between  (app/a.cpp:9 run)",
                                               error + "again  (app/a.cpp:8 run)", debug + "00" + place, debug + "00" + place,
                                               debug + "ff" + place, error + "again (repeated 999 times)" + place,
                                               error + "between (repeated 1 time)  (app/a.cpp:9 run)", error + "again" + place}));
}

TEST_F(Log, APlaceThatSaysMoreThanItsShareIsCountedAndHidesNoOther) {
  host::clock::stop();
  for (int i = 0; i < 1000; ++i) zlog(QX_ZLOG_ERROR, "flow " + std::to_string(i));
  for (int i = 0; i < 3; ++i) zlog(QX_ZLOG_ERROR, "other " + std::to_string(i), 8);
  host::clock::warp(1000ms);
  zlog(QX_ZLOG_ERROR, "flow 1000");  // the second is over
  const std::string error = "error   policy_error ", seven = "  (app/a.cpp:7 run)", eight = "  (app/a.cpp:8 run)";
  std::vector<std::string> expected;
  for (int i = 0; i < 10; ++i) expected.push_back(error + "flow " + std::to_string(i) + seven);
  for (int i = 0; i < 3; ++i) expected.push_back(error + "other " + std::to_string(i) + eight);
  expected.push_back(error + "... 990 more lines from app/a.cpp:7 run" + seven);
  expected.push_back(error + "flow 1000" + seven);
  EXPECT_EQ(lines(), expected);
}

struct Formatted {
  int *times;
};

}  // namespace

template <>
struct fmt::formatter<Formatted> : fmt::formatter<int> {
  auto format(Formatted f, fmt::format_context &out) const { return fmt::formatter<int>::format(++*f.times, out); }
};

namespace {

TEST_F(Log, WhatIsNotWrittenIsNotFormatted) {
  host::clock::stop();
  int times = 0;
  for (int i = 0; i < 100; ++i) host::log::warn("text {}", Formatted{&times});
  EXPECT_EQ(times, 10);
  EXPECT_NE(lines().back().find(" ... 90 more lines from "), std::string::npos);
}

TEST_F(Log, ManyPlacesAreAllKeptAndCountsOfOldOnesComeOut) {
  host::clock::stop();
  zlog(QX_ZLOG_ERROR, "first");
  zlog(QX_ZLOG_ERROR, "first");
  for (int i = 0; i < 2000; ++i) zlog(QX_ZLOG_ERROR, "line", 100 + i);
  const auto all = lines();
  EXPECT_EQ(all.size(), 2002u);
  const auto count = std::find(all.begin(), all.end(), "error   policy_error first (repeated 1 time)  (app/a.cpp:7 run)");
  EXPECT_LT(count - all.begin(), 1000) << "only so many places are watched at a time";
}

TEST_F(Log, AReloadGoesOnInANewFileUnderTheSameName) {
  zlog(QX_ZLOG_ERROR, "before");
  host::log::flush();
  std::filesystem::rename(dir / "core_test.log", dir / "moved.log");
  std::vector<std::string> told;
  EXPECT_EQ(host::reload(&told), 0);
  EXPECT_EQ(told, std::vector<std::string>{"the log file " + (dir / "core_test.log") + " is opened anew"});
  zlog(QX_ZLOG_ERROR, "after");
  EXPECT_EQ(lines().back(), "error   policy_error after  (app/a.cpp:7 run)");
  EXPECT_EQ(lines("moved.log").size(), 1u);
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
  for (int i = 0; i < 200; ++i) zlog(QX_ZLOG_ERROR, "line " + std::to_string(i) + std::string(100, '.'), i);
  EXPECT_NE(lines().back().find("line 199"), std::string::npos);
  EXPECT_TRUE(lines("core_test.3.log").empty()) << "two rotated files at most";
  for (const auto &name : {"core_test.log", "core_test.1.log", "core_test.2.log"}) {
    EXPECT_LE(std::filesystem::file_size(dir / name), 4096u);
    for (const std::string &line : lines(name)) EXPECT_EQ(line.find("hidden"), std::string::npos);
  }
}

}  // namespace
