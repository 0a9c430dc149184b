// What the program in the kernel and the service share: the maps' values, laid out alike on both sides. Plain C.
//
// The service writes masks, buckets, flows, ports and the parameters of meters with plain stores into memory that is mapped on
// both sides; the program writes counters and the states of meters. Numbers of packets are in network order where they are bytes
// of a header (addresses) and in host order everywhere else.
#pragma once

#include <linux/types.h>

enum {
  DP_LAYOUT_VERSION = 3,
  DP_MAX_MASKS = 1024,
  DP_MAX_METERS = 1024,
  DP_MAX_BANDS = 8,
  DP_MAX_PORTS = 256,
  DP_BUCKET = 8,  // entries of a bucket: one cache line
};

// What is known of a packet. A field that the packet does not have is 0; `has` tells such a 0 from a real one.
enum { DP_HAS_IP = 1, DP_HAS_L4 = 2 };
enum { DP_VLAN_PRESENT = 0x1000, DP_VLAN_ID = 0x0fff, DP_VLAN_PCP_SHIFT = 13 };
struct dp_key {
  __u32 in_port;   // OpenFlow's number
  __u16 eth_type;  // behind the tags
  __u16 vlan;      // of the outer tag: priority, DP_VLAN_PRESENT, id
  __u8 eth_dst[6];
  __u8 eth_src[6];
  __u8 proto;  // behind the extension headers of IPv6
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

// One mask of the table. Rows are searched in order; the first one of rank 0 ends them. What is in force may be changed in place
// where that errs on the side of searching too much: `rest` is raised before `rank` of a later row.
struct dp_mask {
  __u64 words[DP_WORDS];
  __u32 rank;       // no flow under the mask ranks higher
  __u32 rest;       // no flow under a later mask ranks higher
  __u32 only_type;  // the Ethernet type that every flow under it wants, or DP_ANY_TYPE
  __u32 id;
};
enum { DP_ANY_TYPE = 0xffffffff };

// tag << 32 | flow + 1; 0 was never used, DP_TOMB was, or another flow that belongs here found no room: the search goes on in the
// second bucket.
struct dp_bucket {
  __u64 entries[DP_BUCKET];
};
#define DP_TOMB (1ULL << 63)

// What a flow does. Rewrites come before the output.
enum { DP_DROP, DP_PORT, DP_IN_PORT, DP_ALL, DP_NORMAL, DP_CONTROLLER };
enum { DP_SET_DST = 1, DP_SET_SRC = 2, DP_SET_VLAN = 4, DP_SET_DSCP = 8, DP_SET_QUEUE = 16 };
struct dp_actions {
  __u8 output;
  __u8 sets;
  __u8 port;  // its place among the ports
  __u8 dscp;
  __u16 vlan;  // id and priority, at their places in a tag
  __u16 vlan_mask;
  __u8 eth_dst[6];
  __u8 eth_src[6];
  __u16 queue;
  __u16 meter;  // its place + 1; 0: none
  __u8 miss;    // the flow is the one for what no other flow matches
  __u8 zero[7];
};

struct dp_flow {
  __u64 key[DP_WORDS];  // masked
  __u32 mask;           // id
  __u32 rank;           // priority << 1 | (the table is 1), + 1
  __u64 cookie;
  __u64 index;  // of flows of one rank the greatest decides
  __u32 vsd;    // with the index, the flow's key in the database
  __u32 zero;
  struct dp_actions actions;
};

struct dp_count {
  __u64 packets;
  __u64 bytes;
};

// One band: a virtual schedule. `tat` is the time (ns, monotonic) to which the traffic so far has used up the rate.
enum { DP_BAND_NONE, DP_BAND_DROP, DP_BAND_REMARK };
enum { DP_COST_SHIFT = 20 };
struct dp_band {
  __u64 tat;
  __u64 cost;   // ns << DP_COST_SHIFT of a byte, or of a packet
  __u64 burst;  // ns
  __u64 packets;
  __u64 bytes;
  __u32 type;
  __u32 precedence;  // by how much a remark raises the drop precedence
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
  __u32 ifindex;  // 0: not there now
  __u32 number;   // OpenFlow's
};

// A packet for the controller, on its way to user space; the frame follows, without the tag that the kernel keeps beside it and
// as the kernel has it: uncut, and with half a checksum where cutting and checksums were left to the network card.
struct dp_punted {
  __u64 cookie;
  __u32 in_port;   // OpenFlow's number
  __u32 length;    // of the frame
  __u16 segment;   // bytes of payload of the segments it is to be cut into; 0: it is a frame
  __u16 tag;       // the tag beside it
  __u16 tag_type;  // 0: none
  __u8 table;
  __u8 miss;
  __u8 verified;  // its checksum has been found right
  __u8 zero[7];
};
enum { DP_PUNT_RING = 2 << 20, DP_PUNT_MAX = 1 << 16 };  // bytes: of the ring, of a frame

// The packets of one port for the controller: their rate, and what became of them, in frames as they are on the wire.
struct dp_punt {
  struct dp_band rate;
  __u64 limited;   // dropped: beyond the rate
  __u64 full;      // dropped: no room in the ring
  __u64 too_long;  // dropped
  __u64 unwanted;  // dropped: nobody wants them
};

// Of one processor. Packets that were looked up either matched or missed; the rest says why a matched one went nowhere.
struct dp_tally {
  __u64 looked_up;
  __u64 matched;
  __u64 metered;        // dropped by a meter
  __u64 no_port;        // the port is the one it came from, or not there
  __u64 not_rewritten;  // a rewrite failed
  __u64 zero[3];
};

struct dp_control {
  __u64 current;  // generation << 1 | list of masks
  __u32 version;
  __u32 bucket_mask;
  __u32 flows;    // places, per row of counters
  __u32 cache;    // whether a packet is looked for among those of before first
  __u32 punting;  // whether packets go to the controller
  __u32 zero;
};

// What a packet that was looked up met, of one processor. Good while the table is the one of that look-up.
enum { DP_CACHE_SETS = 4096, DP_CACHE_WAYS = 2, DP_CACHE_FROM = 4 };  // from that many masks on a look there is quicker
struct dp_cached {
  __u64 current;
  struct dp_key key;
  __u32 place;  // + 1; 0: no flow
  __u32 zero;
};

#ifdef __cplusplus
#define DP_SIZE(type, bytes) static_assert(sizeof(struct type) == (bytes))
#else
#define DP_SIZE(type, bytes) _Static_assert(sizeof(struct type) == (bytes), #type)
#endif
DP_SIZE(dp_key, 64);
DP_SIZE(dp_mask, 80);
DP_SIZE(dp_bucket, 64);
DP_SIZE(dp_actions, 32);
DP_SIZE(dp_flow, 128);
DP_SIZE(dp_count, 16);
DP_SIZE(dp_band, 48);
DP_SIZE(dp_meter, 416);
DP_SIZE(dp_port, 8);
DP_SIZE(dp_tally, 64);
DP_SIZE(dp_punted, 32);
DP_SIZE(dp_punt, 80);
DP_SIZE(dp_control, 32);
DP_SIZE(dp_cached, 80);
#undef DP_SIZE
