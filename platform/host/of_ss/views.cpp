#include "host/of_ss/views.h"

#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "host/config/text.h"
#include "host/control/control.h"
#include "host/control/status.h"
#include "host/metrics/health.h"
#include "host/of_ss/agent/agent.h"
#include "host/of_ss/desired/flow_selection.h"
#include "host/of_ss/protocol/capabilities.h"
#include "host/of_ss/trace_view.h"
#include "host/of_ss/wire/message_names.h"

namespace host::of_ss {
namespace {

using nlohmann::json;
namespace sb = southbound;

constexpr std::size_t kFlowsShown = 1000;
constexpr std::size_t kErrorsInStatus = 3;  // of each kind

constexpr const char *kNotRunning = "the OpenFlow service library is not running yet";
constexpr const char *kTooBusy = "the OpenFlow service library is too busy to answer";

Agent *(*current_agent)();

// Runs `collect` on the openflow thread; the caller's loop waits meanwhile.
template <typename Collect>
json collected(Collect &&collect) {
  Agent *agent = current_agent();
  if (!agent) throw std::invalid_argument(kNotRunning);
  json data;
  if (!agent->run([&data, &collect](Agent &a) { data = collect(a); })) throw std::invalid_argument(kTooBusy);
  return data;
}

// The flows selected by a request.
struct FlowFilter {
  std::size_t limit = kFlowsShown;
  std::uint64_t index = 0;  // 0: any
  std::uint64_t cookie = 0, cookie_mask = 0;
  std::string state = {}, controller = {};  // empty: any
  // One term of each list must be in the match, as a whole field or as a field's name.
  std::vector<std::vector<std::string>> terms = {};

