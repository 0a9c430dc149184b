// The object database's contract, the same for every store: what its tests run on.
#pragma once

#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "component/mom_world.h"

namespace mom_test {

struct Store {
  const char *name;
  std::unique_ptr<Backend> (*make)();
  friend void PrintTo(const Store &store, std::ostream *out) { *out << store.name; }
};

class MomConformance : public testing::TestWithParam<Store> {
 protected:
  void start(const std::vector<std::pair<std::string, std::string>> &settings = {}) {
    world.emplace(GetParam().make(), settings);
    ASSERT_NE(world->global(), nullptr);
  }
  void SetUp() override {
    start();
    if (!HasFatalFailure()) world->connect_all();
  }

  std::optional<World> world;
};

template <typename B>
std::unique_ptr<Backend> make() {
  return std::make_unique<B>();
}

inline auto every_store() {
  return testing::Values(Store{"Embedded", make<EmbeddedBackend>}, Store{"Redis", make<RedisBackend>});
}

inline std::string store_name(const testing::TestParamInfo<Store> &store) {
  return store.param.name;
}

}  // namespace mom_test
