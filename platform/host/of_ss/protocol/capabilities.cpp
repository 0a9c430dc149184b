#include "host/of_ss/protocol/capabilities.h"

#include <nlohmann/json.hpp>

#include "host/of_ss/protocol/protocol.h"
#include "host/of_ss/switch/controllers.h"
#include "host/of_ss/wire/actions.h"

namespace host::of_ss {
namespace {

using nlohmann::json;

json messages() {
  json list = json::array();
  for (const MessageKind &kind : message_kinds())
    list.push_back({{"type", kind.type}, {"name", kind.name}, {"writes", kind.writes}, {"commands", kind.commands}});
  return list;
}

json match_fields(const TargetCapabilities &target) {
  json list = json::array();
  for (std::size_t number = 0; number < kOxmFields; ++number) {
    const OxmField &field = oxm_field(number);
    list.push_back({{"number", number},
                    {"name", field.name},
                    {"supported", field.supported && target.matches(number)},
                    {"mask", field.maskable},
                    {"needs", needs_text(field.needs)},
                    {"set", target.sets(number)}});
  }
  return list;
}

json of_kinds(const std::vector<Capability> &kinds) {
  json list = json::array();
  for (const Capability &kind : kinds) list.push_back({{"type", kind.type}, {"name", kind.name}, {"supported", kind.supported}});
  return list;
}

json ports() {
  json list = json::array();
  for (const ReservedPort &port : reserved_ports())
    list.push_back({{"number", port.number}, {"name", port.name}, {"flows", port.for_flows}, {"packet_outs", port.for_packets}});
  return list;
}

template <std::size_t N>
json names(const Named (&rows)[N]) {
  json list = json::array();
  for (const Named &row : rows) list.push_back({{"number", row.number}, {"name", row.name}});
  return list;
}

json errors() {
  json list = json::array();
  for (const Error *error : err::kAll) list.push_back({{"type", error->type}, {"code", error->code}, {"name", error->name}});
  return list;
}

json limits(const TargetCapabilities &target) {
  const auto limit = [](const char *name, auto value) { return json{{"name", name}, {"limit", value}}; };
  return {limit("connections", kMaxConnections),   limit("tables", kTableCount),       limit("meters", target.meters),
          limit("bands of a meter", target.bands), limit("smallest queue", kQueueMin), limit("greatest queue", target.queues)};
}

}  // namespace

json capabilities(const TargetCapabilities &target) {
  return {{"target", target.name},
          {"messages", messages()},
          {"flow_flags", names(fm::kFlagNames)},
          {"match_fields", match_fields(target)},
          {"instructions", of_kinds(instruction_kinds())},
          {"actions", of_kinds(action_kinds(target))},
          {"reserved_ports", ports()},
          {"meter_bands", names(kMeterBands)},
          {"meter_flags", names(kMeterFlags)},
          {"limits", limits(target)},
          {"errors", errors()}};
}

}  // namespace host::of_ss
