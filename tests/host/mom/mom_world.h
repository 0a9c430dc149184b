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

class HostProcess final : public Process {
 public:
  // `store` is "Embedded", "Redis" or the URL of a server. `settings` are set before the runtime starts.
  HostProcess(const std::string &store, const Settings &settings);
  ~HostProcess() override;

  qx_global *global() override { return global_; }
  void pass(std::chrono::milliseconds ms) override;
  bool cut_connections(std::int32_t db) override;

 private:
  TempDir dir_;
  std::optional<support::RedisServer> server_;
  qx_global *global_ = nullptr;
};

class World : public StoreWorld {
 public:
  explicit World(const std::string &store, const Settings &settings = {})
      : StoreWorld(std::make_unique<HostProcess>(store, settings)) {}

  // Puts bytes under a canonical key of the embedded store, bypassing the client.
  static void put_raw(std::int32_t db, const std::string &key, const std::string &bytes) {
    ASSERT_TRUE(host::mom::testing::put_raw(db, key, {reinterpret_cast<const std::uint8_t *>(bytes.data()), bytes.size()}));
  }
};

}  // namespace mom_test