  bool fits(const Agent &agent, const FlowEntry &flow, std::string_view match) const;
};

std::size_t number(const json &args, const char *name, std::size_t fallback) {
  if (!args.is_object() || !args.contains(name)) return fallback;
  const json &value = args.at(name);
  if (value.is_number_unsigned()) return value.get<std::size_t>();
  if (value.is_string() && !value.get<std::string>().empty() &&
      value.get<std::string>().find_first_not_of("0123456789") == std::string::npos)
    return std::stoull(value.get<std::string>().substr(0, 18));
  throw control::Refusal(fmt::format("{} takes a number", name));
}

double seconds(std::int64_t ns) {
  const std::int64_t ms = ns / 1'000'000;
  return static_cast<double>(ms) / 1000;
}

const char *state_name(FlowState state) {
  return state == FlowState::sent ? "sent" : "installed";
}

json flow_json(const Agent &agent, const FlowEntry &flow) {
  const std::int64_t now = agent.of_switch().now();
  const std::string &controller = agent.of_switch().controllers.address(flow.controller);
  return {{"table", flow.table_id()},
          {"priority", flow.priority()},
          {"match", match_text(southbound_match(flow.southbound()))},
          {"actions", actions_text(flow.southbound())},
          {"cookie", fmt::format("0x{:x}", flow.cookie())},
          {"index", flow.index()},
          {"controller", controller.empty() ? json() : json(controller)},
          {"state", state_name(flow.state)},
          {"replaced", !flow.in_force},
          {"latency_us", flow.latency_us},
          {"packets", flow.packets()},
          {"bytes", flow.bytes()},
          {"age_s", seconds(now - flow.created_ns)},
          {"idle_timeout", flow.get<std::uint16_t>(sb::kFlowIdleTimeout)},
          {"hard_timeout", flow.get<std::uint16_t>(sb::kFlowHardTimeout)}};
}

json counters_json(const Flows &flows) {
  const FlowCounters &c = flows.counters();
  return {{"added", c.added},
          {"unchanged", c.unchanged},
          {"removed", c.removed},
          {"failed", c.failed},
          {"left_to_replay", c.left},
          {"timed_out", c.timed_out},
          {"decided", c.decided},
          {"undecided", flows.in_flight().undecided_adds()},
          {"latency_max_us", c.latency_max_us},
          {"latency_mean_us", c.decided ? c.latency_sum_us / c.decided : 0},
          {"own_barriers", c.own_barriers},
          {"lost_barriers", c.lost_barriers},
          {"duplicate_results", c.duplicate_results},
          {"retried", c.retried},
          {"changed_in_place", c.changed_in_place},
          {"replays", c.replays}};
}

json failure_json(const LateFailure &f) {
  return {{"index", f.index}, {"table", f.table_id}, {"priority", f.priority}, {"match", f.match}, {"error", f.error->name}};
}

// True if `term` is one of the fields in the text of a match, or the name of one.
bool has_term(std::string_view match, std::string_view term) {
  for (std::size_t begin = 0; begin <= match.size();) {
    const std::size_t end = std::min(match.find(',', begin), match.size());
    const std::string_view field = match.substr(begin, end - begin);
    if (field == term || field.substr(0, field.find('=')) == term) return true;
    begin = end + 1;
  }
  return false;
}

bool FlowFilter::fits(const Agent &agent, const FlowEntry &flow, std::string_view match) const {
  const auto has_one = [match](const auto &any) {
    return std::ranges::any_of(any, [match](const std::string &term) { return has_term(match, term); });
  };
  return (index == 0 || flow.index() == index) && ((flow.cookie() ^ cookie) & cookie_mask) == 0 &&
         (state.empty() || state == state_name(flow.state)) &&
         (controller.empty() || controller == agent.of_switch().controllers.address(flow.controller)) &&
         std::ranges::all_of(terms, has_one);
}

// "0x17", "23" or "0x17/0xff".
void read_cookie(const std::string &text, FlowFilter &filter) {
  const auto read = [](const std::string &part, std::uint64_t &to) {
    const auto value = any_number(part);
    if (!value) throw control::Refusal("cookie takes a number, or a number and a mask, such as 0x17/0xff");
    to = *value;
  };
  const std::size_t slash = text.find('/');
  read(text.substr(0, slash), filter.cookie);
  filter.cookie_mask = ~std::uint64_t{0};
  if (slash != text.npos) read(text.substr(slash + 1), filter.cookie_mask);
}

FlowFilter filter_of(const json &args) {
  FlowFilter filter{.limit = number(args, "limit", kFlowsShown), .index = number(args, "index", 0)};
  if (!args.is_object()) return filter;
  if (args.contains("cookie")) read_cookie(args.at("cookie").get<std::string>(), filter);
  filter.state = args.value("state", "");
  filter.controller = args.value("controller", "");
  if (!filter.state.empty() && filter.state != state_name(FlowState::sent) && filter.state != state_name(FlowState::installed))
    throw control::Refusal("state is sent or installed");
  if (args.contains("match")) filter.terms = args.at("match").get<std::vector<std::vector<std::string>>>();
  return filter;
}

// {"limit": 1000, "index": N, "cookie": "0x17/0xff", "state": "sent", "controller": "192.0.2.1", "match": [["tcp_dst=80",
// "udp_dst=80"], ...]}
json flows_view(Agent &agent, const FlowFilter &filter) {
  const Flows &flows = agent.flows();
  json list = json::array(), failures = json::array();
  std::uint32_t cursor = 0;
  while (const FlowEntry *flow = list.size() < filter.limit ? flows.table().next(cursor) : nullptr)
    if (filter.fits(agent, *flow, filter.terms.empty() ? "" : match_text(southbound_match(flow->southbound()))))
      list.push_back(flow_json(agent, *flow));
  for (const LateFailure &f : flows.late_failures()) failures.push_back(failure_json(f));
  return {{"flows", std::move(list)},
          {"total", flows.table().size()},
          {"capacity", flows.capacity()},
          {"failures", std::move(failures)},
          {"counters", counters_json(flows)}};
}

const char *role_name(Role role) {
  constexpr const char *kNames[] = {"nochange", "equal", "master", "slave"};
  return kNames[static_cast<std::size_t>(role)];
}

json endpoints_json(const Agent &agent) {
  json endpoints = json::array();
  for (const std::string &endpoint : agent.endpoints().names()) {
    EndpointState state = agent.state_of(endpoint);
    endpoints.push_back({{"endpoint", endpoint}, {"state", std::move(state.name)}, {"error", std::move(state.error)}});
  }
  return endpoints;
}

json controllers_view(Agent &agent) {
  json list = json::array();
  for (const Connection *c : agent.of_switch().controllers.all())
    list.push_back({{"peer", c->peer().name},
                    {"number", c->number()},
                    {"role", role_name(c->session().role)},
                    {"since_s", seconds(agent.of_switch().now() - c->since_ns())},
                    {"received", c->traffic().received},
                    {"sent", c->traffic().sent},
                    {"errors", c->traffic().errors},
                    {"unsent_bytes", c->unsent()},
                    {"waiting", c->is_waiting()}});
  return {{"controllers", std::move(list)},
          {"endpoints", endpoints_json(agent)},
          {"datapath_id", fmt::format("{:016x}", agent.of_switch().settings.datapath_id)},
          {"turned_away", agent.of_switch().controllers.turned_away()}};
}

json meters_view(Agent &agent) {
  json list = json::array();
  for (const auto &[id, meter] : agent.of_switch().meters.all()) {
    json bands = json::array();
    for (Bytes b = meter.bands(); b.size() >= kBandLen; b = b.subspan(kBandLen))
      bands.push_back({{"type", std::ranges::find(kMeterBands, sb::get<std::uint16_t>(b.data(), 0), &Named::number)->name},
                       {"rate", sb::get<std::uint32_t>(b.data(), 4)},
                       {"burst", sb::get<std::uint32_t>(b.data(), 8)}});
    list.push_back({{"meter", id},
                    {"flags", meter.flags()},
                    {"bands", std::move(bands)},
                    {"age_s", seconds(agent.of_switch().now() - meter.created_ns)}});
  }
  return {{"meters", std::move(list)}, {"capacity", agent.of_switch().target().meters}};
}

json groups_view(Agent &agent) {
  const Switch &sw = agent.of_switch();
  json list = json::array();
  for (const auto &[number, group] : sw.groups.all()) {
    json buckets = json::array();
    group.each_bucket([&buckets](Bytes bucket) { buckets.push_back(wire_list_text(bucket.subspan(kBucketHead))); });
    list.push_back({{"group", number},
                    {"type", std::ranges::find(kGroupTypeNames, group.type, &Named::number)->name},
                    {"buckets", std::move(buckets)},
                    {"flows", users_of_group(sw.flows.table(), number).size()},
                    {"age_s", seconds(sw.now() - group.created_ns)}});
  }
  return {{"groups", std::move(list)}, {"capacity", kMaxGroups}};
}

// The flow that the request concerns; "" if none.
std::string flow_in(Bytes request) {
  const Bytes carried = Bundles::carried_by(request), message = carried.empty() ? request : carried;
  return message.size() >= kOfHeader && be8(message, kOfType) == kFlowModMsg ? flow_mod_text(message) : "";
}

json refusal_json(const RefusalRecord &r, std::int64_t now) {
  return {{"age_s", seconds(now - r.when_ns)},
          {"peer", r.peer},
          {"request", message_name(be8(r.request, kOfType))},
          {"xid", r.xid},
          {"flow", flow_in(r.request)},
          {"error", r.verdict.error->name},
          {"type", r.verdict.error->type},
          {"code", r.verdict.error->code},
          {"field", r.verdict.what},
          {"reason", r.verdict.why}};
}

json refusals_view(Agent &agent) {
  json list = json::array();
  for (const RefusalRecord &r : agent.of_switch().refusals.latest()) list.push_back(refusal_json(r, agent.of_switch().now()));
  return {{"refusals", std::move(list)}, {"total", agent.of_switch().refusals.total()}};
}

// The openflow thread only copies its events; they are interpreted here.
json trace_answer(const json &args) {
  const TraceQuestion question = trace_question(args);
  TraceSnapshot snapshot;
  collected([&snapshot](Agent &a) {
    snapshot = trace_snapshot(a);
    return json();
  });
  return trace_view(question, snapshot);
}

// The last few elements of a list, latest first.
template <typename List, typename Show>
json latest(const List &list, Show &&show) {
  json shown = json::array();
  for (auto at = list.rbegin(); at != list.rend() && shown.size() < kErrorsInStatus; ++at) shown.push_back(show(*at));
  return shown;
}

json port_packets_json(const ss_pkt_counts &c) {
  return {{"port", c.port == 0 ? json() : json(c.port)},
          {"in", c.in},
          {"in_limited", c.in_limited},
          {"in_full", c.in_full},
          {"in_unwanted", c.in_unwanted},
          {"in_too_long", c.in_too_long},
          {"out", c.out},
          {"out_full", c.out_full},
          {"out_down", c.out_down},
          {"out_refused", c.out_refused},
          {"out_nowhere", c.out_nowhere}};
}

// The data plane reports the counts of the ports about once a second.
json packets_view(Agent &agent) {
  const Packets &packets = agent.of_switch().packets;
  const PacketCounters &c = packets.counters();
  json ports = json::array(), controllers = json::array();
  for (const auto &[number, counts] : packets.ports()) ports.push_back(port_packets_json(counts));
  for (const Connection *one : agent.of_switch().controllers.all())
    controllers.push_back({{"peer", one->peer().name},
                           {"in", one->session().packets_in},
                           {"in_dropped", one->session().packets_lost},
                           {"out", one->session().packets_out},
                           {"unsent_bytes", one->unsent()}});
  return {{"data_plane", packets.has_data_plane()},
          {"wanted", packets.wanted()},
          {"in", c.in},
          {"in_unwanted", c.in_unwanted},
          {"in_sent", c.in_sent},
          {"in_dropped", c.in_dropped},
          {"out", c.out},
          {"out_refused", c.out_refused},
          {"out_full", c.out_full},
          {"ports", std::move(ports)},
          {"controllers", std::move(controllers)}};
}

json status(Agent &agent) {
  const Flows &flows = agent.flows();
  std::map<std::string, std::size_t> roles;
  for (const Connection *connection : agent.of_switch().controllers.all()) ++roles[role_name(connection->session().role)];
  return {{"datapath_id", fmt::format("{:016x}", agent.of_switch().settings.datapath_id)},
          {"controllers", roles},
          {"endpoints", endpoints_json(agent)},
          {"flows", flows.table().size()},
          {"capacity", flows.capacity()},
          {"meters", agent.of_switch().meters.all().size()},
          {"meter_capacity", agent.of_switch().target().meters},
          {"undecided", flows.in_flight().undecided_adds()},
          {"refused", agent.of_switch().refusals.total()},
          {"failed", flows.counters().failed},
          {"last_refusals", latest(agent.of_switch().refusals.latest(),
                                   [now = agent.of_switch().now()](const auto &r) { return refusal_json(r, now); })},
          {"last_failures", latest(flows.late_failures(), failure_json)}};
}

}  // namespace

void register_views(Agent *(*agent)()) {
  current_agent = agent;
  control::register_view("flows", [](const json &args) {
    return collected([filter = filter_of(args)](Agent &a) { return flows_view(a, filter); });
  });
  control::register_view("controllers", [](const json &) { return collected(controllers_view); });
  control::register_view("meters", [](const json &) { return collected(meters_view); });
  control::register_view("groups", [](const json &) { return collected(groups_view); });
  control::register_view("packets", [](const json &) { return collected(packets_view); });
  control::register_view("trace", trace_answer);
  control::register_view("capabilities",
                         [](const json &) { return collected([](Agent &a) { return capabilities(a.of_switch().target()); }); });
  control::register_view("refusals", [](const json &) { return collected(refusals_view); });
  control::register_status("openflow", [] { return collected(status); });
  health::add_check(health::Kind::ready, "openflow", [] { return current_agent() ? "" : kNotRunning; });
  health::add_check(health::Kind::alive, "openflow", [] {
    Agent *running = current_agent();
    return !running || running->run([](Agent &) {}) ? "" : kTooBusy;
  });
}

}  // namespace host::of_ss
