// One runtime for all inputs of a fuzzer.
#pragma once

#include "host/base/loop.h"
#include "support/require.h"
#include "support/runtime_fixture.h"

inline const std::string &run_dir() {
  static const TempDir dir;
  return dir.path();
}

inline qx_global *runtime() {
  static qx_global *const made = [] {
    for (const auto &[key, value] : {std::pair{"run_dir", run_dir()}, {"programmer.embedded", "false"}, {"log.level", "off"}})
      require(host::config_set(key, value).empty());
    return qx_global_init("fuzz", nullptr);
  }();
  return made;
}
