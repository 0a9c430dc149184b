// The flow information cache: one node for every accepted flow, found by (flow_index, vsd_id).
//
// A node holds the flow's parsed description and its flow-mod as received. The index is a hash set of node pointers: 2-bit bucket
// flags, power-of-two bucket counts, triangular probing, tombstones, at most 0.77 full. Growing it never moves a node, so a node
// pointer is good until the node is deleted. This is not a database: what the programming services see are the records built from
// a node.
//
// Thread: main SDN thread, lookups included. There is no lock.
#pragma once

#include <cstddef>
#include <cstdint>

// The key as hashed and compared: all 16 bytes, so `filler` has to be 0 in every key that is built for a lookup.
struct flow_info_key {
  std::uint64_t flow_index;
  std::uint32_t vsd_id;
  std::uint32_t filler;
};

// What the match and the actions of a flow say, field by field. Values and masks as received, in host byte order; a field without
// a mask in the message has a mask of all ones of the field's width.
struct flow_description {
  std::uint8_t dst_mac[6], dst_mac_mask[6];
  std::uint8_t src_mac[6], src_mac_mask[6];
  std::uint8_t ipv6_src[16], ipv6_src_mask[16];
  std::uint8_t ipv6_dst[16], ipv6_dst_mask[16];
  std::uint8_t cos, cos_mask;              // VLAN priority
  std::uint8_t icmp_type, icmp_type_mask;  // ICMPv4 or ICMPv6
  std::uint8_t icmp_code, icmp_code_mask;
  std::uint8_t ipv4_dscp, ipv4_dscp_mask;
  std::uint8_t protocol, protocol_mask;
  std::uint16_t etype, etype_mask;
  std::uint16_t sport, sport_mask;  // TCP or UDP
  std::uint16_t dport, dport_mask;
  std::uint16_t next_header, next_header_mask;  // IPv6 extension headers
  std::uint32_t in_port;
  std::uint32_t exp_app_type;   // 3: a service-chain flow, translated into access-control entries by its application
  std::uint32_t vid, vid_mask;  // 16-bit values
  std::uint32_t src_ipv4, src_ipv4_mask;
  std::uint32_t dst_ipv4, dst_ipv4_mask;
  std::uint8_t hit_state_l2_da;  // only in a node read back from a stored access-control entry
  std::uint8_t l3_uc;            // likewise
  std::uint8_t fwd_flag;         // output to an ordinary port or NORMAL
  std::uint8_t ctrl_flag;        // output to CONTROLLER, IN_PORT or ALL
  std::uint8_t keep_ttl_flag;    // only in a node read back from a stored access-control entry
  std::uint8_t mod_dst_mac[6], mod_dst_mac_mask[6];
  std::uint8_t mod_src_mac[6], mod_src_mac_mask[6];
  std::uint8_t mod_cos;
  std::uint8_t mod_ipv4_dscp;
  std::uint16_t mod_vid;
  std::uint32_t output_ifx;
  std::uint32_t mod_queue_pri;
};

// A node. It serves as its own key.
struct flow_info_node : flow_info_key, flow_description {
  std::uint64_t rule_bitmap;    // bits of flow_ace_rule_e
  std::uint64_t action_bitmap;  // bits of flow_ace_action_e
  // The install-state words: what a refreshed node takes over from its template.
  std::uint32_t install_state;       // 0
  std::uint64_t flow_field_bitmap;   // which match fields are present: bits of flow_field_e (bit 6: a VLAN id)
  std::uint64_t flow_action_bitmap;  // which actions are present: bits of flow_action_e
  std::uint32_t raw_len;             // bytes of `raw`
  std::uint8_t *raw;                 // the flow-mod as received; owned
};

static_assert(sizeof(flow_info_key) == 16 && sizeof(flow_description) == 192 && sizeof(flow_info_node) == 264,
              "a million of them: keep the node free of avoidable padding");

// The index.
struct flow_info_hash {
  std::uint32_t n_buckets;
  std::uint32_t size;         // live entries
  std::uint32_t n_occupied;   // live entries and tombstones
  std::uint32_t upper_bound;  // n_occupied at which the next insert resizes
  std::uint32_t *flags;       // 2 bits a bucket, 16 buckets a word: 2 empty, 1 deleted, 0 occupied
  flow_info_node **keys;
  void *vals;  // stays null: a set
};

// The one index; null before ssc_kelim_flow_info_init.
extern flow_info_hash *flow_info_list;

using flow_info_op = std::int32_t (*)(flow_info_node *node, void *arg);

// Creates the empty index and returns it; null when memory is short. A second call keeps the index with what it holds.
flow_info_hash *ssc_kelim_flow_info_init();
// The same; 0.
std::int32_t flow_info_hash_init();

// The flow's node, or null. `key` is a zeroed key, or a node.
flow_info_node *ssc_kelim_find_flow_node(const flow_info_key *key);

// Creates or refreshes the node of `key_only` (a zeroed node that holds nothing but the key), keeps a copy of the `size` bytes at
// `msg` in it and parses them. Null when memory is short: without the node nothing is kept, without the copy the node stays in
// the index.
flow_info_node *ssc_kelim_add_flow_node(const void *msg, std::int32_t size, const flow_info_node *key_only);

// Takes the node out of the index and releases it with its copy. 0, or -5 for null.
std::int32_t ssc_kelim_del_flow_node(flow_info_node *node);

// Calls `op` for every node in bucket order until one returns non-zero; that result, or 0.
std::int32_t ssc_kelim_for_each_flow_node_op(flow_info_op op, void *arg);

// ---- the set itself

// Rebuilds the index with at least `n` buckets (rounded up to a power of two, at least 4), without tombstones. Does nothing when
// the live entries would not fit. 0, or -1 when memory is short (nothing changed).
int kh_resize_flow_info_hash(flow_info_hash *hash, std::uint32_t n);

// Finds or creates the node of `key_only` and stores it in *out too. When the index cannot grow, the new node is returned without
// being indexed. Null when there is no memory for the node.
flow_info_node *flow_info_cache_create(flow_info_node **out, const flow_info_node *key_only);
// Takes the node out and releases it, but not its raw copy.
void flow_info_cache_destroy(flow_info_node *node);

flow_info_node *flow_info_hash_find(const flow_info_key *key);
// Puts `node` in, unless an entry with an equal key is there. 0.
std::int32_t flow_info_hash_insert(flow_info_node *node);
void flow_info_hash_remove(const flow_info_node *node);
std::int32_t flow_info_hash_traverse(flow_info_op op, void *arg);
// Buckets start to min(start + count, n_buckets) - 1 only.
std::int32_t flow_info_hash_traverse_with_index(flow_info_op op, std::uint32_t start, std::uint32_t count, void *arg);
std::uint32_t flow_info_hash_size();

// For tests only: releases every node and the index.
void ssc_kelim_flow_db_reset_for_tests();
