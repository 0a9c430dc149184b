// The program on the ingress of every port: finds a packet's flow, counts the packet and carries out the flow's actions.
//
// It reads the maps that the service fills (layout.h) and never waits.
#include <linux/bpf.h>
#include <linux/pkt_cls.h>

#include <bpf/bpf_endian.h>
#include <bpf/bpf_helpers.h>

#include "../layout.h"

// ---- definitions that the shared sources require

typedef struct __sk_buff dp_packet;
#define dp_load(packet, offset, to, length) bpf_skb_load_bytes(packet, offset, to, length)
#define dp_loop(count, step, context) bpf_loop(count, step, context, 0)

struct dp_tables;  // stands for the maps; never used, because each map exists only once

// The service sets the final sizes when it loads the program.
#define PLANE_MAP(map_name, kind, entries, of) \
  struct {                                     \
    __uint(type, kind);                        \
    __uint(max_entries, entries);              \
    __uint(map_flags, BPF_F_MMAPABLE);         \
    __type(key, __u32);                        \
    __type(value, of);                         \
  } map_name SEC(".maps")

PLANE_MAP(control, BPF_MAP_TYPE_ARRAY, 1, struct dp_control);
PLANE_MAP(masks, BPF_MAP_TYPE_ARRAY, 2 * DP_MAX_MASKS, struct dp_mask);
PLANE_MAP(buckets, BPF_MAP_TYPE_ARRAY, 2, struct dp_bucket);
PLANE_MAP(hints, BPF_MAP_TYPE_ARRAY, 1, struct dp_hint);
PLANE_MAP(flows, BPF_MAP_TYPE_ARRAY, 1, struct dp_flow);
PLANE_MAP(counts, BPF_MAP_TYPE_ARRAY, 1, struct dp_count);
PLANE_MAP(steps, BPF_MAP_TYPE_ARRAY, DP_MAX_STEPS, struct dp_step);
PLANE_MAP(meters, BPF_MAP_TYPE_ARRAY, DP_MAX_METERS, struct dp_meter);
PLANE_MAP(ports, BPF_MAP_TYPE_ARRAY, DP_MAX_PORTS, struct dp_port);
PLANE_MAP(punts, BPF_MAP_TYPE_ARRAY, DP_MAX_PORTS, struct dp_punt);
PLANE_MAP(cache, BPF_MAP_TYPE_ARRAY, 1, struct dp_cached);  // a processor's sets after another's
PLANE_MAP(tallies, BPF_MAP_TYPE_ARRAY, 1, struct dp_tally);

struct {
  __uint(type, BPF_MAP_TYPE_HASH);
  __uint(max_entries, DP_MAX_PORTS);
  __type(key, __u32);    // interface index
  __type(value, __u32);  // place in `ports`
} port_of SEC(".maps");

struct {
  __uint(type, BPF_MAP_TYPE_RINGBUF);
  __uint(max_entries, DP_PUNT_RING);
} punted SEC(".maps");

#define PLANE_AT(name, map, of)                                                      \
  static __always_inline struct of *name(const struct dp_tables *tables, __u32 at) { \
    (void)tables;                                                                    \
    return bpf_map_lookup_elem(&map, &at);                                           \
  }
PLANE_AT(dp_mask_at, masks, dp_mask)
PLANE_AT(dp_bucket_at, buckets, dp_bucket)
PLANE_AT(dp_hint_at, hints, dp_hint)
PLANE_AT(dp_flow_at, flows, dp_flow)

// Of this processor.
static __always_inline struct dp_cached *dp_cached_at(const struct dp_tables *tables, __u32 set, __u32 sets) {
  __u32 at = bpf_get_smp_processor_id() * sets + set;
  (void)tables;
  return bpf_map_lookup_elem(&cache, &at);
}

#include "../classify.h"
#include "../meter.h"

// ---- a packet being processed

