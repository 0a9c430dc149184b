// The memory layout of the maps that the program in the kernel and the service share. Plain C.
//
// The service writes masks, buckets, flows, ports and the parameters of meters with plain stores into memory that is mapped on
// both sides; the program writes counters and the states of meters. Packet fields kept as bytes (addresses) are in network order,
// numbers in host order.
#pragma once

#include <linux/types.h>

enum {
  DP_LAYOUT_VERSION = 5,
  DP_MAX_MASKS = 1024,
  DP_MAX_METERS = 1024,
  DP_MAX_BANDS = 8,
  DP_MAX_PORTS = 256,
  DP_MAX_STEPS = 1 << 16,
  DP_LIST_STEPS = 256,  // of one list
  DP_BUCKET = 8,        // entries of a bucket: one cache line
};

// The fields of a packet that flows match on. A field that the packet lacks is 0; `has` tells it from a real 0.
enum { DP_HAS_IP = 1, DP_HAS_L4 = 2 };
enum { DP_VLAN_PRESENT = 0x1000, DP_VLAN_ID = 0x0fff, DP_VLAN_PCP_SHIFT = 13 };
struct dp_key {
  __u32 in_port;   // OpenFlow's number
  __u16 eth_type;  // after the tags
  __u16 vlan;      // of the outer tag: priority, DP_VLAN_PRESENT, id
  __u8 eth_dst[6];
  __u8 eth_src[6];
  __u8 proto;  // after the IPv6 extension headers
  __u8 dscp;
  __u16 ext_headers;  // OFPIEH_*
  __u16 l4_src;       // or the type of ICMP
  __u16 l4_dst;       // or the code of ICMP
  __u8 has;
  __u8 zero[3];
  __u8 src[16];  // IPv4: the first four bytes
  __u8 dst[16];
} __attribute__((aligned(8)));
enum { DP_WORDS = sizeof(struct dp_key) / 8 };

// One mask of the table. Rows are searched in order, up to the first row of rank 0. The list in force may be changed in place as
// long as searches look at too many rows rather than too few: `rest` is raised before the `rank` of a later row.
struct dp_mask {
  __u64 words[DP_WORDS];
  __u32 rank;       // no flow under the mask ranks higher
  __u32 rest;       // no flow under a later mask ranks higher
  __u32 only_type;  // the Ethernet type that all its flows match on, or DP_ANY_TYPE
  __u32 id;
};
enum { DP_ANY_TYPE = 0xffffffff };

// An entry is tag << 32 | place of the flow + 1, or 0 if it has never been used. DP_TOMB means that it has been used, or that a
// flow that belongs in this bucket had to move: the search continues in the second bucket.
struct dp_bucket {
  __u64 entries[DP_BUCKET];
};
#define DP_TOMB (1ULL << 63)

// Eight bits for each of eight buckets: one bit for each value of a tag's last three bits, set if a flow with such a tag may
// belong in the bucket, wherever it is. It is set before the flow is published. So most of the buckets in which a search would
// find nothing, and each of them a cache line, are not read.
struct dp_hint {
  __u64 bits;
};
enum { DP_HINT_BUCKETS = 8 };

// The actions of a flow. Rewrites are applied before the output. A flow with a list has no other actions.
enum { DP_DROP, DP_PORT, DP_IN_PORT, DP_ALL, DP_NORMAL, DP_CONTROLLER };
enum { DP_SET_DST = 1, DP_SET_SRC = 2, DP_SET_VLAN = 4, DP_SET_DSCP = 8, DP_SET_QUEUE = 16 };
struct dp_actions {
  __u8 output;
  __u8 sets;
  __u8 port;  // place of the output port
  __u8 dscp;
  __u16 vlan;  // id and priority, at their positions in a tag
  __u16 vlan_mask;
  __u8 eth_dst[6];
  __u8 eth_src[6];
  __u16 queue;
  __u16 meter;  // place of the meter + 1; 0: none
  __u8 miss;    // the flow is the table-miss flow
  __u8 zero[3];
  __u32 list;  // place of the first step, + 1; 0: no list
};

// One action of a list, which acts on what the earlier ones have made of the packet. Copies that have been output are not
// affected.
enum {
  DP_STEP_OUTPUT,
  DP_STEP_QUEUE,
  DP_STEP_ETH,
  DP_STEP_VLAN,
  DP_STEP_PUSH,
  DP_STEP_POP,
  DP_STEP_DSCP,
  DP_STEP_TTL,
  DP_STEP_DEC_TTL,
  DP_STEP_IPV4,
  DP_STEP_IPV6,
  DP_STEP_L4
};
struct dp_step {
  __u32 next;  // place of the next one, + 1; 0: the last
  __u8 kind;
  __u8 output;     // DP_PORT and so on
  __u8 port;       // place of the output port
  __u8 proto;      // of DP_STEP_L4: the packet must have this protocol
  __u16 at;        // offset of an address or a port in its header
  __u16 value;     // any number, such as a port or the type of a tag
  __u16 mask;      // of DP_STEP_VLAN: bits of the tag that are set
  __u8 bytes[16];  // an address
  __u8 zero[2];
};

