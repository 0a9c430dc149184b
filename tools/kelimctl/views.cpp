#include "kelimctl/views.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <map>
#include <set>
#include <thread>

#include "kelimctl/rows.h"
#include "kelimctl/words.h"

namespace kelimctl {
namespace {

// "3 of 5000 shown; ..." if a list was cut short.
std::string cut_note(std::size_t shown, const Json &data) {
  const std::size_t total = data.value("total", shown);
  if (total <= shown) return "";
  return std::to_string(shown) + " of " + std::to_string(total) + " shown; --limit gives more\n";
}

std::string skipped_note(const Json &data) {
  const std::size_t skipped = data.value("skipped", std::size_t{0});
  return skipped == 0 ? ""
                      : std::to_string(skipped) + " stored values are none of ours and were skipped; the log names the first.\n";
}

// "flow" -> "s_policy_kelim.flow": the package of nearly every type may be omitted.
std::string full_type(const std::string &name) {
  return name.find('.') == std::string::npos ? "s_policy_kelim." + name : name;
}

// ---- joining with stored records

constexpr int kFlowDb = 8;  // flows, meters and their answers

using Records = std::map<std::string, Json>;

// The records of a type that are stored under `keys`, by key. Asks in parts, so that the daemon can work in between. Adds the
// number of values of another type to `skipped`.
Records stored(Link &link, const std::string &type, const std::vector<std::string> &keys, std::size_t &skipped) {
  constexpr std::size_t kPart = 100;
  const std::string prefix = full_type(type) + ":";
  Records records;
  for (std::size_t at = 0; at < keys.size(); at += kPart) {
    Json part = Json::array();
    for (std::size_t i = at; i < std::min(at + kPart, keys.size()); ++i) part.push_back(prefix + keys[i]);
    const Json found = link.view("mom", {{"op", "get"}, {"key", part}, {"db", kFlowDb}});
    skipped += found.value("skipped", std::size_t{0});
    for (const Json &object : found.value("objects", Json::array()))
      records[object.value("key", "").substr(prefix.size())] = object.value("record", Json::object());
  }
  return records;
}

Json member_of(const Records &records, const std::string &key, const char *member, const Json &otherwise) {
  const auto found = records.find(key);
  return found == records.end() ? otherwise : found->second.value(member, otherwise);
}

// The programming service's answer; null if there is none.
Json answer_in(const Records &records, const std::string &key) {
  if (!records.contains(key)) return nullptr;
  const std::string status = member_of(records, key, "status", "");
  return status.starts_with("STATUS_") ? status.substr(7) : status;
}

// ---- flows

using Rows = std::vector<std::pair<std::string, Json>>;  // by the key in the database

// Adds the stored flows that are not among the rows.
void add_not_asked(Rows &rows, const Json &kept) {
  std::set<std::string> asked;
  for (const auto &[key, row] : rows) asked.insert(key);
  for (const Json &object : kept.value("objects", Json::array())) {
    const std::string key = object.value("key", "").substr(full_type("flow").size() + 1);
    if (asked.contains(key)) continue;
    rows.emplace_back(key,
                      Json{{"index", key.substr(0, key.find(':'))}, {"state", "not asked"}, {"match", "?"}, {"actions", "?"}});
  }
}

bool is_whole(const Json &list, const char *member) {
  return list.value("total", std::size_t{0}) <= list.value(member, Json::array()).size();
}

// The rows, joined with stored records, answers and counters.
Json joined(Link &link, const Rows &rows, std::size_t &skipped) {
  std::vector<std::string> keys;
  for (const auto &[key, row] : rows) keys.push_back(key);
  const Records flows = stored(link, "flow", keys, skipped), answers = stored(link, "flow_sta", keys, skipped),
                counters = stored(link, "flow_counter", keys, skipped);
  Json all = Json::array();
  for (auto [key, row] : rows) {
    row["stored"] = flows.contains(key);
    row["answer"] = answer_in(answers, key);
    row["packets"] = member_of(counters, key, "packet_sum", 0);
    row["bytes"] = member_of(counters, key, "byte_sum", 0);
    if (row["stored"] || row["state"] != "not asked") all.push_back(std::move(row));
  }
  return all;
}

Rows rows_of(const Json &data) {
  Rows rows;
  for (const Json &flow : data.value("flows", Json::array())) rows.emplace_back(cell(flow, "index") + ":0", flow);
  return rows;
}

void join(Link &link, const Rows &rows, Json &data) {
  std::size_t skipped = 0;
  data["flows"] = joined(link, rows, skipped);
  data["skipped"] = skipped;
}

Json chosen_flows(Link &link, const ViewOptions &options) {
  Json args = {{"limit", options.limit}};
  if (!options.cookie.empty()) args["cookie"] = options.cookie;
  if (!options.state.empty()) args["state"] = options.state;
  if (!options.controller.empty()) args["controller"] = options.controller;
  if (!options.match.empty()) args["match"] = match_terms(options.match);
  return link.view("flows", args);
}

// The requested flows and their outcome. A flow that only one side knows shows as such, but a flow that is only stored shows only
// if both lists are whole: a cut list does not tell whether the flow was requested. The stored flows are listed first, so that a
// flow requested between the two queries does not show as unrequested. With filters, flows that are only stored are left out:
// only their index is known.
Json flows_data(Link &link, const ViewOptions &options) {
  if (options.filters()) {
    Json data = chosen_flows(link, options);
    join(link, rows_of(data), data);
    data.erase("failures");  // these flows are gone
    data["total"] = data["flows"].size() < options.limit ? Json(data["flows"].size()) : data["total"];
    return data;
  }
  const Json kept = link.view("mom", {{"op", "ls"}, {"type", full_type("flow")}, {"db", kFlowDb}, {"limit", options.limit}});
  Json data = link.view("flows", {{"limit", options.limit}});
  Rows rows = rows_of(data);
  data["whole"] = is_whole(data, "flows") && is_whole(kept, "objects");
  if (data["whole"]) add_not_asked(rows, kept);
  join(link, rows, data);
  return data;
}

std::string flows_text(const Json &data, const Look &look) {
  const std::vector<Member> members = {
      {{"INDEX", true}, "index"},
      {{"TBL", true}, "table"},
      {{"PRIO", true}, "priority"},
      {{"MATCH", false, true}, "match"},
      {{"ACTIONS", false, true}, "actions"},
      {{"STATE"}, "state"},
      {{"DB"}, "stored", [](const Json &row, const char *key) { return std::string(row.value(key, false) ? "yes" : "no"); }},
      {{"ANSWER"}, "answer"},
      {{"PACKETS", true}, "packets"},
      {{"BYTES", true}, "bytes", cell, true},
      {{"COOKIE"}, "cookie", cell, true},
      {{"CONTROLLER"}, "controller", cell, true},
      {{"AGE s", true}, "age_s", decimals, true},
      {{"IDLE s", true}, "idle_timeout", cell, true},
      {{"HARD s", true}, "hard_timeout", cell, true},
      {{"LATENCY us", true}, "latency_us", cell, true},
  };
  const Json rows = data.value("flows", Json::array());
  const Json failures = data.value("failures", Json::array());
  std::string text = list_text(rows, members, "No flows.", look) + cut_note(rows.size(), data) + skipped_note(data);
  if (!data.value("whole", true)) text += "Stored flows that nobody requested are not shown, because the lists are cut.\n";
  if (!failures.empty()) {
    text += "\nThe last flows that failed after they had been accepted:\n" + list_text(failures,
                                                                                       {{{"INDEX", true}, "index"},
                                                                                        {{"TABLE", true}, "table"},
                                                                                        {{"PRIO", true}, "priority"},
                                                                                        {{"MATCH", false, true}, "match"},
                                                                                        {{"ERROR"}, "error"}},
                                                                                       "", look);
  }
  return text;
}

// ---- the other views

// The rates of a meter; the unit depends on its flags (OpenFlow 1.3.5, 7.3.4.4).
std::string bands_text(const Json &row, const char *key) {
  constexpr unsigned kPacketRate = 2;
  const char *unit = (row.value("flags", 0u) & kPacketRate) != 0 ? " packets/s" : " kbit/s";
  std::string text;
  for (const Json &band : row.value(key, Json::array())) {
    text += (text.empty() ? "" : ", ") + cell(band, "type") + " above " + cell(band, "rate") + unit;
  }
  return text.empty() ? "-" : text;
}

Json meters_data(Link &link, const ViewOptions &) {
  Json data = link.view("meters");
  const auto key_of = [](const Json &meter) { return cell(meter, "meter") + ":0"; };
  std::vector<std::string> keys;
  for (const Json &meter : data["meters"]) keys.push_back(key_of(meter));
  std::size_t skipped = 0;
  const Records answers = stored(link, "meter", keys, skipped);
  data["skipped"] = skipped;
  for (Json &meter : data["meters"]) meter["answer"] = answer_in(answers, key_of(meter));
  return data;
}

std::string meters_text(const Json &data, const Look &look) {
  return list_text(data.value("meters", Json::array()),
                   {{{"METER", true}, "meter"},
                    {{"BANDS", false, true}, "bands", bands_text},
                    {{"ANSWER"}, "answer"},
                    {{"AGE s", true}, "age_s", decimals}},
                   "No meters.", look) +
         skipped_note(data);
}

Json groups_data(Link &link, const ViewOptions &) {
  return link.view("groups");
}

std::string buckets_text(const Json &row, const char *key) {
  std::string text;
  for (const Json &bucket : row.value(key, Json::array())) text += (text.empty() ? "" : " | ") + bucket.get<std::string>();
  return text.empty() ? "-" : text;
}

std::string groups_text(const Json &data, const Look &look) {
  return list_text(data.value("groups", Json::array()),
                   {{{"GROUP", true}, "group"},
                    {{"TYPE"}, "type"},
                    {{"BUCKETS", false, true}, "buckets", buckets_text},
                    {{"FLOWS", true}, "flows"},
                    {{"AGE s", true}, "age_s", decimals}},
                   "No groups.", look);
}

Json controllers_data(Link &link, const ViewOptions &) {
  return link.view("controllers");
}

std::string controllers_text(const Json &data, const Look &look) {
  return "Datapath " + cell(data, "datapath_id") + "\n\n" +
         list_text(data.value("endpoints", Json::array()),
                   {{{"ENDPOINT", false, true}, "endpoint"}, {{"STATE"}, "state"}, {{"ERROR", false, true}, "error"}},
                   "No controller is configured.", look) +
         "\n" +
         list_text(data.value("controllers", Json::array()),
                   {{{"CONTROLLER", false, true}, "peer"},
                    {{"ROLE"}, "role"},
                    {{"SINCE s", true}, "since_s", decimals},
                    {{"RECEIVED", true}, "received"},
                    {{"SENT", true}, "sent"},
                    {{"ERRORS", true}, "errors"},
                    {{"UNSENT BYTES", true}, "unsent_bytes"}},
                   "No controller is connected.", look);
}

Json packets_data(Link &link, const ViewOptions &) {
  return link.view("packets");
}

std::string port_text(const Json &row, const char *member) {
  return row.at(member).is_null() ? "none" : cell(row, member);
}

std::string packets_text(const Json &data, const Look &look) {
  const std::string head =
      fmt::format("Data plane {}, packets to controllers {}\n", data.value("data_plane", false) ? "connected" : "none",
                  data.value("wanted", false) ? "wanted" : "not wanted");
  const std::string sums = fmt::format(
      "To controllers: {} packets, {} messages sent, {} not sent to controllers that do not read, {} packets that no controller "
      "wanted\n"
      "From controllers: {} handed to the data plane, {} refused without one, {} dropped because it was backed up\n\n",
      cell(data, "in"), cell(data, "in_sent"), cell(data, "in_dropped"), cell(data, "in_unwanted"), cell(data, "out"),
      cell(data, "out_refused"), cell(data, "out_full"));
  return head + sums +
         list_text(data.value("controllers", Json::array()),
                   {{{"CONTROLLER", false, true}, "peer"},
                    {{"IN", true}, "in"},
                    {{"IN DROPPED", true}, "in_dropped"},
                    {{"OUT", true}, "out"},
                    {{"UNSENT BYTES", true}, "unsent_bytes"}},
                   "No controller is connected.", look) +
         "\n" +
         list_text(data.value("ports", Json::array()),
                   {{{"PORT", true}, "port", port_text},
                    {{"IN", true}, "in"},
                    {{"IN LIMITED", true}, "in_limited"},
                    {{"IN FULL", true}, "in_full"},
                    {{"IN UNWANTED", true}, "in_unwanted"},
                    {{"IN TOO LONG", true}, "in_too_long"},
                    {{"OUT", true}, "out"},
                    {{"OUT FULL", true}, "out_full"},
                    {{"OUT DOWN", true}, "out_down"},
                    {{"OUT REFUSED", true}, "out_refused"},
                    {{"OUT NOWHERE", true}, "out_nowhere"}},
                   "The data plane has reported no ports.", look);
}

Json plane_data(Link &link, const ViewOptions &) {
  return link.view("plane");
}

std::string filters_text(const Json &row, const char *key) {
  std::string text;
  for (const Json &filter : row.value(key, Json::array()))
    text += fmt::format("{}{} pref {} {}", text.empty() ? "" : ", ", cell(filter, "direction"), cell(filter, "pref"),
                        cell(filter, "name"));
  return text.empty() ? "-" : text;
}

std::string port_state(const Json &row, const char *) {
  return !row.value("present", false) ? "not there" : row.value("forwards", false) ? "forwards" : "forwards as before the start";
}

std::string plane_text(const Json &data, const Look &look) {
  const std::string pins =
      data.value("pinned", false) ? "pinned in " + cell(data, "pins") : "not pinned: " + cell(data, "unpinned");
  return fmt::format("The plane is {}, {} step with the database\nFlows: {} taken over as they were, {} written, {} dropped\n\n",
                     pins, data.value("in_step", false) ? "in" : "not yet in", cell(data, "taken_over"), cell(data, "written"),
                     cell(data, "dropped")) +
         list_text(data.value("ports", Json::array()),
                   {{{"PORT", true}, "port"},
                    {{"INTERFACE"}, "interface"},
                    {{"STATE"}, "present", port_state},
                    {{"OTHER FILTERS", false, true}, "others", filters_text}},
                   "No port is configured.", look);
}

Json refusals_data(Link &link, const ViewOptions &) {
  return link.view("refusals");
}

// "FLOW_MOD: OFPBMC_BAD_PREREQ, ipv4_src: what the field needs is not in the match: add table=0,..."
std::string refusal_text(const Json &row, const char *) {
  const std::string flow = row.value("flow", "");
  return fmt::format("{}: {}, {}: {}{}", cell(row, "request"), cell(row, "error"), cell(row, "field"), cell(row, "reason"),
                     flow.empty() ? "" : ": " + flow);
}

std::string refusals_text(const Json &data, const Look &look) {
  std::vector<Member> members = {{{"AGE s", true}, "age_s", decimals}, {{"CONTROLLER"}, "peer"}, {{"XID", true}, "xid"}};
  if (look.wide)
    members.insert(
        members.end(),
        {{{"REQUEST"}, "request"}, {{"ERROR"}, "error"}, {{"FIELD"}, "field"}, {{"REASON"}, "reason"}, {{"FLOW"}, "flow"}});
  else
    members.push_back({{"REFUSED", false, true}, "", refusal_text});
  return list_text(data.value("refusals", Json::array()), members, "Nothing was refused.", look);
}

// Has the process compare once and waits for the result; on a terminal, shows the progress of a long comparison.
Json one_look(Link &link) {
  using namespace std::chrono_literals;
  const auto start = std::chrono::steady_clock::now();
  Json data = link.view("audit", {{"look", true}});
  bool shown = false;
  for (auto pause = 5ms; data.value("looking", false); pause = std::min(2 * pause, 200ms)) {
    std::this_thread::sleep_for(pause);
    data = link.view("audit");
    if (!isatty(STDERR_FILENO) || std::chrono::steady_clock::now() - start < 1s) continue;
    std::fprintf(stderr, "\rcomparing: %3u %%", data.value("progress", 0U));
    shown = true;
  }
  if (shown) std::fputs("\r               \r", stderr);
  return data;
}

// Compares at least twice, because only a difference seen twice counts, and again while requests are in flight.
Json audit_data(Link &link, const ViewOptions &) {
  Json data = one_look(link);
  for (int looks = 1; looks == 1 || (looks < 50 && !data.value("settled", false)); ++looks) {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    data = one_look(link);
  }
  return data;
}

std::string audit_text(const Json &data, const Look &look) {
  if (!data.value("settled", false)) return "Requests are still in flight; try again.\n";
  return list_text(data.value("differences", Json::array()),
                   {{{"WHAT"}, "kind"}, {{"NUMBER", true}, "number"}, {{"DIFFERENCE"}, "what"}},
                   "The database holds what was asked for.", look);
}

int audit_status(const Json &data) {
  if (!data.value("settled", false)) return kCannotTell;
  return data.value("differences", Json::array()).empty() ? kDone : kFailed;
}

Json timings_data(Link &link, const ViewOptions &) {
  return link.view("timings");
}
std::string timings_text(const Json &data, const Look &look) {
  Json rows = Json::array();
  for (const Json &row : data) {
    if (row.value("count", 0) != 0) rows.push_back(row);
  }
  return list_text(rows,
                   {{{"OPERATION"}, "name"},
                    {{"COUNT", true}, "count"},
                    {{"AVERAGE us", true}, "avg_us", decimals},
                    {{"MAX us", true}, "max_us", decimals},
                    {{"LAST us", true}, "last_us", decimals},
                    {{"TOTAL us", true}, "total_us", decimals}},
                   "Nothing has been timed yet.", look);
}

Json congestion_data(Link &link, const ViewOptions &) {
  return link.view("congestion");
}
std::string congestion_text(const Json &data, const Look &look) {
  Json rows = Json::array();
  if (data.contains("pipeline")) {
    rows.push_back(data["pipeline"]);
    rows.back()["type"] = "total";
  }
  for (const Json &topic : data.value("topics", Json::array())) rows.push_back(topic);
  return list_text(rows,
                   {{{"TOPIC"}, "type"},
                    {{"DB", true}, "db"},
                    {{"WRITES", true}, "writes"},
                    {{"HIGHEST", true}, "high_water_writes"},
                    {{"BYTES", true}, "bytes"},
                    {{"HIGHEST", true}, "high_water_bytes"},
                    {{"REFUSED", true}, "refused"},
                    {{"TOTAL", true}, "total"}},
                   "No topics.", look);
}

// A record as lines of "name: value", sub-records indented.
void add_lines(std::string &text, const Json &value, std::size_t indent, const Look &look) {
  for (const auto &[name, member] : value.items()) {
    text += std::string(indent, ' ') + name + ":";
    const bool list_of_texts = member.is_array() && (member.empty() || !member.front().is_object());
    if (member.is_object() || (member.is_array() && !list_of_texts)) {
      text += '\n';
      add_lines(text, member, indent + 2, look);
      continue;
    }
    std::string shown = member.is_string() ? member.get<std::string>() : member.dump();
    if (list_of_texts) {
      shown.clear();
      for (const Json &item : member)
        shown += (shown.empty() ? "" : " ") + (item.is_string() ? item.get<std::string>() : item.dump());
    }
    for (std::string piece : wrap(
             shown, look.wide ? Table::kNoLimit : look.width - std::min<std::size_t>(indent + name.size() + 2, look.width / 2))) {
      piece.erase(piece.find_last_not_of(' ') + 1);
      text += (text.ends_with(':') ? " " : std::string(indent + name.size() + 2, ' ')) + piece + '\n';
    }
  }
}

}  // namespace

const std::vector<ViewCommand> &view_commands() {
  static const std::vector<ViewCommand> commands = {
      {"status", "one screen: version, database, controllers, flows, last errors, audit", status_data, status_text,
       "  kelimctl status\n  kelimctl status --watch\n  kelimctl status --json | jq .openflow.undecided\n"
       "  kelimctl --process kelim-programmer status\n"},
      {"flows", "requested flows with their records, answers and counters", flows_data, flows_text,
       "  kelimctl flows -o wide\n  kelimctl flows --match tcp,nw_dst=10.0.0.0/24\n  kelimctl flows --cookie 0x17/0xff --watch\n"
       "  kelimctl flows --state sent\n  kelimctl flows --json | jq '.flows[] | select(.answer != \"INSTALLED\")'\n"},
      {"meters", "the meters", meters_data, meters_text, "  kelimctl meters\n  kelimctl meters --json\n"},
      {"groups", "the groups: the actions of their buckets, and how many flows use them", groups_data, groups_text,
       "  kelimctl groups\n  kelimctl groups --json | jq '.groups[] | select(.flows == 0)'\n"},
      {"controllers", "the controller connections", controllers_data, controllers_text, "  kelimctl controllers --watch\n"},
      {"packets", "packets to and from the controllers, and those dropped with the reason", packets_data, packets_text,
       "  kelimctl packets --watch\n  kelimctl packets --json | jq '.ports[] | select(.port == 1)'\n"},
      {"plane", "what the target linux has in the kernel: pins, ports, flows found at the start, filters of others", plane_data,
       plane_text, "  kelimctl plane\n  kelimctl --process kelim-programmer plane\n"},
      {"refusals", "the last refused requests, with the reason", refusals_data, refusals_text,
       "  kelimctl refusals -o wide\n  kelimctl refusals --json | jq '.refusals[-1]'\n"},
      {"capabilities", "what controllers can expect: messages, match fields, actions, meters, limits, errors", capabilities_data,
       capabilities_text,
       "  kelimctl capabilities\n  kelimctl capabilities --json | jq '.match_fields[] | select(.supported) | .name'\n"},
      {"trace", "what happened to a flow or a request, from the controller to the answer", trace_data, trace_text,
       "  kelimctl trace 17            the flow with this index, and requests with this cookie or transaction id\n"
       "  kelimctl trace --index 17\n  kelimctl trace --cookie 0x17\n  kelimctl trace --xid 4711 --json\n",
       trace_status},
      {"audit", "compares requests with stored records; exit status 1 if they differ, 4 if that cannot be told yet", audit_data,
       audit_text, "  kelimctl audit || echo \"status $?\"\n", audit_status},
      {"timings", "how long the daemon's operations take", timings_data, timings_text, "  kelimctl timings\n"},
      {"congestion", "writes in flight to the database, by topic", congestion_data, congestion_text,
       "  kelimctl congestion --watch --interval 0.5\n"},
  };
  return commands;
}

Json database_list(Database &database, const std::string &type, const ViewOptions &options) {
  return database.query({{"op", "ls"}, {"type", full_type(type)}, {"limit", options.limit}});
}

std::string database_list_text(const Json &data, const Look &) {
  const Json objects = data.value("objects", Json::array());
  std::string text;
  for (const Json &object : objects) text += cell(object, "key") + "\n";
  return (text.empty() ? "No objects.\n" : text) + cut_note(objects.size(), data);
}

Json database_get(Database &database, const std::string &type, const std::string &key) {
  return database.query({{"op", "get"}, {"key", full_type(type) + ":" + key}});
}

Json watch_arguments(const std::string &type) {
  return type.empty() ? Json::object() : Json{{"type", full_type(type)}};
}

std::string change_text(const Json &change, bool keys, const Look &look) {
  std::string text = fmt::format("{} {:<9} {} (database {})\n", cell(change, "at"), cell(change, "change"), cell(change, "key"),
                                 cell(change, "db"));
  if (!keys) add_lines(text, change.value("record", Json::object()), 2, look);
  return text;
}

std::string records_text(const Json &data, const Look &look) {
  std::string text;
  for (const Json &object : data.value("objects", Json::array())) {
    text += cell(object, "key") + " (database " + cell(object, "db") + ")\n";
    add_lines(text, object.value("record", Json::object()), 2, look);
  }
  return text;
}

Json database_stats(Database &database) {
  Json data = database.query({{"op", "stats"}});
  data["client"] = database.client();
  return data;
}

std::string database_stats_text(const Json &data, const Look &look) {
  Json used = Json::array();
  for (const Json &type : data.value("types", Json::array())) {
    if (type.value("objects", 0) + type.value("subscribers", 0) != 0) used.push_back(type);
  }
  std::string text = "Store: " + cell(data, "store") + ", " + cell(data, "url") + "\n\n" +
                     list_text(used,
                               {{{"TYPE"}, "type"},
                                {{"DB", true}, "db"},
                                {{"OBJECTS", true}, "objects"},
                                {{"BYTES", true}, "bytes"},
                                {{"SUBSCRIBERS", true}, "subscribers"}},
                               "No record type has been used yet.", look);
  const Json client = data.value("client", Json());
  if (client.is_null()) return text;
  text += "\nThe daemon: connected to databases " + client.value("connected", Json::array()).dump() + ", " +
          cell(client, "delivered") + " notifications delivered, " + cell(client, "queued") + " queued, " +
          cell(client, "refused_writes") + " writes refused\n";
  const Json refusing = client.value("refusing", Json::object());
  for (const auto &[db, why] : refusing.items()) text += "database " + db + " refuses writes: " + why.get<std::string>() + "\n";
  const Json skipped = client.value("skipped", Json::object());
  for (const auto &[kind, count] : skipped.items()) text += "skipped, " + kind + ": " + count.dump() + "\n";
  return text;
}

}  // namespace kelimctl
