#include "host/programming/embedded.h"

#include <nlohmann/json.hpp>
#include <stdexcept>

#include "host/base/services.h"
#include "host/config/config.h"
#include "host/control/control.h"
#include "host/control/status.h"
#include "host/metrics/metrics.h"
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

nlohmann::ordered_json port(const programmer::PlaneState::Port &port) {
  auto others = nlohmann::ordered_json::array();
  for (const auto &filter : port.others)
    others.push_back({{"direction", filter.ingress ? "ingress" : "egress"}, {"pref", filter.preference}, {"name", filter.name}});
  return {{"port", port.number},
          {"interface", port.interface},
          {"present", port.present},
          {"forwards", port.forwards},
          {"others", std::move(others)}};
}

nlohmann::ordered_json plane() {
  if (!programmer::totals())
    throw std::runtime_error(
        "no programming service runs in this process; kelimctl --process kelim-programmer asks the other one");
  const auto now = programmer::plane();
  if (!now) throw std::runtime_error("the target of the programming service is not linux");
  auto ports = nlohmann::ordered_json::array();
  for (const auto &one : now->ports) ports.push_back(port(one));
  return {{"pinned", !now->pins.empty()},  {"pins", now->pins},       {"unpinned", now->unpinned}, {"in_step", now->in_step},
          {"taken_over", now->taken_over}, {"written", now->written}, {"dropped", now->dropped},   {"ports", std::move(ports)}};
}

constexpr metrics::Row<programmer::Totals> kRows[] = {
    {{"kelim_programmer_flows", metrics::Kind::gauge, "Flows in the target."}, &programmer::Totals::flows},
    {{"kelim_programmer_flow_capacity", metrics::Kind::gauge, "Flows that fit into the target."}, &programmer::Totals::size},
    {{"kelim_programmer_meters", metrics::Kind::gauge, "Meters in the target."}, &programmer::Totals::meters},
    {{"kelim_programmer_addresses", metrics::Kind::gauge, "Controller addresses in the target."}, &programmer::Totals::addresses},
    {{"kelim_programmer_answers_waiting", metrics::Kind::gauge, "Answers waiting for their delay."},
     &programmer::Totals::waiting},
    {{"kelim_programmer_answers_owed", metrics::Kind::gauge, "Answers that the database has not accepted yet."},
     &programmer::Totals::owed},
    {{"kelim_programmer_flows_untouched_total", metrics::Kind::counter,
      "Rewritten flows without a change, answered without asking the target."},
     &programmer::Totals::untouched},
    {{"kelim_programmer_flows_removed_total", metrics::Kind::counter, "Flows removed from the target."},
     &programmer::Totals::removed},
    {{"kelim_programmer_counter_records_total", metrics::Kind::counter, "Counter records written."},
     &programmer::Totals::counters},
    {{"kelim_programmer_flows_translated_total", metrics::Kind::counter, "Service-chain flows translated into entries."},
     &programmer::Totals::translated},
    {{"kelim_programmer_records_skipped_total", metrics::Kind::counter, "Records that could not be read."},
     &programmer::Totals::skipped},
};

void write_metrics(metrics::Page &page) {
  const auto now = programmer::totals();
  if (!now) return;
  metrics::write_rows(page, kRows, *now);
  page.begin({"kelim_programmer_answers_total", metrics::Kind::counter, "Answers of the target to flows, by outcome."});
  page.sample(now->installed, {{"outcome", "installed"}});
  page.sample(now->failed, {{"outcome", "failed"}});
  page.sample(now->resource, {{"outcome", "no_room"}});
}

}  // namespace

std::string start(const Config &config, qx_global *global) {
  if (runtime_name() == programmer::kReleasing) return "";
  const bool is_its_own = runtime_name() == programmer::kProcess;
  control::register_view("plane", [](const nlohmann::json &) { return plane(); });
  if (is_its_own || config.programmer.embedded) {
    control::register_status("programmer", status);
    metrics::add_source(write_metrics);
  }
  // That process starts the service itself, whatever a shared configuration says about the daemon's embedded one.
  if (is_its_own) return config.mom.url == "embedded:" ? kOwnDatabase : "";
  const Config::Programmer &key = config.programmer;
  if (!key.embedded) return "";
  programmer::Options options;
  options.target = key.target;
  options.size = key.size;
  options.delay_ms = key.delay_ms;
  options.script = key.script;
  options.seed = key.seed;
  options.counter_interval_ms = key.counter_interval_ms;
  options.counter_rate = key.counter_rate;
  options.packet_in_rate = key.packet_in_rate;
  options.packet_in_burst = key.packet_in_burst;
  options.pin_dir = key.pin_dir;
  options.service_chain = key.service_chain;
  if (const std::string error = programmer::check_script(options); !error.empty()) {
    return "programmer.script (KELIM_PROGRAMMER_SCRIPT): " + error;
  }
  if (const std::string error = programmer::check(options); !error.empty()) {
    return "programmer.size (KELIM_PROGRAMMER_SIZE): " + error;
  }
  std::string why;
  if (const int rv = programmer::start_embedded(global, options, &why); rv != 0) {
    return why.empty() ? "the programming service does not start (" + std::to_string(rv) + ")" : why;
  }
  at_finish(programmer::stop_embedded);
  return "";
}

}  // namespace host::programming