struct way {
  struct __sk_buff *skb;
  const struct dp_flow *flow;
  const struct dp_control *table;
  struct dp_tally *tally;
  __u32 ingress;  // interface index
  __u32 port;     // the ingress port's place
  __u32 l3;       // offset; 0: no IP header
  __u32 l4;       // likewise
  __u32 packets;  // to be counted
  __u32 bytes;
  __u32 next;   // step of the list, + 1
  __u16 type;   // Ethernet type
  __u8 proto;   // after extension headers
  __u8 routed;  // by an IPv6 routing header, so that the checksum covers another destination
  __u8 output;  // DP_PORT and so on
  __u8 to;      // place of the output port
  __u8 failed;  // a rewrite was impossible
};

// Determines the packets and bytes to count: those of the frame, or of all segments that the kernel will cut it into. A VLAN tag
// counts even if the kernel keeps it beside the frame.
static __always_inline void weigh(struct way *way, const struct dp_key *key, __u32 l4) {
  struct __sk_buff *skb = way->skb;
  __u32 header = 8;
  __u8 offset = 0;
  way->packets = 1;
  way->bytes = skb->len + (skb->vlan_present ? 4 : 0);
  if (skb->gso_segs < 2 || l4 == 0) return;
  if (key->proto == DP_TCP && bpf_skb_load_bytes(skb, l4 + 12, &offset, 1) == 0) header = (offset >> 4) * 4;
  way->packets = skb->gso_segs;
  way->bytes += (skb->gso_segs - 1) * (l4 + header + (skb->vlan_present ? 4 : 0));
}

static __always_inline void count(__u32 place, const struct dp_control *table, const struct way *way) {
  __u32 at = bpf_get_smp_processor_id() * table->flows + place;
  struct dp_count *cell = bpf_map_lookup_elem(&counts, &at);
  if (!cell) return;
  cell->packets += way->packets;
  cell->bytes += way->bytes;
}

// ---- rewrites

static __always_inline int set_dscp(struct way *way, __u8 dscp) {
  struct __sk_buff *skb = way->skb;
  __u8 bytes[2];
  if (way->l3 == 0 || bpf_skb_load_bytes(skb, way->l3, bytes, sizeof bytes) != 0) return -1;
  const __u16 before = bytes[0] << 8 | bytes[1];
  if (way->type == DP_TYPE_IPV6) {
    const __u16 after = (before & 0xf03f) | dscp << 6;
    bytes[0] = after >> 8;
    bytes[1] = (__u8)after;
    return bpf_skb_store_bytes(skb, way->l3, bytes, sizeof bytes, BPF_F_RECOMPUTE_CSUM);
  }
  const __u16 after = (before & 0xff03) | dscp << 2;
  bytes[1] = (__u8)after;
  if (bpf_l3_csum_replace(skb, way->l3 + 10, bpf_htons(before), bpf_htons(after), 2) != 0) return -1;
  return bpf_skb_store_bytes(skb, way->l3 + 1, &bytes[1], 1, 0);
}

// Changes the outer tag, which the kernel has moved out of the frame before the program sees it.
static __always_inline int set_vlan(struct way *way, __u16 value, __u16 mask) {
  struct __sk_buff *skb = way->skb;
  if (!skb->vlan_present) return -1;
  const __u16 proto = skb->vlan_proto;
  const __u16 tag = (skb->vlan_tci & ~mask) | value;
  if (tag == (__u16)skb->vlan_tci) return 0;
  if (bpf_skb_vlan_pop(skb) != 0) return -1;
  return bpf_skb_vlan_push(skb, proto, tag);
}

static __always_inline void shift_headers(struct way *way, int by) {
  if (way->l3 != 0) way->l3 += by;
  if (way->l4 != 0) way->l4 += by;
}

// The kernel keeps the outer tag beside the frame and moves the next one into the frame, or out of it. A new tag has the id and
// the priority of the one that was the outermost.
static __always_inline int push_vlan(struct way *way, __u16 type) {
  struct __sk_buff *skb = way->skb;
  const __u32 tagged = skb->vlan_present;
  if (bpf_skb_vlan_push(skb, bpf_htons(type), tagged ? skb->vlan_tci : 0) != 0) return -1;
  if (tagged) shift_headers(way, 4);
  return 0;
}

static __always_inline int pop_vlan(struct way *way) {
  struct __sk_buff *skb = way->skb;
  if (!skb->vlan_present || bpf_skb_vlan_pop(skb) != 0) return -1;
  if (skb->vlan_present) shift_headers(way, -4);
  return 0;
}

