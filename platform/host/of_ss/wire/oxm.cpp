#include "host/of_ss/wire/oxm.h"

#include <arpa/inet.h>
#include <fmt/format.h>

#include <algorithm>
#include <cassert>
#include <iterator>

namespace host::of_ss {
namespace {

namespace sb = southbound;

constexpr std::uint16_t kClassBasic = 0x8000, kClassExperimenter = 0xffff;
constexpr std::uint16_t kVidPresent = 0x1000, kVidBits = 0x0fff, kVidAll = 0x1fff, kVidReserved = 4095;

using enum Needs;
using enum Range;

// OpenFlow 1.3.5, table 12. Fields that the switch does not match on are listed for their names only.
constexpr std::array<OxmField, kOxmFields> kTable{{
    // number, name, supported, width, maskable, needs, range, max
    {0, "in_port", true, 4, false, nothing, port_number, 0},
    {1, "in_phy_port", false, 4, false, nothing, up_to_max, 0},
    {2, "metadata", false, 8, true, nothing, up_to_max, 0},
    {3, "eth_dst", true, 6, true, nothing, up_to_max, 0},
    {4, "eth_src", true, 6, true, nothing, up_to_max, 0},
    {5, "eth_type", true, 2, false, nothing, up_to_max, 0xffff},
    {6, "vlan_vid", true, 2, true, nothing, vid, 0},
    {7, "vlan_pcp", true, 1, false, vlan, up_to_max, 7},
    {8, "ip_dscp", true, 1, false, ip, up_to_max, 63},
    {9, "ip_ecn", false, 1, false, ip, up_to_max, 3},
    {10, "ip_proto", true, 1, false, ip, up_to_max, 0xff},
    {11, "ipv4_src", true, 4, true, ipv4, up_to_max, 0},
    {12, "ipv4_dst", true, 4, true, ipv4, up_to_max, 0},
    {13, "tcp_src", true, 2, false, tcp, up_to_max, 0xffff},
    {14, "tcp_dst", true, 2, false, tcp, up_to_max, 0xffff},
    {15, "udp_src", true, 2, false, udp, up_to_max, 0xffff},
    {16, "udp_dst", true, 2, false, udp, up_to_max, 0xffff},
    {17, "sctp_src", false, 2, false, ip, up_to_max, 0},
    {18, "sctp_dst", false, 2, false, ip, up_to_max, 0},
    {19, "icmpv4_type", true, 1, false, icmpv4, up_to_max, 0xff},
    {20, "icmpv4_code", true, 1, false, icmpv4, up_to_max, 0xff},
    {21, "arp_op", false, 2, false, nothing, up_to_max, 0},
    {22, "arp_spa", false, 4, true, nothing, up_to_max, 0},
    {23, "arp_tpa", false, 4, true, nothing, up_to_max, 0},
    {24, "arp_sha", false, 6, true, nothing, up_to_max, 0},
    {25, "arp_tha", false, 6, true, nothing, up_to_max, 0},
    {26, "ipv6_src", true, 16, true, ipv6, up_to_max, 0},
    {27, "ipv6_dst", true, 16, true, ipv6, up_to_max, 0},
    {28, "ipv6_flabel", false, 4, true, ipv6, up_to_max, 0},
    {29, "icmpv6_type", true, 1, false, icmpv6, up_to_max, 0xff},
    {30, "icmpv6_code", true, 1, false, icmpv6, up_to_max, 0xff},
    {31, "ipv6_nd_target", false, 16, false, icmpv6, up_to_max, 0},
    {32, "ipv6_nd_sll", false, 6, false, icmpv6, up_to_max, 0},
    {33, "ipv6_nd_tll", false, 6, false, icmpv6, up_to_max, 0},
    {34, "mpls_label", false, 4, false, nothing, up_to_max, 0},
    {35, "mpls_tc", false, 1, false, nothing, up_to_max, 0},
    {36, "mpls_bos", false, 1, false, nothing, up_to_max, 0},
    {37, "pbb_isid", false, 3, true, nothing, up_to_max, 0},
    {38, "tunnel_id", false, 8, true, nothing, up_to_max, 0},
    {39, "ipv6_exthdr", true, 2, true, ipv6, up_to_max, 0x1ff},
    {40, "app_type", true, 4, false, nothing, up_to_max, 0},
}};

constexpr bool rows_stand_at_their_number() {
  for (std::size_t i = 0; i < kTable.size(); ++i)
    if (kTable[i].number != i) return false;
  return true;
}
static_assert(rows_stand_at_their_number());

// One field of a wire match.
struct WireField {
  std::uint32_t header;
  const std::byte *payload;
  bool masked() const { return header >> 8 & 1; }
  std::uint8_t length() const { return static_cast<std::uint8_t>(header); }
  std::uint16_t oxm_class() const { return static_cast<std::uint16_t>(header >> 16); }
  std::uint8_t number() const { return header >> 9 & 0x7f; }
};

// ---- VLAN ids (OpenFlow 1.3.5, 7.2.3.7)
//
// In southbound layout a VLAN id has no OFPVID_PRESENT, since it implies a tag. A mask of 0 means a tag with any id; the value 0
// with the mask OFPVID_PRESENT means no tag.

constexpr std::byte kNoTag[] = {std::byte{kVidPresent >> 8}, std::byte{0}};  // that mask on the wire
constexpr std::byte kPresentByte{kVidPresent >> 8};                          // in the second byte of a number in host order

bool is_present(const std::byte *vid) {
  return (load_be<std::uint16_t>(vid) & kVidPresent) != 0;
}

// True if the field asks only for a tag, or for none.
bool asks_for_tag_only(const OxmField &row, const std::byte *value, const std::byte *mask) {
  if (row.range != Range::vid) return false;
  const std::uint16_t vid = load_be<std::uint16_t>(value), bits = mask ? load_be<std::uint16_t>(mask) : kVidAll;
  return (bits & ~kVidAll) == 0 && (bits & kVidPresent) != 0 && (vid == 0 || (vid == kVidPresent && bits == kVidPresent));
}

bool all(const std::byte *at, std::size_t n, std::byte value) {
  return std::all_of(at, at + n, [value](std::byte b) { return b == value; });
}

bool outside_mask(const std::byte *value, const std::byte *mask, std::size_t n) {
  for (std::size_t i = 0; i < n; ++i)
    if ((value[i] & ~mask[i]) != std::byte{0}) return true;
  return false;
}

// The row of the field and the start of its value; no row for an unknown field.
const OxmField *row_of(const WireField &field, const std::byte *&value) {
  value = field.payload;
  if (field.oxm_class() == kClassBasic && field.number() < kOxmAppType) return &kTable[field.number()];
  const bool ours = field.oxm_class() == kClassExperimenter && field.length() >= 4 && field.number() == 1 &&
                    load_be<std::uint32_t>(field.payload) == kKelimExperimenter;
  if (!ours) return nullptr;
  value += 4;
  return &kTable[kOxmAppType];
}

Verdict check_vlan(const OxmField &row, const std::byte *value, const std::byte *mask) {
  const std::uint16_t vid = load_be<std::uint16_t>(value);
  const std::uint16_t bits = mask ? load_be<std::uint16_t>(mask) : kVidAll;
  if ((vid | bits) > kVidAll) return refuse(err::kBadValue, row.name, "bits above OFPVID_PRESENT are set");
  if (!(vid & kVidPresent) || !(bits & kVidPresent))
    return refuse(err::kBadValue, row.name, "a VLAN id needs OFPVID_PRESENT, also in its mask");
  if ((bits & kVidBits) == kVidBits && (vid & kVidBits) == kVidReserved)
    return refuse(err::kBadValue, row.name, "VLAN id 4095 is reserved, allowed are 0 to 4094");
  return {};
}

Verdict check_port(const OxmField &row, const std::byte *value) {
  const std::uint32_t number = load_be<std::uint32_t>(value);
  if (number != 0 && number <= port::kMax) return {};
  return refuse(err::kBadValue, row.name, "not the number of a port, allowed are 1 to 0xffffff00");
}

Verdict check_max(const OxmField &row, const std::byte *value, const std::byte *mask) {
  if (row.width > 2) return {};
  const auto number = [&row](const std::byte *at) { return row.width == 1 ? std::uint16_t(*at) : load_be<std::uint16_t>(at); };
  if (number(value) <= row.max && (!mask || number(mask) <= row.max)) return {};
  return refuse(err::kBadValue, row.name, "the value is larger than the field");
}

// True if the mask fixes every bit; of a VLAN id 13 bits count.
bool fixes_all(const OxmField &row, const std::byte *mask) {
  if (row.range == Range::vid) return load_be<std::uint16_t>(mask) == kVidAll;
  if (row.number == kOxmIpv6Exthdr) return load_be<std::uint16_t>(mask) == row.max;
  return all(mask, row.width, std::byte{0xff});
}

// The mask as kept: null for an exact value.
const std::byte *mask_of(const OxmField &row, const std::byte *value, const std::byte *mask) {
  if (row.range == Range::vid && !is_present(value)) return kNoTag;
  return mask && fixes_all(row, mask) ? nullptr : mask;
}

void keep(const OxmField &row, const std::byte *value, const std::byte *mask, WireMatch &match) {
  match.present |= std::uint64_t{1} << row.number;
  match.value[row.number] = value;
  match.mask[row.number] = mask;
  if (row.number == kOxmEthType) match.eth_type = load_be<std::uint16_t>(value);
  if (row.number == kOxmIpProto) match.ip_proto = static_cast<std::uint8_t>(*value);
}

Verdict decode_field(const WireField &field, const TargetCapabilities &target, std::uint64_t &seen, WireMatch &match) {
  const std::byte *value;
  const OxmField *row = row_of(field, value);
  if (!row) return refuse(err::kBadField, "unknown field", "the switch does not know this match field");
  if (!row->supported || !target.matches(row->number))
    return refuse(err::kBadField, row->name, "the switch does not match on this field");
  if (field.masked() && !row->maskable) return refuse(err::kBadMask, row->name, "the field takes no mask");
  const std::size_t payload = static_cast<std::size_t>(field.payload + field.length() - value);
  if (payload != std::size_t{row->width} * (field.masked() ? 2 : 1))
    return refuse(err::kMatchBadLen, row->name, "the length of the field is wrong");
  if (seen >> row->number & 1) return refuse(err::kDupField, row->name, "the field appears twice");
  seen |= std::uint64_t{1} << row->number;

  const std::byte *mask = field.masked() ? value + row->width : nullptr;
  if (mask && outside_mask(value, mask, row->width))
    return refuse(err::kBadWildcards, row->name, "the value has bits set where its mask has none");
  if (mask && all(mask, row->width, std::byte{0})) return {};
  if (asks_for_tag_only(*row, value, mask)) {
    if (!target.tag_presence)
      return refuse(err::kBadValue, row->name, "the target matches only a given VLAN id, neither untagged packets nor any tag");
  } else if (const Verdict verdict = check_value(*row, value, mask); verdict.refused()) {
    return verdict;
  }
  keep(*row, value, mask_of(*row, value, mask), match);
  return {};
}

// Deliberate: the order of the fields is free as long as the fields that each one needs are somewhere in the match; the meaning
// stays unambiguous, and controllers that order their fields differently are all served.
Verdict check_needs(const WireMatch &match) {
  for (std::uint64_t left = match.present; left; left &= left - 1) {
    const OxmField &row = kTable[static_cast<std::size_t>(std::countr_zero(left))];
    if (!satisfies(match, row.needs))
      return refuse(err::kBadPrereq, row.name, "what the field needs (eth_type, ip_proto or vlan_vid) is not in the match");
  }
  return {};
}

// Swaps the byte order of numbers between wire and southbound layout, both ways; byte strings stay as they are.
void swap_value(std::byte *to, const std::byte *from, std::size_t width) {
  if (width == 6 || width == 16)
    std::memcpy(to, from, width);
  else
    std::reverse_copy(from, from + width, to);
}

std::uint32_t southbound_header(const OxmField &row, bool masked) {
  return row.number == kOxmAppType ? sb::kOxmExpAppType : oxm_header(row, masked);
}

std::byte *put_slot(const OxmField &row, const std::byte *value, const std::byte *mask, std::byte *out) {
  const std::uint32_t header = southbound_header(row, mask);
  const std::size_t slot = sb::oxm_slot(header);
  std::memset(out, 0, slot);
  sb::put(out, 0, header);
  put_southbound_value(row, value, out + 4);
  if (mask) put_southbound_value(row, mask, out + 4 + row.width);
  if (mask && row.range == Range::vid && !is_present(value)) out[4 + row.width + 1] |= kPresentByte;
  return out + slot;
}

// One field of a southbound match.
struct FieldSlot {
  const OxmField *row = nullptr;
  const std::byte *value = nullptr;
  const std::byte *mask = nullptr;  // null: exact

