// Reads from a packed flow record what any real target has to program: value and mask of each field, the actions and the
// priority. Pure functions, any thread.
//
// Match and rewrites come from the record's access-control entries, of which an ordinary flow has one and a flow of the service
// chain several; priority, table, cookie and meter come from the flow-mod in the record, and so does the action list of an
// ordinary flow if an entry cannot express it.
#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "programmer/actions.h"
#include "record_reader.h"

namespace programmer {

using records::Bytes;

// The fields that flows match on. Addresses are in network order, numbers in host order.
struct Fields {
  std::uint32_t in_port = 0;
  std::uint16_t eth_type = 0;
  std::uint16_t vlan_id = 0;
  std::uint8_t vlan_pcp = 0;
  bool tagged = false;  // in a mask: the flow requires a VLAN tag, or none
  std::array<std::uint8_t, 6> eth_dst{}, eth_src{};
  std::uint8_t proto = 0;
  std::uint8_t dscp = 0;
  std::uint16_t ext_headers = 0;
  std::uint16_t l4_src = 0, l4_dst = 0;  // ports, or ICMP type and code
  std::array<std::uint8_t, 4> ipv4_src{}, ipv4_dst{};
  std::array<std::uint8_t, 16> ipv6_src{}, ipv6_dst{};

  bool operator==(const Fields &) const = default;
};

struct EntryActions {
  enum Set : std::uint8_t { kEthDst = 1, kEthSrc = 2, kVlanId = 4, kVlanPcp = 8, kDscp = 16, kQueue = 32 };
  std::uint8_t sets = 0;  // which of these members are set
  std::array<std::uint8_t, 6> eth_dst{}, eth_src{};
  std::uint16_t vlan_id = 0;
  std::uint8_t vlan_pcp = 0;
  std::uint8_t dscp = 0;
  std::uint32_t queue = 0;
  std::uint32_t output = 0;  // a port, or a reserved one of OpenFlow 1.3.5, 7.2.1; 0: the packet is dropped
};

struct Entry {
  Fields value, mask;
  EntryActions actions;
};

struct FlowProgram {
  std::uint32_t rank = 0;  // the highest wins: priority << 1 | (the table is 1), + 1
  std::uint64_t cookie = 0;
  std::uint32_t meter = 0;  // 0: none
  std::vector<Entry> entries;
  std::vector<Action> list;  // the whole action list, if the entry cannot express it: the entry's actions then do not count
};

// Null, or the reason why the flow cannot be programmed: malformed bytes, or an unsupported field or action.
const char *read_program(Bytes flow_record, FlowProgram &out);

}  // namespace programmer
