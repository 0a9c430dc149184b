#include "host/programming/embedded.h"

#include <nlohmann/json.hpp>
#include <stdexcept>

#include "host/config/config.h"
#include "host/control/status.h"
#include "host/runtime/services.h"
#include "programmer/programmer.h"

namespace host::programming {

namespace {

constexpr const char *kOwnDatabase =
    "mom.url (KELIM_MOM_URL) is embedded:, a database of this process alone; it must be one that the daemon shares";

nlohmann::ordered_json status() {
  const auto now = programmer::totals();
  if (!now) throw std::runtime_error("the programming service does not run");
  return {{"flows", now->flows},     {"size", now->size},         {"meters", now->meters},
          {"waiting", now->waiting}, {"owed", now->owed},         {"installed", now->installed},
          {"failed", now->failed},   {"resource", now->resource}, {"skipped", now->skipped}};
}

}  // namespace

std::string start(const Config &config, qx_global *global) {
  const bool is_its_own = runtime_name() == programmer::kProcess;
  if (is_its_own || config.programmer.embedded) control::register_status("programmer", status);
  // That process starts the service itself, whatever a configuration shared with the daemon says of the daemon's own.
  if (is_its_own) return config.mom.url == "embedded:" ? kOwnDatabase : "";
  const Config::Programmer &key = config.programmer;
  if (!key.embedded) return "";
  programmer::Options options;
  options.size = key.size;
  options.delay_ms = key.delay_ms;
  options.script = key.script;
  options.seed = key.seed;
  options.counter_interval_ms = key.counter_interval_ms;
  options.counter_rate = key.counter_rate;
  options.service_chain = key.service_chain;
  if (const std::string error = programmer::check(options); !error.empty()) {
    return "programmer.script (KELIM_PROGRAMMER_SCRIPT): " + error;
  }
  if (const int rv = programmer::start_embedded(global, options); rv != 0) {
    return "the programming service does not start (" + std::to_string(rv) + ")";
  }
  at_finish(programmer::stop_embedded);
  return "";
}

}  // namespace host::programming