// Sets the time to live, or decrements it if `ttl` is negative; a packet whose time is over cannot be decremented.
static __always_inline int set_ttl(struct way *way, int ttl) {
  struct __sk_buff *skb = way->skb;
  const int v6 = way->type == DP_TYPE_IPV6;
  const __u32 at = way->l3 + (v6 ? DP_IPV6_NEXT : DP_IPV4_TTL);
  __u8 bytes[2];
  if (way->l3 == 0 || bpf_skb_load_bytes(skb, at, bytes, sizeof bytes) != 0) return -1;
  const __u8 before = v6 ? bytes[1] : bytes[0];
  if (ttl < 0 && before <= 1) return -1;
  const __u8 after = ttl < 0 ? before - 1 : ttl;
  if (v6) {
    bytes[1] = after;
    return bpf_skb_store_bytes(skb, at, bytes, sizeof bytes, BPF_F_RECOMPUTE_CSUM);
  }
  if (bpf_l3_csum_replace(skb, way->l3 + DP_IPV4_CHECKSUM, bpf_htons(before << 8), bpf_htons(after << 8), 2) != 0) return -1;
  return bpf_skb_store_bytes(skb, at, &after, 1, 0);
}

// A datagram without a checksum stays without one.
static __always_inline __u64 checksum_flags(const struct way *way) {
  return way->proto == DP_UDP ? BPF_F_MARK_MANGLED_0 : 0;
}

static __always_inline int set_ipv4(struct way *way, const struct dp_step *step) {
  struct __sk_buff *skb = way->skb;
  const __u32 checksum = dp_checksum_at(way->l4, way->proto);
  __u32 before, after;
  __builtin_memcpy(&after, step->bytes, sizeof after);
  if (way->type != DP_TYPE_IPV4 || way->l3 == 0) return -1;
  const __u32 at = way->l3 + step->at;
  if (bpf_skb_load_bytes(skb, at, &before, sizeof before) != 0) return -1;
  if (checksum != 0 && bpf_l4_csum_replace(skb, checksum, before, after, checksum_flags(way) | BPF_F_PSEUDO_HDR | 4) != 0)
    return -1;
  if (bpf_l3_csum_replace(skb, way->l3 + DP_IPV4_CHECKSUM, before, after, 4) != 0) return -1;
  return bpf_skb_store_bytes(skb, at, &after, sizeof after, 0);
}

// The flag of the store makes up for what bpf_l4_csum_replace does to the kernel's own sum over the packet as if an IPv4 header's
// checksum balanced the address.
static __always_inline int set_ipv6(struct way *way, const struct dp_step *step) {
  struct __sk_buff *skb = way->skb;
  const int covered = !(way->routed && step->at == DP_IPV6_DST);
  const __u32 checksum = covered ? dp_checksum_at(way->l4, way->proto) : 0;
  __u32 before[4], after[4];
  __builtin_memcpy(after, step->bytes, sizeof after);
  if (way->type != DP_TYPE_IPV6 || way->l3 == 0) return -1;
  const __u32 at = way->l3 + step->at;
  if (bpf_skb_load_bytes(skb, at, before, sizeof before) != 0) return -1;
  const __s64 difference = bpf_csum_diff(before, sizeof before, after, sizeof after, 0);
  if (checksum != 0 && bpf_l4_csum_replace(skb, checksum, 0, difference, checksum_flags(way) | BPF_F_PSEUDO_HDR) != 0) return -1;
  return bpf_skb_store_bytes(skb, at, after, sizeof after, BPF_F_RECOMPUTE_CSUM);
}

// Fragments other than the first have no ports to set.
static __always_inline int set_l4(struct way *way, const struct dp_step *step) {
  struct __sk_buff *skb = way->skb;
  const __u16 after = bpf_htons(step->value);
  __u16 before;
  if (way->proto != step->proto) return -1;
  if (way->l4 == 0) return 0;
  const __u32 at = way->l4 + step->at;
  if (bpf_skb_load_bytes(skb, at, &before, sizeof before) != 0) return -1;
  if (bpf_l4_csum_replace(skb, dp_checksum_at(way->l4, way->proto), before, after, checksum_flags(way) | 2) != 0) return -1;
  return bpf_skb_store_bytes(skb, at, &after, sizeof after, 0);
}

