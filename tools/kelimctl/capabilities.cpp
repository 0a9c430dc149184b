// kelimctl capabilities: what controllers can expect of the agent.
#include "kelimctl/views.h"

namespace kelimctl {
namespace {

std::string yes_no(const Json &row, const char *key) {
  return row.value(key, false) ? "yes" : "no";
}

std::string words(const Json &row, const char *key) {
  std::string text;
  for (const Json &word : row.value(key, Json::array())) text += (text.empty() ? "" : ", ") + word.get<std::string>();
  return text;
}

struct Section {
  const char *title, *key;
  std::vector<Member> members;
};

// Unsupported entries are listed in one line below the table.
std::string section_text(const Section &section, const Json &data, const Look &look) {
  Json supported = Json::array();
  std::string others;
  for (const Json &row : data.value(section.key, Json::array()))
    if (row.value("supported", true))
      supported.push_back(row);
    else
      others += (others.empty() ? "" : ", ") + cell(row, "name");
  std::string text = std::string(look.markdown ? "### " : "") + section.title + "\n" + (look.markdown ? "\n" : "") +
                     list_text(supported, section.members, "None.", look);
  if (others.empty()) return text;
  if (look.markdown) text += '\n';
  for (std::string line : wrap("Refused: " + others + ".", look.markdown ? 120 : look.width)) {
    line.erase(line.find_last_not_of(' ') + 1);
    text += line + '\n';
  }
  return text;
}

// The errors, one row per type.
Json errors_by_type(const Json &errors) {
  Json rows = Json::array();
  for (const Json &error : errors) {
    if (rows.empty() || rows.back()["type"] != error.value("type", 0))
      rows.push_back({{"type", error.value("type", 0)}, {"codes", ""}});
    std::string codes = cell(rows.back(), "codes");
    rows.back()["codes"] = codes + (codes.empty() ? "" : ", ") + cell(error, "name") + "=" + cell(error, "code");
  }
  return rows;
}

}  // namespace

Json capabilities_data(Link &link, const ViewOptions &) {
  return link.view("capabilities");
}

std::string capabilities_text(const Json &data, const Look &look) {
  const Member number{{"NUMBER", true}, "number"}, type{{"TYPE", true}, "type"}, name{{"NAME"}, "name"};
  const Section sections[] = {
      {"Messages from controllers",
       "messages",
       {type,
        name,
        {{"COMMANDS", false, true}, "commands", words},
        {{"FROM A SLAVE"},
         "writes",
         [](const Json &row, const char *key) { return std::string(row.value(key, false) ? "no" : "yes"); }}}},
      {"Flow-mod flags", "flow_flags", {number, name}},
      {"Match fields",
       "match_fields",
       {number, name, {{"MASK"}, "mask", yes_no}, {{"SET-FIELD"}, "set", yes_no}, {{"NEEDS", false, true}, "needs"}}},
      {"Instructions", "instructions", {type, name}},
      {"Actions", "actions", {type, name}},
      {"Reserved ports for output",
       "reserved_ports",
       {number, name, {{"OF FLOWS"}, "flows", yes_no}, {{"OF PACKET-OUTS"}, "packet_outs", yes_no}}},
      {"Meter bands", "meter_bands", {number, name}},
      {"Meter flags", "meter_flags", {number, name}},
      {"Limits", "limits", {{{"WHAT"}, "name"}, {{"LIMIT", true}, "limit"}}},
      {"Errors", "errors_by_type", {type, {{"CODES", false, true}, "codes"}}},
  };
  Json shown = data;
  const std::string target = cell(data, "target");
  shown["errors_by_type"] = errors_by_type(data.value("errors", Json::array()));
  std::string text = target.empty() ? "" : "With the target " + target + ".\n";
  for (const Section &section : sections) text += (text.empty() ? "" : "\n") + section_text(section, shown, look);
  return text;
}

}  // namespace kelimctl
