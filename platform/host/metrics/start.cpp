// Starts, reloads and ends the metrics server with the runtime.
#include <optional>

#include "host/base/reload.h"
#include "host/base/services.h"
#include "host/config/config.h"
#include "host/metrics/metrics.h"
#include "host/metrics/process.h"
#include "host/metrics/server.h"

namespace host::metrics {
namespace {

std::optional<Server> g_server;

// Daemon and programming service may share a configuration, but not a port.
constexpr const char *kProgrammer = "kelim-programmer";

// A port alone means the loopback address.
std::string wanted(const Config &config) {
  const std::string &key = runtime_name() == kProgrammer ? config.metrics.programmer_listen : config.metrics.listen;
  return key.empty() || key.find(':') != key.npos ? key : "127.0.0.1:" + key;
}

Reloaded serve(const Config &config) {
  const std::string address = wanted(config);
  if (address == (g_server ? g_server->address() : "")) return {};
  g_server.reset();
  if (!address.empty()) g_server.emplace(address);
  return {.text = address.empty() ? "metrics are no longer served" : "metrics: " + where()};
}

}  // namespace

void start(const Config &config) {
  add_process_source();
  serve(config);
  at_finish([] { g_server.reset(); });
  at_reload({.keys = {"metrics.listen", "metrics.programmer_listen"}, .take = serve});
}

std::string where() {
  if (!g_server) return "";
  return g_server->address() + (g_server->failure().empty() ? "" : " cannot be served: " + g_server->failure());
}

}  // namespace host::metrics