struct dp_flow {
  __u64 key[DP_WORDS];  // masked
  __u32 mask;           // the mask's id
  __u32 rank;           // priority << 1 | (the table is 1), + 1
  __u64 cookie;
  __u64 index;  // the greatest wins among flows of one rank
  __u32 vsd;    // with the index, the flow's key in the database
  __u32 zero;
  struct dp_actions actions;
};

static inline __u8 dp_table_of(const struct dp_flow *flow) {
  return (flow->rank - 1) & 1;
}

struct dp_count {
  __u64 packets;
  __u64 bytes;
};

// One band: a virtual schedule. `tat` (theoretical arrival time, monotonic ns) is the time until which past traffic has used up
// the rate.
enum { DP_BAND_NONE, DP_BAND_DROP, DP_BAND_REMARK };
enum { DP_COST_SHIFT = 20 };
struct dp_band {
  __u64 tat;
  __u64 cost;   // ns << DP_COST_SHIFT of a byte, or of a packet
  __u64 burst;  // ns
  __u64 packets;
  __u64 bytes;
  __u32 type;
  __u32 precedence;  // amount by which a remark raises the drop precedence
};
struct dp_meter {
  __u32 bands;  // the fastest first
  __u32 counts_packets;
  __u64 packets;
  __u64 bytes;
  struct dp_band band[DP_MAX_BANDS];
  __u32 id;  // OpenFlow's; 0: the place is free
  __u32 zero;
};

struct dp_port {
  __u32 ifindex;  // 0: the interface is missing
  __u32 number;   // OpenFlow's
};

// A packet for the controller in the ring. The frame follows as the kernel holds it: without the tag that is kept beside it and,
// if segmentation and checksums are left to the network card, unsegmented and with an incomplete checksum.
struct dp_punted {
  __u64 cookie;
  __u32 in_port;   // OpenFlow's number
  __u32 length;    // bytes of the frame
  __u16 segment;   // payload bytes of each segment to be cut; 0: not to be cut
  __u16 tag;       // the VLAN tag
  __u16 tag_type;  // 0: no tag
  __u8 table;
  __u8 miss;
  __u8 verified;  // the kernel has verified the checksum
  __u8 zero[7];
};
enum { DP_PUNT_RING = 2 << 20, DP_PUNT_MAX = 1 << 16 };  // bytes: of the ring, of a frame

// The packets of one port for the controller: their rate limit, and counts of drops, in frames as on the wire.
struct dp_punt {
  struct dp_band rate;
  __u64 limited;   // above the rate
  __u64 full;      // no room in the ring
  __u64 too_long;  // longer than DP_PUNT_MAX
  __u64 unwanted;  // no controller wants packets
};

// Packet counts of one processor. A packet that was looked up has matched or missed; three counts give the reasons for which
// matched ones were dropped.
struct dp_tally {
  __u64 looked_up;
  __u64 matched;
  __u64 metered;        // dropped by a meter
  __u64 no_port;        // the output port is the ingress port, or missing
  __u64 not_rewritten;  // a rewrite failed
  __u64 matched_in_1;   // matched by flows of table 1
  __u64 zero[2];
};

struct dp_control {
  __u64 current;  // generation << 1 | list of masks
  __u32 version;
  __u32 bucket_mask;
  __u32 flows;    // places, which is also the length of a row of counters
  __u32 cache;    // sets of the cache, in which a packet is looked up first; 0: it is not
  __u32 punting;  // 1: controllers want packets
  __u32 zero;
  __u64 matched[2][DP_WORDS];  // by list of masks: the bits that any of its masks matches on
};

// Cached look-ups of one processor: a set, whose first cache line says which of the others holds the key. A result is valid while
// the table's `current` is the same. The keys hold only bits that some mask matches on, so that packets which differ in nothing
// else share one result. The cache is used from DP_CACHE_FROM masks on, because with fewer a search is faster.
enum { DP_CACHE_WAYS = 4, DP_CACHE_SETS = 2048, DP_CACHE_MAX_SETS = 16384, DP_CACHE_FROM = 4 };  // sets: at least, at most
struct dp_cached {
  __u64 current[DP_CACHE_WAYS];
  __u32 place[DP_CACHE_WAYS];  // of the flow, + 1; 0: no flow
  __u16 tag[DP_CACHE_WAYS];    // of the key's hash; different in all valid ways
  __u32 misses;                // while no way was out of date
  __u32 zero;
  __u64 key[DP_CACHE_WAYS][DP_WORDS];
};

#ifdef __cplusplus
#define DP_SIZE(type, bytes) static_assert(sizeof(struct type) == (bytes))
#else
#define DP_SIZE(type, bytes) _Static_assert(sizeof(struct type) == (bytes), #type)
#endif
DP_SIZE(dp_key, 64);
DP_SIZE(dp_mask, 80);
DP_SIZE(dp_bucket, 64);
DP_SIZE(dp_hint, 8);
DP_SIZE(dp_actions, 32);
DP_SIZE(dp_step, 32);
DP_SIZE(dp_flow, 128);
DP_SIZE(dp_count, 16);
DP_SIZE(dp_band, 48);
DP_SIZE(dp_meter, 416);
DP_SIZE(dp_port, 8);
DP_SIZE(dp_tally, 64);
DP_SIZE(dp_punted, 32);
DP_SIZE(dp_punt, 80);
DP_SIZE(dp_control, 160);
DP_SIZE(dp_cached, 320);
#undef DP_SIZE