static __always_inline int set_eth(struct way *way, const struct dp_step *step) {
  __u8 address[6];
  __builtin_memcpy(address, step->bytes, sizeof address);
  return bpf_skb_store_bytes(way->skb, step->at, address, sizeof address, 0);
}

static __always_inline int set_queue(struct way *way, __u16 queue) {
  way->skb->priority = 1 << 16 | queue;
  return 0;
}

// Non-zero if the packet lacks what is to be rewritten.
static __always_inline int carry_out(struct way *way, const struct dp_step *step) {
  switch (step->kind) {
    case DP_STEP_QUEUE:
      return set_queue(way, step->value);
    case DP_STEP_ETH:
      return set_eth(way, step);
    case DP_STEP_VLAN:
      return set_vlan(way, step->value, step->mask);
    case DP_STEP_PUSH:
      return push_vlan(way, step->value);
    case DP_STEP_POP:
      return pop_vlan(way);
    case DP_STEP_DSCP:
      return set_dscp(way, (__u8)step->value);
    case DP_STEP_TTL:
      return set_ttl(way, step->value);
    case DP_STEP_DEC_TTL:
      return set_ttl(way, -1);
    case DP_STEP_IPV4:
      return set_ipv4(way, step);
    case DP_STEP_IPV6:
      return set_ipv6(way, step);
    case DP_STEP_L4:
      return set_l4(way, step);
    default:
      return -1;
  }
}

static __always_inline int rewrite(struct way *way) {
  const struct dp_actions *actions = &way->flow->actions;
  const __u8 sets = actions->sets;
  __u8 address[6];
  int failed = 0;
  if (sets & DP_SET_QUEUE) set_queue(way, actions->queue);
  if (sets & DP_SET_DSCP) failed |= set_dscp(way, actions->dscp);
  if (sets & DP_SET_DST) {
    __builtin_memcpy(address, actions->eth_dst, sizeof address);
    failed |= bpf_skb_store_bytes(way->skb, 0, address, sizeof address, 0);
  }
  if (sets & DP_SET_SRC) {
    __builtin_memcpy(address, actions->eth_src, sizeof address);
    failed |= bpf_skb_store_bytes(way->skb, 6, address, sizeof address, 0);
  }
  if (sets & DP_SET_VLAN) failed |= set_vlan(way, actions->vlan, actions->vlan_mask);
  return failed;
}

// ---- meters

// True if the packet passes.
static __always_inline int pass_meter(struct way *way) {
  if (way->flow->actions.meter == 0) return 1;
  __u32 at = way->flow->actions.meter - 1;
  struct dp_meter *meter = bpf_map_lookup_elem(&meters, &at);
  if (!meter) return 1;
  const struct dp_verdict verdict = dp_meter_packet(meter, bpf_ktime_get_ns(), way->packets, way->bytes);
  if (verdict.type == DP_BAND_DROP) return 0;
  if (verdict.type == DP_BAND_REMARK && way->l3 != 0) {
    __u8 bytes[2];
    if (bpf_skb_load_bytes(way->skb, way->l3, bytes, sizeof bytes) != 0) return 1;
    const __u8 dscp = way->type == DP_TYPE_IPV6 ? ((bytes[0] << 8 | bytes[1]) >> 6) & 0x3f : bytes[1] >> 2;
    set_dscp(way, dp_remark(dscp, verdict.precedence));
  }
  return 1;
}

// ---- output

static long clone_to(__u32 i, void *context) {
  struct way *way = context;
  const struct dp_port *port = bpf_map_lookup_elem(&ports, &i);
  if (!port || port->number == 0) return 1;
  if (port->ifindex != 0 && port->ifindex != way->ingress) bpf_clone_redirect(way->skb, port->ifindex, 0);
  return 0;
}

static __always_inline int to_port(struct way *way) {
  __u32 at = way->to;
  const struct dp_port *port = bpf_map_lookup_elem(&ports, &at);
  if (port && port->ifindex != 0 && port->ifindex != way->ingress) return bpf_redirect(port->ifindex, 0);
  ++way->tally->no_port;
  return TC_ACT_SHOT;
}

