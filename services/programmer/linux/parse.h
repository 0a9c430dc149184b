// Extracts the fields that flows match on from a packet's bytes. Plain C, the same source in the kernel and in user space, in a
// form that the kernel's verifier can follow. Nothing beyond the packet's end is read, whatever its headers say: a truncated or
// contradictory header ends the parsing, and the fields after it count as absent.
//
// The including file must have defined dp_packet, dp_load() (copies `length` bytes from `offset`; non-zero if they are not all
// there) and dp_loop() (calls step(i, context) for i from 0, at most `count` times, until it returns non-zero).
#pragma once

#include "layout.h"

#define DP_INLINE static inline __attribute__((always_inline))

enum {
  DP_ETH_LEN = 14,
  DP_IPV4_LEN = 20,
  DP_IPV6_LEN = 40,
  DP_TYPE_IPV4 = 0x0800,
  DP_TYPE_IPV6 = 0x86dd,
  DP_TYPE_VLAN = 0x8100,
  DP_TYPE_QINQ = 0x88a8,
  DP_TYPE_LEAST = 0x0600,   // smaller values are the length of an 802.3 frame
  DP_TYPE_NO_TYPE = 0x05ff  // used as the type of such a frame
};
enum { DP_ICMP = 1, DP_TCP = 6, DP_UDP = 17, DP_ICMPV6 = 58 };
enum { DP_HOP = 0, DP_ROUTING = 43, DP_FRAGMENT = 44, DP_ESP = 50, DP_AUTH = 51, DP_NO_NEXT = 59, DP_DEST = 60 };
enum { DP_MAX_EXT_HEADERS = 8 };
enum {  // OFPIEH_* of OpenFlow 1.3.5, 7.2.3.8
  DP_EXT_NO_NEXT = 1,
  DP_EXT_ESP = 2,
  DP_EXT_AUTH = 4,
  DP_EXT_DEST = 8,
  DP_EXT_FRAG = 16,
  DP_EXT_ROUTER = 32,
  DP_EXT_HOP = 64,
  DP_EXT_REPEATED = 128,
  DP_EXT_DISORDER = 256
};

// Offsets within headers of what actions rewrite.
enum {
  DP_IPV4_TTL = 8,
  DP_IPV4_CHECKSUM = 10,
  DP_IPV4_SRC = 12,
  DP_IPV4_DST = 16,
  DP_IPV6_NEXT = 6,
  DP_IPV6_SRC = 8,
  DP_IPV6_DST = 24
};
enum { DP_TCP_CHECKSUM = 16, DP_UDP_CHECKSUM = 6, DP_ICMPV6_CHECKSUM = 2 };

// Offsets of the headers; 0: absent.
struct dp_headers {
  __u32 l3;
  __u32 l4;
};

DP_INLINE __u16 dp_be16(const __u8 *at) {
  return (__u16)(at[0] << 8 | at[1]);
}

// The offset of the transport checksum that covers the IP addresses too; 0: there is none.
DP_INLINE __u32 dp_checksum_at(__u32 l4, __u8 proto) {
  if (l4 == 0) return 0;
  return proto == DP_TCP      ? l4 + DP_TCP_CHECKSUM
         : proto == DP_UDP    ? l4 + DP_UDP_CHECKSUM
         : proto == DP_ICMPV6 ? l4 + DP_ICMPV6_CHECKSUM
                              : 0;
}

// ---- the extension headers of IPv6

struct dp_walk {
  dp_packet *packet;
  __u32 at;
  __u32 headers;  // OFPIEH_*
  __u32 order;    // position of the latest header in the recommended order
  __u8 next;      // type of the header at `at`
  __u8 cut;       // no header follows: the rest is missing, or the packet is a later fragment
};

// The OFPIEH_* bit of an extension header that the walk passes over; 0 for any other header.
DP_INLINE __u32 dp_ext_bit(__u8 type) {
  return type == DP_HOP        ? DP_EXT_HOP
         : type == DP_DEST     ? DP_EXT_DEST
         : type == DP_ROUTING  ? DP_EXT_ROUTER
         : type == DP_FRAGMENT ? DP_EXT_FRAG
         : type == DP_AUTH     ? DP_EXT_AUTH
                               : 0;
}

DP_INLINE __u32 dp_ext_order(__u8 type, __u32 order_before) {
  return type == DP_HOP ? 1 : type == DP_DEST ? (order_before < 2 ? 2 : 6) : type == DP_ROUTING ? 3 : type == DP_FRAGMENT ? 4 : 5;
}

DP_INLINE void dp_note_ext(struct dp_walk *walk, __u32 bit, __u32 order) {
  const __u32 again = (walk->headers & bit) != 0 && !(bit == DP_EXT_DEST && walk->order != 2 && walk->order != 6);
  walk->headers |= bit | (again ? DP_EXT_REPEATED : 0) | (order < walk->order ? DP_EXT_DISORDER : 0);
  walk->order = order;
}

static long dp_ext_step(__u32 i, void *context) {
  struct dp_walk *walk = (struct dp_walk *)context;
  const __u8 type = walk->next;
  const __u32 bit = dp_ext_bit(type);
  __u8 header[8];
  (void)i;
  if (bit == 0) return 1;
  if (dp_load(walk->packet, walk->at, header, sizeof header) != 0) {
    walk->cut = 1;
    return 1;
  }
  dp_note_ext(walk, bit, dp_ext_order(type, walk->order));
  walk->next = header[0];
  walk->at += type == DP_AUTH ? (header[1] + 2u) * 4 : type == DP_FRAGMENT ? 8u : (header[1] + 1u) * 8;
  if (type != DP_FRAGMENT || (dp_be16(header + 2) & 0xfff8) == 0) return 0;
  walk->cut = 1;
  return 1;
}