  bool asks_for_no_tag() const { return row->range == Range::vid && mask && sb::get<std::uint16_t>(mask, 0) == kVidPresent; }
  // For comparisons; OFPVID_PRESENT is in the mask of every VLAN id, and in the value of those that ask for a tag.
  std::byte mask_byte(std::size_t i) const { return mask ? mask[i] | implied(i) : std::byte{0xff}; }
  std::byte value_byte(std::size_t i) const { return asks_for_no_tag() ? value[i] : value[i] | implied(i); }

 private:
  std::byte implied(std::size_t i) const { return row->range == Range::vid && i == 1 ? kPresentByte : std::byte{0}; }
};

// Takes the next field off `slots`; no row at the end, or where the bytes are not a field.
FieldSlot next_slot(Bytes &slots) {
  const sb::match_walk fields(slots);
  if (!fields.whole()) return {};
  const std::uint32_t header = fields.word();
  const std::size_t number = header == sb::kOxmExpAppType ? kOxmAppType : header >> 9 & 0x7f;
  if (number >= kOxmFields) return {};
  const OxmField &row = kTable[number];
  const bool masked = header >> 8 & 1 && number != kOxmAppType;
  if (southbound_header(row, masked) != header) return {};
  const std::byte *value = fields.body().data();
  slots = slots.subspan(fields.entry().size());
  return {&row, value, masked ? value + row.width : nullptr};
}

// The slot with the same field as `like`, with everything before it taken off `slots`; no row if the field is missing.
FieldSlot find_slot(Bytes &slots, const FieldSlot &like) {
  for (;;) {
    Bytes rest = slots;
    const FieldSlot slot = next_slot(rest);
    if (!slot.row || slot.row->number > like.row->number) return {};
    slots = rest;
    if (slot.row == like.row) return slot;
  }
}

bool slot_covers(const FieldSlot &general, const FieldSlot &specific) {
  for (std::size_t i = 0; i < general.row->width; ++i) {
    const std::byte mask = general.mask_byte(i);
    if ((mask & ~specific.mask_byte(i)) != std::byte{0}) return false;
    if (((general.value_byte(i) ^ specific.value_byte(i)) & mask) != std::byte{0}) return false;
  }
  return true;
}

bool slots_overlap(const FieldSlot &a, const FieldSlot &b) {
  for (std::size_t i = 0; i < a.row->width; ++i)
    if (((a.value_byte(i) ^ b.value_byte(i)) & a.mask_byte(i) & b.mask_byte(i)) != std::byte{0}) return false;
  return true;
}

void put_wire_field(const FieldSlot &slot, Writer &out) {
  if (slot.asks_for_no_tag()) {  // OFPVID_NONE
    out.u32(oxm_header(*slot.row, false));
    return out.u16(0);
  }
  const std::uint32_t header = southbound_header(*slot.row, slot.mask);
  const bool ours = slot.row->number == kOxmAppType;
  out.u32(ours ? header + 4 : header);
  if (ours) out.u32(kKelimExperimenter);
  put_wire_value(*slot.row, slot.value, out);
  if (slot.mask) put_wire_value(*slot.row, slot.mask, out);
}

std::string mac_text(const std::byte *at) {
  const auto *b = reinterpret_cast<const std::uint8_t *>(at);
  return fmt::format("{:02x}:{:02x}:{:02x}:{:02x}:{:02x}:{:02x}", b[0], b[1], b[2], b[3], b[4], b[5]);
}

std::string ipv6_text(const std::byte *at) {
  char text[INET6_ADDRSTRLEN];
  return inet_ntop(AF_INET6, at, text, sizeof text);
}

std::string ipv4_text(std::uint32_t address) {
  return fmt::format("{}.{}.{}.{}", address >> 24, address >> 16 & 255, address >> 8 & 255, address & 255);
}

bool is_ipv4(const OxmField &row) {
  return row.number == 11 || row.number == 12 || row.number == 22 || row.number == 23;
}

std::string hex_text(Bytes bytes) {
  std::string text = "0x";
  for (const std::byte b : bytes) text += fmt::format("{:02x}", static_cast<unsigned>(b));
  return text;
}

std::string mask_text(const FieldSlot &slot) {
  if (is_ipv4(*slot.row)) {
    const auto mask = sb::get<std::uint32_t>(slot.mask, 0);
    if (std::countl_one(mask) + std::countr_zero(mask) == 32) return std::to_string(std::countl_one(mask));
  }
  if (slot.row->width == 2) return fmt::format("0x{:03x}", sb::get<std::uint16_t>(slot.mask, 0));
  return value_text(*slot.row, slot.mask);
}

// The value, and the mask if there is one.
std::string slot_text(const FieldSlot &slot) {
  if (slot.asks_for_no_tag()) return "none";
  if (slot.row->range == Range::vid && slot.mask && sb::get<std::uint16_t>(slot.mask, 0) == 0) return "any";
  const std::string value = value_text(*slot.row, slot.value);
  return slot.mask ? value + "/" + mask_text(slot) : value;
}

}  // namespace

std::uint64_t known_match_fields() {
  std::uint64_t known = 0;
  for (const OxmField &row : kTable)
    if (row.supported) known |= bits(row.number);
  return known;
}

const OxmField &oxm_field(std::size_t number) {
  return kTable[number];
}

Verdict check_value(const OxmField &row, const std::byte *value, const std::byte *mask) {
  switch (row.range) {
    case Range::vid:
      return check_vlan(row, value, mask);
    case Range::port_number:
      return check_port(row, value);
    case Range::up_to_max:
      return check_max(row, value, mask);
  }
  return {};
}

void put_southbound_value(const OxmField &row, const std::byte *wire, std::byte *out) {
  swap_value(out, wire, row.width);
  if (row.range == Range::vid) out[1] &= std::byte{kVidBits >> 8};
}

void put_wire_value(const OxmField &row, const std::byte *southbound, Writer &out) {
  std::array<std::byte, 16> value;
  swap_value(value.data(), southbound, row.width);
  if (row.range == Range::vid) value[0] |= std::byte{kVidPresent >> 8};
  out.bytes(Bytes(value).first(row.width));
}

std::string value_text(const OxmField &row, const std::byte *at) {
  if (row.width == 6) return mac_text(at);
  if (row.width == 16) return ipv6_text(at);
  if (is_ipv4(row)) return ipv4_text(sb::get<std::uint32_t>(at, 0));
  std::uint64_t number = 0;
  std::memcpy(&number, at, row.width);
  return row.number == kOxmEthType || row.number == kOxmIpv6Exthdr ? fmt::format("0x{:04x}", number) : std::to_string(number);
}

Verdict decode_match(Bytes from, const TargetCapabilities &target, WireMatch &match) {
  match.present = 0;
  match.eth_type = 0;
  if (from.size() < 4) return refuse(err::kMatchBadLen, "match", "the message ends within the match");
  if (be16(from, 0) != 1) return refuse(err::kMatchBadType, "match", "only OXM matches (type 1) are known");
  const std::size_t length = be16(from, 2);
  match.wire_len = (length + 7) & ~std::size_t{7};
  if (length < 4 || match.wire_len > from.size()) return refuse(err::kMatchBadLen, "match", "the length of the match is wrong");

  std::uint64_t seen = 0;
  for (std::size_t at = 4; at < length;) {
    if (length - at < 4) return refuse(err::kMatchBadLen, "match", "the match ends within the header of a field");
    const WireField field{be32(from, at), from.data() + at + 4};
    assert(field.payload);
    if (length - at - 4 < field.length()) return refuse(err::kMatchBadLen, "match", "a field is longer than the match");
    if (const Verdict verdict = decode_field(field, target, seen, match); verdict.refused()) return verdict;
    at += 4 + field.length();
  }
  return check_needs(match);
}

bool satisfies(const WireMatch &match, Needs needs) {
  const bool v4 = match.eth_type == 0x0800, v6 = match.eth_type == 0x86dd;
  const auto proto = [&match](std::uint8_t number) { return match.has(kOxmIpProto) && match.ip_proto == number; };
  switch (needs) {
    case nothing:
      return true;
    case vlan:
      return match.has(kOxmVlanVid) && is_present(match.value[kOxmVlanVid]);
    case ip:
      return v4 || v6;
    case ipv4:
      return v4;
    case ipv6:
      return v6;
    case tcp:
      return (v4 || v6) && proto(6);
    case udp:
      return (v4 || v6) && proto(17);
    case icmpv4:
      return v4 && proto(1);
    case icmpv6:
      return v6 && proto(58);
  }
  return false;
}

const char *needs_text(Needs needs) {
  constexpr const char *kTexts[] = {"",
                                    "vlan_vid",
                                    "eth_type 0x0800 or 0x86dd",
                                    "eth_type 0x0800",
                                    "eth_type 0x86dd",
                                    "ip_proto 6",
                                    "ip_proto 17",
                                    "eth_type 0x0800, ip_proto 1",
                                    "eth_type 0x86dd, ip_proto 58"};
  static_assert(std::size(kTexts) == static_cast<std::size_t>(icmpv6) + 1);
  return kTexts[static_cast<std::size_t>(needs)];
}

std::size_t encode_southbound_match(const WireMatch &match, bool service_chain, std::byte *out) {
  const std::byte *start = out;
  for (std::uint64_t left = match.present; left; left &= left - 1) {
    const auto number = static_cast<std::size_t>(std::countr_zero(left));
    if (service_chain && number == kOxmAppType) continue;
    out = put_slot(kTable[number], match.value[number], match.mask[number], out);
  }
  if (service_chain) {
    sb::put(out, 0, sb::kOxmExpAppType);
    sb::put(out, 4, sb::kServiceChainAppType);
    out += 8;
  }
  return static_cast<std::size_t>(out - start);
}

std::size_t encode_wire_match(Bytes slots, bool service_chain, Writer &out) {
  const std::size_t start = out.size();
  out.u16(1);
  out.u16(0);
  for (FieldSlot slot = next_slot(slots); slot.row; slot = next_slot(slots))
    if (!service_chain || slot.row->number != kOxmAppType) put_wire_field(slot, out);
  const std::size_t length = out.size() - start;
  out.patch16(start + 2, length);
  out.pad8(start);
  return length;
}

std::string match_text(Bytes slots) {
  std::string text;
  for (FieldSlot slot = next_slot(slots); slot.row; slot = next_slot(slots)) {
    fmt::format_to(std::back_inserter(text), "{}{}={}", text.empty() ? "" : ",", slot.row->name, slot_text(slot));
  }
  return text;
}

// Goes through the southbound layout if the value has one.
std::string wire_field_text(Bytes from) {
  if (from.size() < 4) return "...";
  const WireField field{be32(from, 0), from.data() + 4};
  if (from.size() - 4 < field.length()) return "...";
  const std::byte *value;
  const OxmField *row = row_of(field, value);
  const std::size_t length = static_cast<std::size_t>(field.payload + field.length() - value);
  const bool whole = row && length == std::size_t{row->width} * (field.masked() ? 2 : 1);
  const std::byte *mask = whole && field.masked() ? value + row->width : nullptr;
  if (!whole || (row->supported && !asks_for_tag_only(*row, value, mask) && check_value(*row, value, mask).refused()))
    return fmt::format("{}={}", row ? row->name : fmt::format("oxm_{:08x}", field.header), hex_text({value, length}));
  std::byte slot[sb::oxm_slot(0xff)];
  return match_text({slot, put_slot(*row, value, mask_of(*row, value, mask), slot)});
}

std::string wire_match_text(Bytes from) {
  if (from.size() < 4) return "...";
  const std::size_t length = be16(from, 2);
  std::string text;
  for (std::size_t at = 4; at < length; at += 4 + be8(from, at + 3)) {
    const std::string field = wire_field_text(from.subspan(std::min(at, from.size())));
    text += (text.empty() ? "" : ",") + field;
    if (field == "...") break;
  }
  return text;
}

bool is_for_service_chain(Bytes slots) {
  for (FieldSlot slot = next_slot(slots); slot.row; slot = next_slot(slots))
    if (slot.row->number == kOxmAppType) return sb::get<std::uint32_t>(slot.value, 0) == sb::kServiceChainAppType;
  return false;
}

bool match_covers(Bytes general, Bytes specific) {
  for (FieldSlot slot = next_slot(general); slot.row; slot = next_slot(general)) {
    const FieldSlot other = find_slot(specific, slot);
    if (!other.row || !slot_covers(slot, other)) return false;
  }
  return true;
}

bool matches_overlap(Bytes a, Bytes b) {
  for (FieldSlot slot = next_slot(a); slot.row; slot = next_slot(a)) {
    const FieldSlot other = find_slot(b, slot);
    if (other.row && !slots_overlap(slot, other)) return false;
  }
  return true;
}

Bytes match_shape(Bytes slots, std::byte *out) {
  const Bytes shape(out, slots.size());
  if (!slots.empty()) std::memcpy(out, slots.data(), slots.size());
  const std::byte *start = slots.data();
  for (FieldSlot slot = next_slot(slots); slot.row; slot = next_slot(slots))
    std::memset(out + (slot.value - start), 0, slot.row->width);
  return shape;
}

Bytes match_projection(Bytes slots, Bytes shape, std::byte *out) {
  const Bytes projection(out, shape.size());
  std::ranges::copy(shape, out);
  const std::byte *start = shape.data();
  for (FieldSlot slot = next_slot(shape); slot.row; slot = next_slot(shape)) {
    const FieldSlot value = find_slot(slots, slot);
    for (std::size_t i = 0; value.row && i < slot.row->width; ++i)
      out[slot.value - start + i] = value.value[i] & slot.mask_byte(i);
  }
  return projection;
}

}  // namespace host::of_ss
