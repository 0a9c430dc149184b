#include "programmer/linux/frame.h"

#include <algorithm>
#include <optional>

namespace programmer::dataplane {
namespace {

enum : std::uint32_t { kTagAt = 12, kTagLen = 4 };
enum : std::uint32_t { kIpv4Total = 2, kIpv4Id = 4, kIpv4Flags = 6, kIpv4Checksum = 10, kIpv6Payload = 4 };
enum : std::uint32_t { kTcpSequence = 4, kTcpOffset = 12, kTcpFlags = 13, kUdpLength = 4 };
struct HeaderLayout {
  std::uint32_t least;     // bytes
  std::uint32_t checksum;  // offset
};
constexpr HeaderLayout kTcp{20, 16}, kUdp{8, 6};
constexpr std::uint8_t kMoreFragments = 0x20;
constexpr std::uint8_t kTcpFin = 0x01, kTcpPush = 0x08, kTcpWindowReduced = 0x80;

std::uint16_t get16(const std::uint8_t *at) {
  return dp_be16(at);
}
void put16(std::uint8_t *at, std::uint32_t value) {
  at[0] = static_cast<std::uint8_t>(value >> 8);
  at[1] = static_cast<std::uint8_t>(value);
}

// ---- the checksum of the Internet protocols (RFC 1071)

std::uint32_t fold(std::uint64_t total) {
  while (total >> 16 != 0) total = (total & 0xffff) + (total >> 16);
  return static_cast<std::uint32_t>(total);
}

std::uint32_t sum(Bytes bytes, std::uint32_t before = 0) {
  std::uint64_t total = before;
  for (std::size_t i = 0; i + 1 < bytes.size(); i += 2) total += get16(&bytes[i]);
  if (bytes.size() % 2 != 0) total += std::uint32_t{bytes.back()} << 8;
  return fold(total);
}

// A whole TCP segment or UDP datagram, not a fragment.
struct Transport {
  std::uint32_t l3 = 0, l4 = 0;
  std::uint32_t length = 0;    // bytes of header and payload
  std::uint32_t header = 0;    // bytes of the header
  std::uint32_t checksum = 0;  // offset in the frame
  std::uint8_t proto = 0;
  bool v4 = false;
};

std::uint32_t pseudo_header(const Transport &t, Bytes frame) {
  const Bytes addresses = t.v4 ? frame.subspan(t.l3 + 12, 8) : frame.subspan(t.l3 + 8, 32);
  return sum(addresses, t.proto + t.length);
}

std::optional<Transport> transport_of(Bytes frame) {
  dp_headers headers;
  const dp_key key = key_of(frame, 0, headers);
  const bool tcp = key.proto == DP_TCP;
  const HeaderLayout &layout = tcp ? kTcp : kUdp;
  if (headers.l4 == 0 || (!tcp && key.proto != DP_UDP) || (key.ext_headers & (DP_EXT_FRAG | DP_EXT_ROUTER)) != 0) return {};
  Transport t{.l3 = headers.l3, .l4 = headers.l4, .proto = key.proto, .v4 = key.eth_type == DP_TYPE_IPV4};
  if (t.v4 && (frame[t.l3 + kIpv4Flags] & kMoreFragments) != 0) return {};
  const std::uint32_t end = t.l3 + (t.v4 ? get16(&frame[t.l3 + kIpv4Total]) : DP_IPV6_LEN + get16(&frame[t.l3 + kIpv6Payload]));
  if (end > frame.size() || end < t.l4 + layout.least) return {};
  t.length = end - t.l4;
  t.header = tcp ? (frame[t.l4 + kTcpOffset] >> 4) * 4U : layout.least;
  t.checksum = t.l4 + layout.checksum;
  return t.header <= t.length && t.header >= layout.least ? std::optional(t) : std::nullopt;
}

void write_checksum(const Transport &t, Frame &frame) {
  put16(&frame[t.checksum], 0);
  const std::uint32_t total = sum(Bytes(frame).subspan(t.l4, t.length), pseudo_header(t, frame));
  const std::uint32_t checksum = ~total & 0xffff;
  put16(&frame[t.checksum], checksum == 0 && t.proto == DP_UDP ? 0xffff : checksum);
}

// Completes the checksum if the kernel has left it to a network card: it is then the sum of the pseudo-header alone.
void complete(const Transport &t, Frame &frame) {
  if (get16(&frame[t.checksum]) == pseudo_header(t, frame)) write_checksum(t, frame);
}

void insert_tag(const dp_punted &about, Frame &frame) {
  if (about.tag_type == 0 || frame.size() < kTagAt) return;
  std::uint8_t tag[kTagLen];
  put16(tag, about.tag_type);
  put16(tag + 2, about.tag);
  frame.insert(frame.begin() + kTagAt, tag, tag + kTagLen);
}

// ---- segments

void write_ip(const Transport &t, std::uint32_t number, Frame &frame) {
  std::uint8_t *ip = &frame[t.l3];
  const auto length = static_cast<std::uint32_t>(frame.size()) - t.l3;
  if (!t.v4) return put16(ip + kIpv6Payload, length - DP_IPV6_LEN);
  put16(ip + kIpv4Total, length);
  put16(ip + kIpv4Id, get16(ip + kIpv4Id) + number);
  put16(ip + kIpv4Checksum, 0);
  put16(ip + kIpv4Checksum, ~sum(Bytes(ip, (ip[0] & 15U) * std::size_t{4})) & 0xffff);
}

void write_tcp(const Transport &t, std::uint32_t offset, bool last, Frame &frame) {
  std::uint8_t *tcp = &frame[t.l4];
  const std::uint32_t sequence = (std::uint32_t{get16(tcp + kTcpSequence)} << 16 | get16(tcp + kTcpSequence + 2)) + offset;
  put16(tcp + kTcpSequence, sequence >> 16);
  put16(tcp + kTcpSequence + 2, sequence);
  const unsigned not_here = (last ? 0U : kTcpFin | kTcpPush) | (offset == 0 ? 0U : kTcpWindowReduced);
  tcp[kTcpFlags] = static_cast<std::uint8_t>(tcp[kTcpFlags] & ~not_here);
}

// Writes to `frame` the segment of `whole` that begins `offset` bytes into the payload.
void write_segment(const Transport &whole, Bytes from, std::uint32_t offset, std::uint32_t size, Frame &frame) {
  const std::uint32_t begin = whole.l4 + whole.header, left = whole.length - whole.header - offset;
  const Bytes payload = from.subspan(begin + offset, std::min(size, left));
  frame.assign(from.begin(), from.begin() + begin);
  frame.insert(frame.end(), payload.begin(), payload.end());
  Transport t = whole;
  t.length = static_cast<std::uint32_t>(frame.size()) - t.l4;
  write_ip(t, offset / size, frame);
  if (t.proto == DP_TCP) write_tcp(t, offset, size >= left, frame);
  if (t.proto == DP_UDP) put16(&frame[t.l4 + kUdpLength], t.length);
  if (t.proto == DP_TCP || get16(&frame[t.checksum]) != 0) write_checksum(t, frame);
}

// ---- rewrites

bool set_tag(Frame &frame, std::uint16_t value, std::uint16_t mask) {
  const std::uint16_t type = get16(&frame[kTagAt]);
  if ((type != DP_TYPE_VLAN && type != DP_TYPE_QINQ) || frame.size() < kEthLen + kTagLen) return false;
  std::uint8_t *tag = &frame[kTagAt + 2];
  put16(tag, (get16(tag) & ~std::uint32_t{mask}) | value);
  return true;
}

bool set_dscp(Frame &frame, std::uint8_t dscp) {
  dp_headers headers;
  const dp_key key = key_of(frame, 0, headers);
  if (headers.l3 == 0) return false;
  std::uint8_t *ip = &frame[headers.l3];
  const std::uint32_t before = get16(ip);
  if (key.eth_type == DP_TYPE_IPV6) return put16(ip, (before & 0xf03f) | std::uint32_t{dscp} << 6), true;
  const std::uint32_t after = (before & 0xff03) | std::uint32_t{dscp} << 2;
  put16(ip, after);
  const std::uint32_t total = (~get16(ip + kIpv4Checksum) & 0xffff) + (~before & 0xffff) + after;  // RFC 1624
  put16(ip + kIpv4Checksum, ~fold(total));
  return true;
}

}  // namespace

// ---- steps

namespace {

// Corrects a checksum for bytes that change, at an even offset in what it covers (RFC 1624).
void correct(std::uint8_t *checksum, Bytes before, Bytes after) {
  std::uint64_t total = ~get16(checksum) & 0xffffU;
  for (std::size_t i = 0; i + 1 < before.size(); i += 2) total += (~get16(&before[i]) & 0xffffU) + get16(&after[i]);
  put16(checksum, ~fold(total));
}

struct Headers {
  dp_key key;
  dp_headers at;
  explicit Headers(Bytes frame) : key(key_of(frame, 0, at)) {}
};

// The transport checksum that covers the addresses; null if there is none, also for a datagram that was sent without one.
std::uint8_t *checksum_of(const Headers &headers, Frame &frame) {
  const std::uint32_t at = dp_checksum_at(headers.at.l4, headers.key.proto);
  if (at == 0 || at + 2 > frame.size()) return nullptr;
  return headers.key.proto == DP_UDP && get16(&frame[at]) == 0 ? nullptr : &frame[at];
}

// Replaces bytes that the transport checksum covers.
void replace(const Headers &headers, bool covered, std::uint8_t *at, Bytes after, Frame &frame) {
  std::uint8_t *checksum = covered ? checksum_of(headers, frame) : nullptr;
  if (checksum) correct(checksum, Bytes(at, after.size()), after);
  if (checksum && headers.key.proto == DP_UDP && get16(checksum) == 0) put16(checksum, 0xffff);
  std::ranges::copy(after, at);
}

bool set_address(Frame &frame, const dp_step &step) {
  const Headers headers{frame};
  const bool v4 = step.kind == DP_STEP_IPV4;
  if (headers.at.l3 == 0 || headers.key.eth_type != (v4 ? DP_TYPE_IPV4 : DP_TYPE_IPV6)) return false;
  std::uint8_t *ip = &frame[headers.at.l3];
  const Bytes after(step.bytes, v4 ? 4 : 16);
  const bool routed = (headers.key.ext_headers & DP_EXT_ROUTER) != 0 && step.at == DP_IPV6_DST;
  if (v4) correct(ip + DP_IPV4_CHECKSUM, Bytes(ip + step.at, after.size()), after);
  replace(headers, v4 || !routed, ip + step.at, after, frame);
  return true;
}

// Fragments other than the first have no ports to set.
bool set_l4(Frame &frame, const dp_step &step) {
  const Headers headers{frame};
  if (headers.key.proto != step.proto) return false;
  std::uint8_t after[2];
  put16(after, step.value);
  if (headers.at.l4 != 0) replace(headers, true, &frame[headers.at.l4 + step.at], after, frame);
  return true;
}

bool set_ttl(Frame &frame, const dp_step &step) {
  const Headers headers{frame};
  if (headers.at.l3 == 0) return false;
  std::uint8_t *ip = &frame[headers.at.l3];
  const bool v4 = headers.key.eth_type == DP_TYPE_IPV4;
  std::uint8_t *ttl = ip + (v4 ? DP_IPV4_TTL : DP_IPV6_NEXT + 1);
  if (step.kind == DP_STEP_DEC_TTL && *ttl <= 1) return false;
  const std::uint8_t before[] = {*ttl, 0};
  const std::uint8_t after[] = {static_cast<std::uint8_t>(step.kind == DP_STEP_DEC_TTL ? *ttl - 1 : step.value), 0};
  if (v4) correct(ip + DP_IPV4_CHECKSUM, before, after);
  *ttl = after[0];
  return true;
}

bool is_tagged(Bytes frame) {
  if (frame.size() < kEthLen + kTagLen) return false;
  const std::uint16_t type = get16(&frame[kTagAt]);
  return type == DP_TYPE_VLAN || type == DP_TYPE_QINQ;
}

bool push_tag(Frame &frame, const dp_step &step) {
  std::uint8_t tag[kTagLen] = {};
  if (is_tagged(frame)) std::copy_n(&frame[kTagAt], sizeof tag, tag);
  put16(tag, step.value);
  frame.insert(frame.begin() + kTagAt, tag, tag + kTagLen);
  return true;
}

bool pop_tag(Frame &frame, const dp_step &) {
  if (!is_tagged(frame)) return false;
  frame.erase(frame.begin() + kTagAt, frame.begin() + kTagAt + kTagLen);
  return true;
}

bool set_eth(Frame &frame, const dp_step &step) {
  std::copy_n(step.bytes, 6, frame.begin() + step.at);
  return true;
}

struct StepRow {
  __u8 kind;
  bool (*carry_out)(Frame &, const dp_step &);
};
constexpr StepRow kSteps[] = {
    {DP_STEP_ETH, set_eth},
    {DP_STEP_VLAN, [](Frame &frame, const dp_step &step) { return set_tag(frame, step.value, step.mask); }},
    {DP_STEP_PUSH, push_tag},
    {DP_STEP_POP, pop_tag},
    {DP_STEP_DSCP, [](Frame &frame, const dp_step &step) { return set_dscp(frame, static_cast<std::uint8_t>(step.value)); }},
    {DP_STEP_TTL, set_ttl},
    {DP_STEP_DEC_TTL, set_ttl},
    {DP_STEP_IPV4, set_address},
    {DP_STEP_IPV6, set_address},
    {DP_STEP_L4, set_l4},
};

}  // namespace

bool rewrite(Frame &frame, const dp_step &step) {
  const auto *row = std::ranges::find(kSteps, step.kind, &StepRow::kind);
  return row != std::end(kSteps) && frame.size() >= kEthLen && row->carry_out(frame, step);
}

// ---- a packet from the program

void unfold(const dp_punted &about, Bytes bytes, Frame &room, const std::function<void(Bytes)> &give) {
  const auto transport = transport_of(bytes);
  const std::uint32_t payload = transport ? transport->length - transport->header : 0;
  if (about.segment != 0 && payload > about.segment) {
    for (std::uint32_t offset = 0; offset < payload; offset += about.segment) {
      write_segment(*transport, bytes, offset, about.segment, room);
      insert_tag(about, room);
      give(room);
    }
    return;
  }
  room.assign(bytes.begin(), bytes.end());
  if (transport && about.verified == 0) complete(*transport, room);
  insert_tag(about, room);
  give(room);
}

bool rewrite(Frame &frame, const dp_actions &actions) {
  bool done = frame.size() >= kEthLen;
  if (done && (actions.sets & DP_SET_DST) != 0) std::ranges::copy(actions.eth_dst, frame.begin());
  if (done && (actions.sets & DP_SET_SRC) != 0) std::ranges::copy(actions.eth_src, frame.begin() + 6);
  if (done && (actions.sets & DP_SET_DSCP) != 0) done = set_dscp(frame, actions.dscp);
  if (done && (actions.sets & DP_SET_VLAN) != 0) done = set_tag(frame, actions.vlan, actions.vlan_mask);
  return done;
}

dp_key key_of(Bytes frame, std::uint32_t in_port, dp_headers &headers) {
  dp_packet packet{frame.data(), static_cast<std::uint32_t>(frame.size())};
  dp_key key;
  dp_parse(&packet, in_port, 0, &key, &headers);
  return key;
}

}  // namespace programmer::dataplane
