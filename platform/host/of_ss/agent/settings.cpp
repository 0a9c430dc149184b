#include "host/of_ss/agent/settings.h"

#include <unistd.h>

#include <charconv>
#include <fstream>
#include <string>

#include "host/log/log.h"

namespace host::of_ss {
namespace {

constexpr std::int64_t kMillisecond = 1'000'000, kSecond = 1'000'000'000;

// FNV-1a, cut to the 48 bits that usually hold a MAC address, with the bit for locally administered addresses.
std::uint64_t id_from(const std::string &text) {
  std::uint64_t hash = 0xcbf29ce484222325u;
  for (const char c : text) hash = (hash ^ static_cast<unsigned char>(c)) * 0x100000001b3u;
  return (hash & 0xfcff'ffff'ffff) | 0x0200'0000'0000;
}

// A name that stays the same for the life of the machine's installation.
std::string machine_name() {
  std::ifstream file("/etc/machine-id");
  std::string id;
  if (file >> id) return id;
  char host[256] = "";
  gethostname(host, sizeof host - 1);
  return host;
}

std::uint64_t datapath_id(const std::string &configured) {
  std::uint64_t id = 0;
  std::from_chars(configured.data(), configured.data() + configured.size(), id, 16);
  return id ? id : id_from(machine_name());
}

// Why TLS cannot be used; "" when it can.
std::string set_up_tls(const Config::OpenFlow &key, EndpointSettings &settings) {
  if (key.tls_cert.empty()) return "TLS needs openflow.tls_cert and openflow.tls_key";
  if (key.tls_ca.empty() && key.tls_verify) return kNoAuthority;
  std::string error;
  settings.tls = tls::load(key.tls_cert, key.tls_key, key.tls_verify ? key.tls_ca : "", error);
  return error;
}

void add_endpoint(const std::string &text, const std::string &no_tls, EndpointSettings &settings) {
  Endpoint endpoint;
  std::string error;
  if (parse_endpoint(text, endpoint, error) && endpoint.tls) error = no_tls;
  settings.names.push_back(text);
  if (error.empty()) {
    settings.usable.push_back(endpoint);
  } else {
    log::error("{}: {}", text, error);
    settings.unusable[text] = error;
  }
}

}  // namespace

Settings settings_from(const Config::OpenFlow &key) {
  Settings settings;
  EndpointSettings &endpoints = settings.endpoints;
  const std::string no_tls = set_up_tls(key, endpoints);
  for (const std::string &text : key.listen) add_endpoint(text, no_tls, endpoints);
  for (const std::string &text : key.connect) add_endpoint(text, no_tls, endpoints);
  for (const Endpoint &endpoint : endpoints.usable)
    if (endpoint.tls && !key.tls_verify)
      log::warn("{}: openflow.tls_verify is false, so that peers are not checked: anybody can program flows", endpoint.text);
  settings.report_cells = key.report_cells;
  settings.own.datapath_id = datapath_id(key.datapath_id);
  settings.own.prompt = key.prompt;
  settings.own.flows.capacity = key.capacity;
  settings.own.flows.decide_timeout_ns = key.decide_timeout_ms * kMillisecond;
  settings.own.connections.queue_bound = key.queue_bound;
  settings.own.connections.echo_interval_ns = key.echo_interval_s * kSecond;
  return settings;
}

}  // namespace host::of_ss
