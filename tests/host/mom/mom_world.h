// The object database on the Linux host: a process with the embedded store, with a private Redis server, or with an existing
// Redis server.
#pragma once

#include "conformance/store_world.h"
#include "host/base/loop.h"
#include "host/mom/testing.h"
#include "support/redis_server.h"
#include "support/runtime_fixture.h"

namespace mom_test {

using Settings = std::vector<std::pair<std::string, std::string>>;  // configuration keys and values

// A message on the channels of a type in Redis.
inline std::string notification(char kind, const std::string &member, const std::string &record) {
  std::string text = kind + member + '\0';
  for (int shift = 0; shift < 32; shift += 8) text.push_back(static_cast<char>(record.size() >> shift));
  return text + record;
}

class HostProcess final : public Process {
 public:
  // `store` is "Embedded", "Redis" or the URL of a server. `settings` are set before the runtime starts.
  HostProcess(const std::string &store, const Settings &settings);
  ~HostProcess() override;

  qx_global *global() override { return global_; }
  void pass(std::chrono::milliseconds ms) override;
  bool cut_connections(std::int32_t db) override;

  const std::string &run_dir() const { return dir_.path(); }
  // Puts bytes under a canonical key of the embedded store, bypassing the client; in Redis it only publishes the notification.
  void put_raw(std::int32_t db, const std::string &key, const std::string &bytes);

 private:
  TempDir dir_;
  std::optional<support::RedisServer> server_;
  qx_global *global_ = nullptr;
};

class World : public StoreWorld {
 public:
  explicit World(const std::string &store, const Settings &settings = {}) : World(new HostProcess(store, settings)) {}

  const std::string &run_dir() const { return host_->run_dir(); }
  void put_raw(std::int32_t db, const std::string &key, const std::string &bytes) { host_->put_raw(db, key, bytes); }

 private:
  explicit World(HostProcess *host) : StoreWorld(std::unique_ptr<Process>(host)), host_(host) {}
  HostProcess *host_;
};

}  // namespace mom_test
