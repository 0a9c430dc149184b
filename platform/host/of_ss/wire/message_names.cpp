#include "host/of_ss/wire/message_names.h"

#include <array>
#include <span>

#include "host/of_ss/wire/multipart.h"
#include "host/of_ss/wire/wire.h"

namespace host::of_ss {
namespace {

using Names = std::span<const char *const>;

constexpr const char *kFlowCommands[] = {"add", "modify", "modify strict", "delete", "delete strict"};
constexpr const char *kCommands[] = {"add", "modify", "delete"};
constexpr const char *kMultiparts[] = {"DESC",         "FLOW",           "AGGREGATE",      "TABLE",          "PORT_STATS",
                                       "QUEUE",        "GROUP",          "GROUP_DESC",     "GROUP_FEATURES", "METER",
                                       "METER_CONFIG", "METER_FEATURES", "TABLE_FEATURES", "PORT_DESC"};
static_assert(std::size(kMultiparts) == kMultipartTypes);

struct Row {
  const char *name;
  Names commands = {};
};

// In the order of OfType.
constexpr std::array<Row, kTypeCount> kMessages{{
    {"HELLO"},
    {"ERROR"},
    {"ECHO_REQUEST"},
    {"ECHO_REPLY"},
    {"EXPERIMENTER"},
    {"FEATURES_REQUEST"},
    {"FEATURES_REPLY"},
    {"GET_CONFIG_REQUEST"},
    {"GET_CONFIG_REPLY"},
    {"SET_CONFIG"},
    {"PACKET_IN"},
    {"FLOW_REMOVED"},
    {"PORT_STATUS"},
    {"PACKET_OUT"},
    {"FLOW_MOD", kFlowCommands},
    {"GROUP_MOD", kCommands},
    {"PORT_MOD"},
    {"TABLE_MOD"},
    {"MULTIPART_REQUEST", kMultiparts},
    {"MULTIPART_REPLY"},
    {"BARRIER_REQUEST"},
    {"BARRIER_REPLY"},
    {"QUEUE_GET_CONFIG_REQUEST"},
    {"QUEUE_GET_CONFIG_REPLY"},
    {"ROLE_REQUEST"},
    {"ROLE_REPLY"},
    {"GET_ASYNC_REQUEST"},
    {"GET_ASYNC_REPLY"},
    {"SET_ASYNC"},
    {"METER_MOD", kCommands},
}};

}  // namespace

const char *message_name(std::uint8_t type) {
  return type < kMessages.size() ? kMessages[type].name : "unknown";
}

const char *command_name(std::uint8_t type, std::uint8_t command) {
  if (type == kMultipartRequest && command == (kExperimenterMultipart & 0xff)) return message_name(kExperimenter);
  const Names commands = type < kMessages.size() ? kMessages[type].commands : Names{};
  return command < commands.size() ? commands[command] : "";
}

}  // namespace host::of_ss
