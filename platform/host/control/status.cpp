#include "host/control/status.h"

#include <unistd.h>

#include <chrono>
#include <nlohmann/json.hpp>
#include <utility>
#include <vector>

#include "host/base/clock.h"
#include "host/base/services.h"
#include "host/config/config.h"
#include "host/control/control.h"
#include "host/log/log.h"
#include "host/metrics/health.h"
#include "host/metrics/metrics.h"
#include "kelim_version.h"

namespace host::control {
namespace {

using Json = nlohmann::ordered_json;

std::vector<std::pair<std::string, StatusPart>> g_parts;
clock::Time g_started;

Json process_part() {
  const auto up = std::chrono::duration_cast<std::chrono::milliseconds>(clock::now() - g_started);
  const std::vector<std::string> waits = health::failing(health::Kind::ready);
  return {{"name", runtime_name()},
          {"version", KELIM_VERSION},
          {"pid", getpid()},
          {"uptime_s", static_cast<double>(up.count()) / 1000},
          {"configuration", config().file},
          {"run_dir", config().run_dir},
          {"log_level", log::level()},
          {"metrics", metrics::where()},
          {"ready", waits.empty()},
          {"waits_for", waits}};
}

Json view() {
  Json all;
  for (const auto &[name, part] : g_parts) {
    try {
      all[name] = part();
    } catch (const std::exception &error) {
      all[name] = {{"error", error.what()}};
    }
  }
  return all;
}

}  // namespace

void register_status(const std::string &name, StatusPart part) {
  g_parts.emplace_back(name, std::move(part));
}

void start_status() {
  g_started = clock::now();
  register_status("process", process_part);
  register_view("status", [](const nlohmann::json &) { return view(); });
}

void stop_status() {
  g_parts.clear();
}

}  // namespace host::control