// ---- the layers

// Reads the ports, or ICMP's type and code, if they lie before `end`.
DP_INLINE void dp_parse_l4(dp_packet *packet, __u32 at, __u32 end, struct dp_key *key, struct dp_headers *headers) {
  __u8 bytes[4];
  const int ports = key->proto == DP_TCP || key->proto == DP_UDP;
  const int icmp = key->proto == (key->eth_type == DP_TYPE_IPV4 ? DP_ICMP : DP_ICMPV6);
  if ((!ports && !icmp) || at + sizeof bytes > end || dp_load(packet, at, bytes, sizeof bytes) != 0) return;
  key->l4_src = ports ? dp_be16(bytes) : bytes[0];
  key->l4_dst = ports ? dp_be16(bytes + 2) : bytes[1];
  key->has |= DP_HAS_L4;
  headers->l4 = at;
}

DP_INLINE void dp_parse_ipv4(dp_packet *packet, __u32 at, struct dp_key *key, struct dp_headers *headers) {
  __u8 ip[DP_IPV4_LEN];
  if (dp_load(packet, at, ip, sizeof ip) != 0 || ip[0] >> 4 != 4 || (ip[0] & 15) < 5) return;
  key->has |= DP_HAS_IP;
  key->dscp = ip[1] >> 2;
  key->proto = ip[9];
  __builtin_memcpy(key->src, ip + 12, 4);
  __builtin_memcpy(key->dst, ip + 16, 4);
  headers->l3 = at;
  if ((dp_be16(ip + 6) & 0x1fff) == 0) dp_parse_l4(packet, at + (ip[0] & 15u) * 4, at + dp_be16(ip + 2), key, headers);
}

DP_INLINE void dp_parse_ipv6(dp_packet *packet, __u32 at, struct dp_key *key, struct dp_headers *headers) {
  __u8 ip[DP_IPV6_LEN];
  struct dp_walk walk;
  __builtin_memset(&walk, 0, sizeof walk);
  if (dp_load(packet, at, ip, sizeof ip) != 0 || ip[0] >> 4 != 6) return;
  walk.packet = packet;
  walk.at = at + DP_IPV6_LEN;
  walk.next = ip[6];
  dp_loop(DP_MAX_EXT_HEADERS, dp_ext_step, &walk);
  if (walk.next == DP_NO_NEXT) walk.headers |= DP_EXT_NO_NEXT;
  if (walk.next == DP_ESP) walk.headers |= DP_EXT_ESP | (walk.order > 5 ? DP_EXT_DISORDER : 0);
  key->has |= DP_HAS_IP;
  key->dscp = (__u8)((dp_be16(ip) >> 6) & 0x3f);
  key->proto = walk.next;
  key->ext_headers = (__u16)walk.headers;
  __builtin_memcpy(key->src, ip + 8, 16);
  __builtin_memcpy(key->dst, ip + 24, 16);
  headers->l3 = at;
  if (!walk.cut) dp_parse_l4(packet, walk.at, at + DP_IPV6_LEN + dp_be16(ip + 4), key, headers);
}

// Skips a tag in the frame and returns the type after it. The packet's outermost tag counts, in the frame or beside it.
DP_INLINE __u16 dp_parse_tag(dp_packet *packet, __u32 *at, __u16 type, struct dp_key *key) {
  __u8 tag[4];
  if ((type != DP_TYPE_VLAN && type != DP_TYPE_QINQ) || dp_load(packet, *at, tag, sizeof tag) != 0) return type;
  if (key->vlan == 0) key->vlan = (__u16)((dp_be16(tag) & ~DP_VLAN_PRESENT) | DP_VLAN_PRESENT);
  *at += sizeof tag;
  return dp_be16(tag + 2);
}

// Fills in `key` and `headers`. `tag` is the tag that the kernel keeps beside the frame, with DP_VLAN_PRESENT; 0: none.
DP_INLINE void dp_parse(dp_packet *packet, __u32 in_port, __u16 tag, struct dp_key *key, struct dp_headers *headers) {
  __u8 eth[DP_ETH_LEN];
  __u32 at = DP_ETH_LEN;
  __u16 type;
  __builtin_memset(key, 0, sizeof *key);
  __builtin_memset(headers, 0, sizeof *headers);
  key->in_port = in_port;
  key->vlan = tag;
  if (dp_load(packet, 0, eth, sizeof eth) != 0) return;
  __builtin_memcpy(key->eth_dst, eth, 6);
  __builtin_memcpy(key->eth_src, eth + 6, 6);
  type = dp_parse_tag(packet, &at, dp_be16(eth + 12), key);
  type = dp_parse_tag(packet, &at, type, key);
  key->eth_type = type < DP_TYPE_LEAST ? (__u16)DP_TYPE_NO_TYPE : type;
  if (type == DP_TYPE_IPV4) dp_parse_ipv4(packet, at, key, headers);
  if (type == DP_TYPE_IPV6) dp_parse_ipv6(packet, at, key, headers);
}
