// Match fields: their table, and the walks over it: from the wire, to the wire, to text, and the comparisons for deletes and
// overlap checks. Southbound matches are canonical: fields in the order of the table, exact fields without a mask, fields whose
// mask is all zeros left out; equal matches are therefore equal bytes. Pure functions, any thread.
//
// Wire layout: OpenFlow 1.3.5, 7.2.3; southbound layout: southbound.h.
#pragma once

#include <cstdint>
#include <string>

#include "host/of_ss/wire/target_capabilities.h"
#include "host/of_ss/wire/wire.h"
#include "southbound_view.h"

namespace host::of_ss {

// The experimenter of the match field for the application type: field 1, 4 bytes, no mask.
inline constexpr std::uint32_t kKelimExperimenter = 0x004b454c;

// The prerequisite of a field within its match (7.2.3.6).
enum class Needs : std::uint8_t { nothing, vlan, ip, ipv4, ipv6, tcp, udp, icmpv4, icmpv6 };

// The values allowed for a field.
enum class Range : std::uint8_t { up_to_max, port_number, vid };

struct OxmField {
  std::uint8_t number;  // oxm_field, and the row's index in the table
  const char *name;
  bool supported;
  std::uint8_t width;  // of the value in bytes; 6 and 16 are strings of bytes, the others numbers
  bool maskable;       // southbound
  Needs needs;
  Range range;
  std::uint16_t max;  // for numbers that do not fill their width
};

// One row per field of OFPXMC_OPENFLOW_BASIC, then the application type.
inline constexpr std::size_t kOxmFields = 41, kOxmAppType = 40;
enum OxmNumber : std::uint8_t {
  kOxmInPort = 0,
  kOxmEthDst = 3,
  kOxmEthSrc = 4,
  kOxmEthType = 5,
  kOxmVlanVid = 6,
  kOxmVlanPcp = 7,
  kOxmIpDscp = 8,
  kOxmIpProto = 10,
  kOxmIpv6Exthdr = 39,
};
const OxmField &oxm_field(std::size_t number);
// The fields that the library can match on, as bits.
std::uint64_t known_match_fields();

// The three operations on the value of one field: check a wire value (null: no mask), convert it to southbound layout, and write
// a southbound value to the wire.
Verdict check_value(const OxmField &field, const std::byte *value, const std::byte *mask);
void put_southbound_value(const OxmField &field, const std::byte *wire, std::byte *out);
void put_wire_value(const OxmField &field, const std::byte *southbound, Writer &out);
std::string value_text(const OxmField &field, const std::byte *southbound);

// The header of a field of OFPXMC_OPENFLOW_BASIC, on the wire and southbound, in host order.
constexpr std::uint32_t oxm_header(const OxmField &field, bool masked) {
  return 0x80000000u | std::uint32_t{field.number} << 9 | (masked ? 0x100u | 2u * field.width : field.width);
}

// The fields of a match in a message, and their positions.
struct WireMatch {
  std::uint64_t present = 0;           // bit n: field n
  const std::byte *value[kOxmFields];  // if present
  const std::byte *mask[kOxmFields];   // if present; null: exact
  std::uint16_t eth_type = 0;          // 0: not matched on
  std::uint8_t ip_proto = 0;           // valid when present
  std::size_t wire_len = 0;            // with header and padding

  bool has(std::size_t field) const { return present >> field & 1; }
};

// Checks and reads the match (with its 4-byte header and padding) at the start of `from`, for that target.
Verdict decode_match(Bytes from, const TargetCapabilities &target, WireMatch &match);

// True if the match meets the prerequisite `needs`.
bool satisfies(const WireMatch &match, Needs needs);
// The prerequisite as text; "" if there is none.
const char *needs_text(Needs needs);

// Writes the southbound slots of `match` to `out`, which has room for kMaxSouthboundMatch, and the application type of table 1
// when `service_chain`. Returns the number of bytes.
inline constexpr std::size_t kMaxSouthboundMatch = 512;
std::size_t encode_southbound_match(const WireMatch &match, bool service_chain, std::byte *out);

// Writes southbound slots as a wire match with header and padding; without the application type when `service_chain`. Returns its
// length without the padding.
std::size_t encode_wire_match(Bytes slots, bool service_chain, Writer &out);

// Southbound slots as "in_port=1,eth_type=0x0800,ipv4_dst=10.0.0.0/24"; empty for a match of everything.
std::string match_text(Bytes slots);

// A match from the wire, valid or not, as text: fields as in match_text, unknown or unsupported ones in hexadecimal; "..." where
// the bytes end early.
std::string wire_match_text(Bytes from);

// Likewise for the single field at the start of `from`.
std::string wire_field_text(Bytes from);

// True for a flow that the service chain translates: of table 1, or with that application type in its match.
bool is_for_service_chain(Bytes slots);

// True if `general` matches every packet that `specific` matches.
bool match_covers(Bytes general, Bytes specific);

// True if a packet can match both.
bool matches_overlap(Bytes a, Bytes b);

// The shape of a match, which is the match with every value zero: it shows the bits that the match fixes. Written to `out`, which
// has room for kMaxSouthboundMatch.
Bytes match_shape(Bytes slots, std::byte *out);

// The match reduced to the bits of `shape`, all of which it fixes. Written to `out` likewise.
Bytes match_projection(Bytes slots, Bytes shape, std::byte *out);

}  // namespace host::of_ss
