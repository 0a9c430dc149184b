#include "host/mom/mom_world.h"

#include "host/base/clock.h"
#include "host/config/config.h"
#include "support/reset.h"

namespace mom_test {

HostProcess::HostProcess(const std::string &store, const Settings &settings) {
  if (store == "Redis") server_.emplace();
  Settings all = {{"run_dir", dir_.path()},     {"log.target", "file"},           {"log.file", dir_ / "log"},
                  {"control.enabled", "false"}, {"programmer.embedded", "false"}, {"mom.url", store}};
  if (server_) all.back().second = server_->url();
  if (store == "Embedded") all.back().second = "embedded:";
  all.insert(all.end(), settings.begin(), settings.end());
  for (const auto &[key, value] : all) EXPECT_EQ(host::config_set(key, value), "");
  global_ = qx_global_init("mom_test", nullptr);
}

HostProcess::~HostProcess() {
  reset_process(global_);
}

// Of the embedded store; elsewhere time passes by itself.
void HostProcess::pass(std::chrono::milliseconds ms) {
  if (!server_) host::clock::warp(ms);
}

bool HostProcess::cut_connections(std::int32_t db) {
  for (std::int32_t type : {0, 3, 2}) {
    if (!server_) host::mom::testing::provoke_reconnect(db, type);
  }
  for (const char *type : {"normal", "pubsub"}) {
    if (server_) server_->command({"CLIENT", "KILL", "TYPE", type});
  }
  return true;
}

std::vector<std::string> stores() {
  return {"Embedded", "Redis"};
}

std::unique_ptr<Process> start_process(const std::string &store, unsigned topic_limit) {
  Settings settings;
  if (topic_limit != 0) settings = {{"mom.high_water_writes", std::to_string(topic_limit)}, {"mom.sync_timeout_ms", "60000"}};
  return std::make_unique<HostProcess>(store, settings);
}

bool run_until(const std::function<bool()> &condition) {
  return host::run_until(condition, kPatience);
}

}  // namespace mom_test
