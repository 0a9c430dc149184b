// Reads the action list of a flow-mod or a packet-out (platform/include/southbound.h), in its order. Pure functions, any thread.
#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "southbound_view.h"

namespace programmer {

// One action; its types and fields are OpenFlow's (1.3.5, 7.2.4 and 7.2.3.7).
struct Action {
  enum Type : std::uint16_t {
    kOutput = 0,
    kPushVlan = 17,
    kPopVlan = 18,
    kSetQueue = 21,
    kSetTtl = 23,
    kDecTtl = 24,
    kSetField = 25,
  };
  Type type = kOutput;
  std::uint8_t field = 0;                // of kSetField
  std::uint32_t number = 0;              // port, queue, type of a tag, time to live, or the value of a field of up to 4 bytes
  std::array<std::uint8_t, 16> bytes{};  // the value of a longer field, in network order
};

// Null, or the reason why the list cannot be carried out: malformed bytes, or an action other than these or on another field.
// `out` then holds the actions before that one. Entries of groups are skipped, because the actions of their buckets follow them.
const char *read_actions(southbound::bytes list, std::vector<Action> &out);

// True if an entry's members cannot express the list: it has several outputs, an action after the output, or an action other than
// output, set_queue, and set_field of Ethernet addresses, VLAN tag and DSCP.
bool says_more(const std::vector<Action> &list);

}  // namespace programmer
