#include "kelimctl/views.h"

#include <fmt/format.h>

#include <chrono>
#include <cstdio>
#include <map>
#include <thread>

#include "kelimctl/table.h"

namespace kelimctl {
namespace {

// A value as a cell: nothing for what is not there.
std::string cell(const Json &row, const char *key) {
  const auto found = row.find(key);
  if (found == row.end() || found->is_null()) return "-";
  return found->is_string() ? found->get<std::string>() : found->dump();
}

std::string decimals(const Json &row, const char *key) {
  char text[32];
  std::snprintf(text, sizeof text, "%.1f", row.value(key, 0.0));
  return text;
}

// A column of a list of objects: its title, the member that it shows and how.
struct Member {
  Column column;
  const char *key;
  std::string (*text)(const Json &, const char *) = cell;
};

std::string list_text(const Json &rows, const std::vector<Member> &members, const char *none) {
  if (!rows.is_array() || rows.empty()) return std::string(none) + "\n";
  std::vector<Column> columns;
  columns.reserve(members.size());
  for (const Member &member : members) columns.push_back(member.column);
  Table table(columns);
  for (const Json &row : rows) {
    std::vector<std::string> cells;
    cells.reserve(members.size());
    for (const Member &member : members) cells.push_back(member.text(row, member.key));
    table.add(std::move(cells));
  }
  return table.text();
}

// "3 of 5000 shown; ..." where a list was cut short.
std::string cut_note(std::size_t shown, const Json &data) {
  const std::size_t total = data.value("total", shown);
  if (total <= shown) return "";
  return std::to_string(shown) + " of " + std::to_string(total) + " shown; --limit gives more\n";
}

// "flow" -> "s_policy_kelim.flow": the package of nearly every type may be left out.
std::string full_type(const std::string &name) {
  return name.find('.') == std::string::npos ? "s_policy_kelim." + name : name;
}

Json scan(Link &link, const std::string &type, const ViewOptions &options) {
  return link.view("mom", {{"op", "scan"}, {"type", full_type(type)}, {"limit", options.limit}});
}

// ---- flows

std::string flow_key(const Json &key) {
  return cell(key, "flow_index") + ":" + cell(key, "vsd_id");
}

// Records of a type by their flow.
std::map<std::string, Json> by_flow(const Json &data) {
  std::map<std::string, Json> records;
  for (const Json &object : data.value("objects", Json::array())) {
    const Json record = object.value("record", Json::object());
    records[flow_key(record.value("index", Json::object()))] = record;
  }
  return records;
}

std::string without_prefix(const std::string &status) {
  return status.starts_with("STATUS_") ? status.substr(7) : status;
}

// What the controllers asked for, joined with what is stored, what the programming service said and what was counted. A flow that
// only one side knows shows as such.
Json flows_data(Link &link, const ViewOptions &options) {
  const Json asked = link.view("flows", {{"limit", options.limit}});
  auto stored = by_flow(scan(link, "flow", options));
  auto answers = by_flow(scan(link, "flow_sta", options));
  auto counters = by_flow(scan(link, "flow_counter", options));
  Json rows = Json::array();
  const auto add = [&](Json row, const std::string &key) {
    row["stored"] = stored.contains(key);
    row["answer"] = answers.contains(key) ? Json(without_prefix(answers[key].value("status", ""))) : Json();
    row["packets"] = counters.contains(key) ? counters[key].value("packet_sum", Json(0)) : Json(0);
    row["bytes"] = counters.contains(key) ? counters[key].value("byte_sum", Json(0)) : Json(0);
    rows.push_back(std::move(row));
    stored.erase(key);
  };
  for (const Json &flow : asked.value("flows", Json::array())) add(flow, cell(flow, "index") + ":0");
  for (const auto &[key, record] : std::map(stored)) {
    add({{"index", cell(record.value("index", Json::object()), "flow_index")},
         {"state", "not asked"},
         {"match", "?"},
         {"actions", "?"}},
        key);
  }
  Json data = asked;
  data["flows"] = std::move(rows);
  return data;
}

std::string flows_text(const Json &data) {
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
  };
  const Json rows = data.value("flows", Json::array());
  const Json failures = data.value("failures", Json::array());
  std::string text = list_text(rows, members, "No flows.") + cut_note(rows.size(), data);
  if (!failures.empty()) {
    text += "\nFailed after they had been accepted, the last ones:\n" + list_text(failures,
                                                                                  {{{"INDEX", true}, "index"},
                                                                                   {{"TABLE", true}, "table"},
                                                                                   {{"PRIO", true}, "priority"},
                                                                                   {{"MATCH", false, true}, "match"},
                                                                                   {{"ERROR"}, "error"}},
                                                                                  "");
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

Json meters_data(Link &link, const ViewOptions &options) {
  Json data = link.view("meters");
  std::map<std::string, std::string> status;
  for (const Json &object : scan(link, "meter", options).value("objects", Json::array())) {
    const Json record = object.value("record", Json::object());
    status[cell(record.value("index", Json::object()), "meter_id")] = without_prefix(record.value("status", ""));
  }
  for (Json &meter : data["meters"])
    meter["answer"] = status.contains(cell(meter, "meter")) ? Json(status[cell(meter, "meter")]) : Json();
  return data;
}

std::string meters_text(const Json &data) {
  return list_text(data.value("meters", Json::array()),
                   {{{"METER", true}, "meter"},
                    {{"BANDS", false, true}, "bands", bands_text},
                    {{"ANSWER"}, "answer"},
                    {{"AGE s", true}, "age_s", decimals}},
                   "No meters.");
}

Json controllers_data(Link &link, const ViewOptions &) {
  return link.view("controllers");
}

std::string controllers_text(const Json &data) {
  std::string text = "Datapath " + cell(data, "datapath_id") + ":";
  for (const Json &endpoint : data.value("endpoints", Json::array()))
    text += " " + (endpoint.is_string() ? endpoint.get<std::string>() : endpoint.dump());
  return text + "\n\n" +
         list_text(data.value("controllers", Json::array()),
                   {{{"CONTROLLER", false, true}, "peer"},
                    {{"ROLE"}, "role"},
                    {{"SINCE s", true}, "since_s", decimals},
                    {{"RECEIVED", true}, "received"},
                    {{"SENT", true}, "sent"},
                    {{"ERRORS", true}, "errors"},
                    {{"UNSENT BYTES", true}, "unsent_bytes"}},
                   "No controller is connected.");
}

Json refusals_data(Link &link, const ViewOptions &) {
  return link.view("refusals");
}

std::string refusals_text(const Json &data) {
  return list_text(data.value("refusals", Json::array()),
                   {{{"AGE s", true}, "age_s", decimals},
                    {{"CONTROLLER"}, "peer"},
                    {{"REQUEST"}, "request"},
                    {{"ERROR", false, true}, "error"},
                    {{"FIELD", false, true}, "field"},
                    {{"REASON", false, true}, "reason"}},
                   "Nothing was refused.");
}

// Looks at least twice, because a difference must be seen twice, and again while something is under way.
Json audit_data(Link &link, const ViewOptions &) {
  Json data = link.view("audit");
  for (int looks = 1; looks == 1 || (looks < 50 && !data.value("settled", false)); ++looks) {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    data = link.view("audit");
  }
  return data;
}

std::string audit_text(const Json &data) {
  if (!data.value("settled", false)) return "Something is under way all the time; nothing can be said.\n";
  return list_text(data.value("differences", Json::array()),
                   {{{"WHAT"}, "kind"}, {{"NUMBER", true}, "number"}, {{"DIFFERENCE"}, "what"}},
                   "The database holds what was asked for.");
}

int audit_status(const Json &data) {
  return data.value("settled", false) && data.value("differences", Json::array()).empty() ? kDone : kFailed;
}

Json timings_data(Link &link, const ViewOptions &) {
  return link.view("timings");
}
std::string timings_text(const Json &data) {
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
                   "Nothing was timed so far.");
}

Json congestion_data(Link &link, const ViewOptions &) {
  return link.view("congestion");
}
std::string congestion_text(const Json &data) {
  Json rows = Json::array();
  if (data.contains("pipeline")) {
    rows.push_back(data["pipeline"]);
    rows.back()["type"] = "all together";
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
                   "No topics.");
}

// A record as lines of "name: value", sub-records indented.
void add_lines(std::string &text, const Json &value, std::size_t indent) {
  for (const auto &[name, member] : value.items()) {
    text += std::string(indent, ' ') + name + ":";
    const bool list_of_texts = member.is_array() && (member.empty() || !member.front().is_object());
    if (member.is_object() || (member.is_array() && !list_of_texts)) {
      text += '\n';
      add_lines(text, member, indent + 2);
      continue;
    }
    std::string shown = member.is_string() ? member.get<std::string>() : member.dump();
    if (list_of_texts) {
      shown.clear();
      for (const Json &item : member)
        shown += (shown.empty() ? "" : " ") + (item.is_string() ? item.get<std::string>() : item.dump());
    }
    for (std::string piece : wrap(shown, Table::kWidth - std::min<std::size_t>(indent + name.size() + 2, 60))) {
      piece.erase(piece.find_last_not_of(' ') + 1);
      text += (text.ends_with(':') ? " " : std::string(indent + name.size() + 2, ' ')) + piece + '\n';
    }
  }
}

}  // namespace

const std::vector<ViewCommand> &view_commands() {
  static const std::vector<ViewCommand> commands = {
      {"flows", "what was asked, what is stored, what the programming service said, the counters", flows_data, flows_text},
      {"meters", "the meters", meters_data, meters_text},
      {"controllers", "the controller connections", controllers_data, controllers_text},
      {"refusals", "the last requests that were refused, with the reason", refusals_data, refusals_text},
      {"audit", "compares what was asked for with what is stored; exit status 1 when they differ", audit_data, audit_text,
       audit_status},
      {"timings", "how long the daemon's operations take", timings_data, timings_text},
      {"congestion", "writes on their way to the database, by topic", congestion_data, congestion_text},
  };
  return commands;
}

Json database_list(Database &database, const std::string &type, const ViewOptions &options) {
  return database.query({{"op", "ls"}, {"type", full_type(type)}, {"limit", options.limit}});
}

std::string database_list_text(const Json &data) {
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

std::string change_text(const Json &change, bool keys) {
  std::string text = fmt::format("{} {:<9} {} (database {})\n", cell(change, "at"), cell(change, "change"), cell(change, "key"),
                                 cell(change, "db"));
  if (!keys) add_lines(text, change.value("record", Json::object()), 2);
  return text;
}

std::string records_text(const Json &data) {
  std::string text;
  for (const Json &object : data.value("objects", Json::array())) {
    text += cell(object, "key") + " (database " + cell(object, "db") + ")\n";
    add_lines(text, object.value("record", Json::object()), 2);
  }
  return text;
}

Json database_stats(Database &database) {
  Json data = database.query({{"op", "stats"}});
  data["client"] = database.client();
  return data;
}

std::string database_stats_text(const Json &data) {
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
                               "No record type was used so far.");
  const Json client = data.value("client", Json());
  if (client.is_null()) return text;
  text += "\nThe daemon: connected to databases " + client.value("connected", Json::array()).dump() + ", " +
          cell(client, "delivered") + " notifications delivered, " + cell(client, "queued") + " under way, " +
          cell(client, "refused_writes") + " writes refused\n";
  const Json skipped = client.value("skipped", Json::object());
  for (const auto &[kind, count] : skipped.items()) text += "skipped, " + kind + ": " + count.dump() + "\n";
  return text;
}

}  // namespace kelimctl