// ---- to the controller

static __always_inline void describe(const struct way *way, const struct dp_port *port, struct dp_punted *to) {
  struct __sk_buff *skb = way->skb;
  to->cookie = way->flow->cookie;
  to->in_port = port->number;
  to->length = skb->len;
  to->segment = skb->gso_size;
  to->tag = skb->vlan_tci;
  to->tag_type = skb->vlan_present ? bpf_ntohs(skb->vlan_proto) : 0;
  to->table = dp_table_of(way->flow);
  to->miss = way->flow->actions.miss;
  to->verified = bpf_csum_level(skb, BPF_CSUM_LEVEL_QUERY) >= 0;
}

// Copies the frame into a ring entry for frames of up to `room` bytes, a power of two, because the verifier requires a constant
// entry size. The mask on `last` changes nothing, but proves the bound to the verifier.
#define PUNT_WITHIN(name, room)                                                        \
  static __always_inline int name(const struct way *way, const struct dp_port *port) { \
    struct {                                                                           \
      struct dp_punted about;                                                          \
      __u8 frame[room];                                                                \
    } *to = bpf_ringbuf_reserve(&punted, sizeof *to, 0);                               \
    __u32 last = way->skb->len - 1;                                                    \
    if (!to) return -1;                                                                \
    describe(way, port, &to->about);                                                   \
    asm volatile("" : "+r"(last));                                                     \
    last &= (room)-1;                                                                  \
    if (bpf_skb_load_bytes(way->skb, 0, to->frame, last + 1) != 0) {                   \
      bpf_ringbuf_discard(to, 0);                                                      \
      return -1;                                                                       \
    }                                                                                  \
    bpf_ringbuf_submit(to, 0);                                                         \
    return 0;                                                                          \
  }
PUNT_WITHIN(punt_short, 256)
PUNT_WITHIN(punt_frame, 2048)
PUNT_WITHIN(punt_long, 16384)
PUNT_WITHIN(punt_uncut, DP_PUNT_MAX)

static __always_inline int punt_sized(const struct way *way, const struct dp_port *port) {
  const __u32 length = way->skb->len;
  if (length <= 256) return punt_short(way, port);
  if (length <= 2048) return punt_frame(way, port);
  if (length <= 16384) return punt_long(way, port);
  return punt_uncut(way, port);
}

// Not inlined, so that it has its own stack frame.
static __noinline int punt(struct way *way) {
  __u32 at = way->port;
  const struct dp_port *port = bpf_map_lookup_elem(&ports, &at);
  struct dp_punt *punt = bpf_map_lookup_elem(&punts, &at);
  if (!port || !punt) return TC_ACT_SHOT;
  if (!way->table->punting)
    dp_add(&punt->unwanted, way->packets);
  else if (way->skb->len > DP_PUNT_MAX)
    dp_add(&punt->too_long, way->packets);
  else if (!dp_conforms(&punt->rate, bpf_ktime_get_ns(), way->packets))
    dp_add(&punt->limited, way->packets);
  else if (punt_sized(way, port) != 0)
    dp_add(&punt->full, way->packets);
  return TC_ACT_SHOT;
}

static __always_inline int output(struct way *way) {
  switch (way->output) {
    case DP_PORT:
      return to_port(way);
    case DP_IN_PORT:
      return bpf_redirect(way->ingress, 0);
    case DP_NORMAL:
      return TC_ACT_UNSPEC;
    case DP_CONTROLLER:
      return punt(way);
    case DP_ALL:
      bpf_loop(DP_MAX_PORTS, clone_to, way, 0);
      return TC_ACT_SHOT;
    default:
      return TC_ACT_SHOT;
  }
}

// ---- lists of actions

