// A real runtime in a temporary directory, for tests of modules that need one.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <chrono>
#include <filesystem>
#include <string>

#include "host/base/clock.h"
#include "host/config/config.h"
#include "qx_runtime.h"
#include "support/reset.h"

// The time limit for conditions that a test waits for: long enough for a sanitizer build on a busy machine.
inline constexpr std::chrono::seconds kPatience{60};

// A directory under /tmp, removed with its owner.
class TempDir {
 public:
  TempDir() {
    char name[] = "/tmp/kelim-test-XXXXXX";
    path_ = mkdtemp(name);
  }
  ~TempDir() { std::filesystem::remove_all(path_); }
  TempDir(const TempDir &) = delete;
  TempDir &operator=(const TempDir &) = delete;

  const std::string &path() const { return path_; }
  std::string operator/(const std::string &name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

// Configures the host through configure() and creates the runtime `core_test`; resets everything afterwards.
class RuntimeTest : public testing::Test {
 protected:
  void SetUp() override {
    set("run_dir", dir.path());
    set("programmer.embedded", "false");
    configure();
    global = qx_global_init("core_test", nullptr);
    ASSERT_NE(global, nullptr);
  }
  void TearDown() override { reset_process(std::exchange(global, nullptr)); }
  virtual void configure() {}

  static void set(const char *key, const std::string &value) { ASSERT_EQ(host::config_set(key, value), ""); }

  TempDir dir;
  qx_global *global = nullptr;
};
