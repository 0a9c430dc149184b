// The flow information cache: one node for every accepted flow, found by (flow_index, vsd_id).
//
// The index is a hash set of node pointers: 2-bit bucket flags, power-of-two bucket counts, triangular probing, tombstones, at
// most 0.77 full. Growing it never moves a node, so a node pointer stays valid until the node is deleted. This is not a database:
// the programming services see only the records built from a node.
//
// Thread: main SDN thread, lookups included. There is no lock.
#pragma once

#include <cstdint>

#include "ssc_kelim/sdn/flow_node.h"

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

// Creates the empty index and returns it; null when memory is short. A second call keeps the index and its contents.
flow_info_hash *ssc_kelim_flow_info_init();
// As above; returns 0.
std::int32_t flow_info_hash_init();

// The flow's node, or null. `key` is a zeroed key, or a node.
flow_info_node *ssc_kelim_find_flow_node(const flow_info_key *key);

// Creates or refreshes the node of `key_only` (a zeroed node that holds nothing but the key), keeps a copy of the `size` bytes at
// `msg` in it and parses them. Null when memory is short: without the node nothing is kept, without the copy the node stays in
// the index.
flow_info_node *ssc_kelim_add_flow_node(const void *msg, std::int32_t size, const flow_info_node *key_only);

// Takes the node out of the index and releases it with its copy. 0, or QX_NO_NODE for null.
std::int32_t ssc_kelim_del_flow_node(flow_info_node *node);

// Calls `op` on every node in bucket order until a call returns non-zero. Returns that result, or 0.
std::int32_t ssc_kelim_for_each_flow_node_op(flow_info_op op, void *arg);

// ---- the set itself

// Rebuilds the index with at least `n` buckets (rounded up to a power of two, at least 4), without tombstones. Does nothing when
// the live entries would not fit. 0, or QX_FAILED when memory is short (nothing changed).
int kh_resize_flow_info_hash(flow_info_hash *hash, std::uint32_t n);

// Finds or creates the node of `key_only` and stores it in *out too. When the index cannot grow, the new node is returned without
// being indexed. Null when there is no memory for the node.
flow_info_node *flow_info_cache_create(flow_info_node **out, const flow_info_node *key_only);
// Takes the node out and releases it, but not its raw copy.
void flow_info_cache_destroy(flow_info_node *node);

flow_info_node *flow_info_hash_find(const flow_info_key *key);
// Inserts `node`, unless an entry with an equal key exists. 0.
std::int32_t flow_info_hash_insert(flow_info_node *node);
void flow_info_hash_remove(const flow_info_node *node);
std::int32_t flow_info_hash_traverse(flow_info_op op, void *arg);
// Buckets start to min(start + count, n_buckets) - 1 only.
std::int32_t flow_info_hash_traverse_with_index(flow_info_op op, std::uint32_t start, std::uint32_t count, void *arg);
std::uint32_t flow_info_hash_size();

// For tests only: releases every node and the index.
void ssc_kelim_flow_db_reset_for_tests();