// Outputs a copy of the packet as it is now, because other actions follow.
static __always_inline void output_copy(struct way *way, const struct dp_step *step) {
  __u32 at = step->port;
  const struct dp_port *port = bpf_map_lookup_elem(&ports, &at);
  switch (step->output) {
    case DP_PORT:
      if (port && port->ifindex != 0 && port->ifindex != way->ingress)
        bpf_clone_redirect(way->skb, port->ifindex, 0);
      else
        ++way->tally->no_port;
      break;
    case DP_IN_PORT:
      bpf_clone_redirect(way->skb, way->ingress, 0);
      break;
    case DP_ALL:
      bpf_loop(DP_MAX_PORTS, clone_to, way, 0);
      break;
    case DP_CONTROLLER:
      punt(way);
      break;
    default:
      break;
  }
}

// An output at the end of the list is left to output(), which need not copy the packet.
static long take_step(__u32 i, void *context) {
  struct way *way = context;
  __u32 at = way->next - 1;
  const struct dp_step *step = bpf_map_lookup_elem(&steps, &at);
  (void)i;
  if (!step) return 1;
  way->next = step->next;
  if (step->kind == DP_STEP_OUTPUT && step->next == 0) {
    way->output = step->output;
    way->to = step->port;
  } else if (step->kind == DP_STEP_OUTPUT) {
    output_copy(way, step);
  } else if (carry_out(way, step) != 0) {
    way->failed = 1;
    return 1;
  }
  return step->next == 0;
}

// Applies the flow's rewrites, or all of its list but the last output.
static __always_inline void act(struct way *way) {
  const struct dp_actions *actions = &way->flow->actions;
  if (actions->list != 0) {
    way->next = actions->list;
    bpf_loop(DP_LIST_STEPS, take_step, way, 0);
    return;
  }
  way->output = actions->output;
  way->to = actions->port;
  if (actions->sets != 0 && rewrite(way) != 0) way->failed = 1;
}

// ---- what the verifier follows once, for any arguments, because the functions are global; each has its own stack frame

__noinline int parse(struct __sk_buff *skb, __u32 in_port, struct dp_key *key, struct dp_headers *headers) {
  const __u16 tag = skb->vlan_present ? (skb->vlan_tci & ~DP_VLAN_PRESENT) | DP_VLAN_PRESENT : 0;
  if (key && headers) dp_parse(skb, in_port, tag, key, headers);
  return 0;
}

__noinline __u32 find(const struct dp_key *key) {
  __u32 zero = 0;
  const struct dp_control *table = bpf_map_lookup_elem(&control, &zero);
  return key && table ? dp_classify(0, table, key) : 0;
}

// ---- entry point

SEC("tc")
int kelim_plane(struct __sk_buff *skb) {
  __u32 zero = 0;
  __u32 processor = bpf_get_smp_processor_id();
  __u32 ingress = skb->ifindex;
  const struct dp_control *table = bpf_map_lookup_elem(&control, &zero);
  struct dp_tally *tally = bpf_map_lookup_elem(&tallies, &processor);
  const __u32 *port_place = bpf_map_lookup_elem(&port_of, &ingress);
  if (!table || !tally || !port_place) return TC_ACT_UNSPEC;
  __u32 port_at = *port_place;
  const struct dp_port *port = bpf_map_lookup_elem(&ports, &port_at);
  if (!port) return TC_ACT_UNSPEC;

  struct dp_key key = {};
  struct dp_headers headers = {};
  parse(skb, port->number, &key, &headers);
  ++tally->looked_up;
  const __u32 place = find(&key);
  if (place == 0) return TC_ACT_SHOT;
  ++tally->matched;

  struct way way = {
      .skb = skb, .table = table, .tally = tally, .ingress = ingress, .port = port_at, .l3 = headers.l3, .l4 = headers.l4};
  way.type = key.eth_type;
  way.proto = key.proto;
  way.routed = (key.ext_headers & DP_EXT_ROUTER) != 0;
  way.flow = dp_flow_at(0, place - 1);
  if (!way.flow) return TC_ACT_SHOT;
  tally->matched_in_1 += dp_table_of(way.flow);
  weigh(&way, &key, headers.l4);
  count(place - 1, table, &way);
  if (!pass_meter(&way)) {
    ++tally->metered;
    return TC_ACT_SHOT;
  }
  act(&way);
  if (way.failed) {
    ++tally->not_rewritten;
    return TC_ACT_SHOT;
  }
  return output(&way);
}

char plane_license[] SEC("license") = "Dual BSD/GPL";
