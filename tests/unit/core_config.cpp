// The configuration: layers, and what an operator is told about a mistake.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <fstream>

#include "host/config/config.h"
#include "support/runtime_fixture.h"

namespace {

using testing::Test;

class Config : public Test {
 protected:
  void SetUp() override { host::config_reset(); }
  void TearDown() override {
    for (const std::string &name : variables_) unsetenv(name.c_str());
    host::config_reset();
  }

  void env(const std::string &name, const std::string &value) {
    setenv(name.c_str(), value.c_str(), 1);
    variables_.push_back(name);
  }
  // Makes `text` the configuration file.
  void file(const std::string &text) {
    std::ofstream(path) << text;
    env("KELIM_CONF", path);
  }
  // The error of loading anew.
  static std::string load() {
    host::config_unload();
    return host::config_load();
  }

  TempDir dir;
  std::string path = dir / "host.toml";

 private:
  std::vector<std::string> variables_;
};

TEST_F(Config, DefaultsAreTheDocumentedOnes) {
  ASSERT_EQ(load(), "");
  const host::Config &c = host::config();
  EXPECT_EQ(c.run_dir, "/run/kelim");
  EXPECT_FALSE(c.run_dir_set);
  EXPECT_EQ(c.log.target, "auto");
  EXPECT_EQ(c.mom.url, "embedded:");
  EXPECT_EQ(c.mom.sync_timeout_ms, 1000u);
  EXPECT_EQ(c.mom.high_water_writes, 1048576u);
  EXPECT_EQ(c.mom.high_water_bytes, 536870912u);
  EXPECT_EQ(c.openflow.listen, std::vector<std::string>{"ptcp:127.0.0.1:6653"});
  EXPECT_TRUE(c.openflow.connect.empty());
  EXPECT_EQ(c.openflow.capacity, 0u);
  EXPECT_EQ(c.openflow.echo_interval_s, 15u);
  EXPECT_EQ(c.openflow.decide_timeout_ms, 2000u);
  EXPECT_TRUE(c.programmer.embedded);
  EXPECT_TRUE(c.control.enabled);
  EXPECT_TRUE(c.ports.empty());
}

TEST_F(Config, LaterLayersWin) {
  file(
      "run_dir = '/tmp/a'\n[mom]\nsync_timeout_ms = 7\nscan_batch = 8\nhigh_water_writes = 9\n[openflow]\nlisten = "
      "['ptcp:[::1]:1', 'pssl:h:2']\n");
  env("KELIM_MOM_SCAN_BATCH", "80");
  env("KELIM_MOM_HIGH_WATER_WRITES", "90");
  ASSERT_EQ(host::config_set("mom.high_water_writes", "900"), "");
  ASSERT_EQ(load(), "");
  const host::Config &c = host::config();
  EXPECT_EQ(c.run_dir, "/tmp/a");
  EXPECT_TRUE(c.run_dir_set);
  EXPECT_EQ(c.mom.sync_timeout_ms, 7u);
  EXPECT_EQ(c.mom.scan_batch, 80u);
  EXPECT_EQ(c.mom.high_water_writes, 900u);
  EXPECT_EQ(c.openflow.listen, (std::vector<std::string>{"ptcp:[::1]:1", "pssl:h:2"}));

  env("KELIM_OPENFLOW_LISTEN", " ptcp:a:1, ptcp:b:2 ");
  env("KELIM_RUN_DIR", "/tmp/b");
  ASSERT_EQ(load(), "");
  EXPECT_EQ(c.openflow.listen, (std::vector<std::string>{"ptcp:a:1", "ptcp:b:2"}));
  EXPECT_EQ(c.run_dir, "/tmp/b");
  env("KELIM_OPENFLOW_LISTEN", "");
  ASSERT_EQ(load(), "");
  EXPECT_TRUE(c.openflow.listen.empty()) << "set to nothing is nowhere";
}

TEST_F(Config, TheProgrammerIsEmbeddedWhereTheDatabaseIsUnlessSet) {
  env("KELIM_MOM_URL", "redis://127.0.0.1:6379");
  ASSERT_EQ(load(), "");
  EXPECT_FALSE(host::config().programmer.embedded);
  env("KELIM_PROGRAMMER_EMBEDDED", "true");
  ASSERT_EQ(load(), "");
  EXPECT_TRUE(host::config().programmer.embedded);
}

TEST_F(Config, PortsComeFromTablesOrText) {
  const std::vector<host::ConfigPort> expected = {{1, "eth1", 101, 1}, {70, "vx0", 70, 45}, {9, "r9", 5, 46}};
  file(
      "[[ports]]\nifx = 1\nname = 'eth1'\nphyid = 101\n[[ports]]\nifx = 70\nname = 'vx0'\ntype = 'tunnel'\n"
      "[[ports]]\nifx = 9\nname = 'r9'\nphyid = 5\ntype = 46\n");
  ASSERT_EQ(load(), "");
  EXPECT_EQ(host::config().ports, expected);
  unsetenv("KELIM_CONF");
  env("KELIM_PORTS", "1:eth1:101:1,70:vx0::tunnel, 9:r9:5:router");
  ASSERT_EQ(load(), "");
  EXPECT_EQ(host::config().ports, expected);
}

// Every mistake stops the load with one line that holds these words, and nothing of it is in force.
TEST_F(Config, MistakesInTheFileNameFileLineKeyAndWhatIsAllowed) {
  struct Case {
    const char *text;
    std::vector<const char *> words;
  };
  const Case cases[] = {
      {"[mom]\nurll = 'x'\n", {":2:", "unknown key mom.urll", "allowed in [mom]", "url", "scan_batch"}},
      {"colour = 'red'\n", {":1:", "unknown key colour", "run_dir", "[openflow]"}},
      {"[color]\nx = 1\n", {":1:", "unknown key color", "[openflow]"}},
      {"[openflow]\n\ncapacity = -3\n", {":3:", "openflow.capacity = -3", "0 to 4294967295"}},
      {"[mom]\nscan_batch = 'many'\n", {":2:", "mom.scan_batch = ", "many", "1 to 65536"}},
      {"[mom]\nscan_batch = 65537\n", {"mom.scan_batch = 65537", "1 to 65536"}},
      {"[log]\ntarget = 'tape'\n", {"log.target", "tape", "auto, journald, syslog, file or stderr"}},
      {"[log]\ntarget = 'or'\n", {"log.target"}},
      {"[control]\nenabled = 1\n", {"control.enabled = 1", "true or false"}},
      {"[mom]\nurl = 'mysql:'\n", {"mom.url", "mysql:", "embedded:"}},
      {"[openflow]\nlisten = ['ptcp:127.0.0.1:6653', 'tcp:1.2.3.4:1']\n", {"openflow.listen", "ptcp:HOST:PORT"}},
      {"[openflow]\nlisten = [1]\n", {"openflow.listen"}},
      {"[openflow]\nconnect = ['tcp:1.2.3.4:65536']\n", {"openflow.connect", "tcp:HOST:PORT"}},
      {"[openflow]\ndatapath_id = '0x12'\n", {"openflow.datapath_id", "hexadecimal"}},
      {"[[ports]]\nifx = 1\nname = 'a'\n[[ports]]\nifx = 1\nname = 'b'\n", {"ports", "each once"}},
      {"[[ports]]\nifx = 0\nname = 'a'\n", {"ports"}},
      {"[[ports]]\nifx = 1\n", {"ports"}},
      {"[[ports]]\nifx = 1\nname = 'a'\nspeed = 3\n", {"ports"}},
      {"[[ports]]\nifx = 1\nname = 'a'\ntype = 'radio'\n", {"ports", "ethernet, tunnel, router"}},
      {"run_dir = 'here'\n", {"run_dir", "here", "begins with /"}},
      {"[mom\n", {":1:"}},
  };
  for (const Case &c : cases) {
    file(c.text);
    const std::string error = load();
    EXPECT_EQ(error.find(path), 0u) << c.text << error;
    EXPECT_EQ(error.find('\n'), std::string::npos) << error;
    for (const char *word : c.words)
      EXPECT_NE(error.find(word), std::string::npos) << c.text << "misses \"" << word << "\": " << error;
    EXPECT_EQ(host::config().mom.scan_batch, 512u);
  }
}

TEST_F(Config, MistakesElsewhereNameTheirPlace) {
  env("KELIM_MOM_SYNC_TIMEOUT_MS", "1s");
  EXPECT_EQ(load(),
            "environment variable KELIM_MOM_SYNC_TIMEOUT_MS: mom.sync_timeout_ms = \"1s\" is not allowed; allowed: 1 to 600000");
  unsetenv("KELIM_MOM_SYNC_TIMEOUT_MS");

  env("KELIM_OPENFLOW_LISTN", "ptcp:0.0.0.0:1");
  EXPECT_NE(load().find("unknown key KELIM_OPENFLOW_LISTN; allowed in [openflow]: listen, connect"), std::string::npos) << load();
  unsetenv("KELIM_OPENFLOW_LISTN");
  env("KELIM_SERVICE_HOST", "10.0.0.1");
  EXPECT_EQ(load(), "") << "variables outside the sections belong to others";

  env("KELIM_CONF", dir / "missing.toml");
  EXPECT_NE(load().find("missing.toml: cannot be read: No such file or directory"), std::string::npos) << load();

  EXPECT_NE(host::config_set("mom.sync_timeout_ms", "0"), "");
  EXPECT_NE(host::config_set("mom.nothing", "0").find("unknown key mom.nothing"), std::string::npos);
}

TEST_F(Config, ABadOneKeepsTheRuntimeFromStarting) {
  testing::internal::CaptureStderr();
  file("[mom]\nurl = 'nonsense'\n");
  EXPECT_EQ(qx_global_init("core_test", nullptr), nullptr);
  const std::string line = testing::internal::GetCapturedStderr();
  EXPECT_EQ(line.find("core_test: " + path + ":2: mom.url"), 0u) << line;
  EXPECT_EQ(std::count(line.begin(), line.end(), '\n'), 1);

  unsetenv("KELIM_CONF");
  std::ofstream(dir / "plain_file") << "x";
  env("KELIM_RUN_DIR", dir / "plain_file/run");
  testing::internal::CaptureStderr();
  EXPECT_EQ(qx_global_init("core_test", nullptr), nullptr);
  EXPECT_NE(testing::internal::GetCapturedStderr().find("set KELIM_RUN_DIR"), std::string::npos);
}

TEST_F(Config, EveryKeyIsListedWithItsVariable) {
  const auto keys = host::config_keys();
  const auto key =
      std::find_if(keys.begin(), keys.end(), [](const host::ConfigKey &k) { return k.name == "openflow.echo_interval_s"; });
  ASSERT_NE(key, keys.end());
  EXPECT_EQ(key->variable, "KELIM_OPENFLOW_ECHO_INTERVAL_S");
  EXPECT_EQ(key->fallback, "15");
  EXPECT_EQ(key->allowed, "0 to 86400");
  const std::string help = host::config_help();
  for (const auto &k : keys) EXPECT_NE(help.find(k.variable), std::string::npos);
}

}  // namespace
