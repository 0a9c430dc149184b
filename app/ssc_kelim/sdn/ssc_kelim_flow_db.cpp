#include "ssc_kelim/sdn/ssc_kelim_flow_db.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "kelim/common/kelim_debug.h"
#include "ssc_kelim/sdn/ssc_kelim_flow_parse.h"

flow_info_hash *flow_info_list;

namespace {

// The hashes of the keys by bucket, beside the index's `keys`: a doubling moves every node and reads none. Nodes are spread over
// all of memory, and at a million flows reading them took most of 0.3 s, for which the loop stood still.
std::uint32_t *g_hashes;

// The latest node that could not be indexed. Its creator may still use it, so it is released only when the next one replaces it.
flow_info_node *g_unindexed;

// ---- bucket flags

constexpr std::uint32_t kDeleted = 1, kEmpty = 2, kEither = 3;
constexpr int kAllEmpty = 0xaa;
constexpr std::uint32_t kFlagsAWord = 16;

constexpr std::uint32_t flag_words(std::uint32_t buckets) {
  return std::max<std::uint32_t>(1, buckets / kFlagsAWord);
}
constexpr std::uint32_t flag_shift(std::uint32_t bucket) {
  return bucket % kFlagsAWord * 2;
}

std::uint32_t flags_of(const std::uint32_t *flags, std::uint32_t bucket) {
  return flags[bucket / kFlagsAWord] >> flag_shift(bucket) & kEither;
}
bool is_live(const std::uint32_t *flags, std::uint32_t bucket) {
  return flags_of(flags, bucket) == 0;
}
bool is_empty(const std::uint32_t *flags, std::uint32_t bucket) {
  return (flags_of(flags, bucket) & kEmpty) != 0;
}
void mark_deleted(std::uint32_t *flags, std::uint32_t bucket) {
  flags[bucket / kFlagsAWord] |= kDeleted << flag_shift(bucket);
}
void mark_live(std::uint32_t *flags, std::uint32_t bucket) {
  flags[bucket / kFlagsAWord] &= ~(kEither << flag_shift(bucket));
}

constexpr std::uint32_t upper_bound_of(std::uint32_t buckets) {
  return static_cast<std::uint32_t>((std::uint64_t{buckets} * 77 + 50) / 100);  // 0.77 of them, rounded
}

// ---- key

bool equal(const flow_info_key &a, const flow_info_key &b) {
  return a.flow_index == b.flow_index && a.vsd_id == b.vsd_id && a.filler == b.filler;
}

void mix(std::uint32_t &a, std::uint32_t &b, std::uint32_t &c) {
  a = (a - b - c) ^ (c >> 13);
  b = (b - c - a) ^ (a << 8);
  c = (c - a - b) ^ (b >> 13);
  a = (a - b - c) ^ (c >> 12);
  b = (b - c - a) ^ (a << 16);
  c = (c - a - b) ^ (b >> 5);
  a = (a - b - c) ^ (c >> 3);
  b = (b - c - a) ^ (a << 10);
  c = (c - a - b) ^ (b >> 15);
}

// Bob Jenkins' lookup2 (1996) of the 16 key bytes with initial value 0: one block of 12 bytes and a tail of 4.
std::uint32_t hash_of(const flow_info_key &key) {
  std::uint32_t a = 0x9e3779b9, b = a, c = 0;
  a += static_cast<std::uint32_t>(key.flow_index);
  b += static_cast<std::uint32_t>(key.flow_index >> 32);
  c += key.vsd_id;
  mix(a, b, c);
  c += sizeof key;
  a += key.filler;
  mix(a, b, c);
  return c;
}

// ---- probing

// The probe sequence of a key: steps of 1, 2, 3, ...
class probe {
 public:
  probe(const flow_info_hash &hash, const flow_info_key &key)
      : mask_(hash.n_buckets - 1), start_(hash_of(key) & mask_), at_(start_) {}
  std::uint32_t at() const { return at_; }
  // False when the walk is back at its start.
  bool next() {
    at_ = (at_ + ++step_) & mask_;
    return at_ != start_;
  }

 private:
  std::uint32_t mask_, start_, at_, step_ = 0;
};

constexpr std::uint32_t kNowhere = UINT32_MAX;

// The bucket of the key; kNowhere if it is not there, or the index does not exist yet.
std::uint32_t bucket_of(const flow_info_hash *hash, const flow_info_key &key) {
  if (!hash || hash->n_buckets == 0) return kNowhere;
  probe at(*hash, key);
  do {
    if (is_empty(hash->flags, at.at())) return kNowhere;
    if (is_live(hash->flags, at.at()) && equal(*hash->keys[at.at()], key)) return at.at();
  } while (at.next());
  return kNowhere;
}

// The bucket to put a key in: its own, else the first tombstone in the sequence, else the empty bucket that ends it.
std::uint32_t bucket_for(const flow_info_hash &hash, const flow_info_key &key) {
  std::uint32_t tombstone = kNowhere;
  probe at(hash, key);
  do {
    if (is_empty(hash.flags, at.at())) return tombstone != kNowhere ? tombstone : at.at();
    if (!is_live(hash.flags, at.at())) {
      if (tombstone == kNowhere) tombstone = at.at();
    } else if (equal(*hash.keys[at.at()], key)) {
      return at.at();
    }
  } while (at.next());
  return tombstone;
}

// ---- resizing

constexpr std::uint32_t round_up_to_power_of_two(std::uint32_t n) {
  --n;
  for (const unsigned shift : {1, 2, 4, 8, 16}) n |= n >> shift;
  return n + 1;
}

// Moves the live node of bucket `from` to where it belongs among `buckets`, and whatever it displaces there, in place.
void move_node(flow_info_hash &hash, std::uint32_t from, std::uint32_t *new_flags, std::uint32_t buckets) {
  flow_info_node *node = hash.keys[from];
  std::uint32_t node_hash = g_hashes[from];
  mark_deleted(hash.flags, from);
  for (;;) {
    std::uint32_t at = node_hash & (buckets - 1);
    for (std::uint32_t step = 0; !is_empty(new_flags, at);) at = (at + ++step) & (buckets - 1);
    mark_live(new_flags, at);
    if (at >= hash.n_buckets || !is_live(hash.flags, at)) {
      hash.keys[at] = node;
      g_hashes[at] = node_hash;
      return;
    }
    std::swap(hash.keys[at], node);
    std::swap(g_hashes[at], node_hash);
    mark_deleted(hash.flags, at);
  }
}

template <typename T>
bool resize_array(T *&array, std::uint32_t buckets) {
  void *resized = std::realloc(array, buckets * sizeof(T));  // NOLINT(bugprone-sizeof-expression): elements may be pointers
  if (resized) array = static_cast<T *>(resized);
  return resized != nullptr;
}

bool resize_keys(flow_info_hash &hash, std::uint32_t buckets) {
  return resize_array(hash.keys, buckets) && resize_array(g_hashes, buckets);
}

// Makes room for one more entry if the index is full. False when memory is short.
bool make_room(flow_info_hash &hash) {
  if (hash.n_occupied < hash.upper_bound) return true;
  const bool mostly_tombstones = hash.n_buckets > 2 * hash.size;
  return kh_resize_flow_info_hash(&hash, mostly_tombstones ? hash.n_buckets - 1 : hash.n_buckets + 1) == 0;
}

void put(flow_info_hash &hash, std::uint32_t bucket, flow_info_node *node) {
  if (is_empty(hash.flags, bucket)) ++hash.n_occupied;
  hash.keys[bucket] = node;
  g_hashes[bucket] = hash_of(*node);
  mark_live(hash.flags, bucket);
  ++hash.size;
}

void free_node(flow_info_node *node) {
  if (node) ssc_sdn_free(node->raw);
  ssc_sdn_free(node);
}

void keep_unindexed(flow_info_node *node) {
  free_node(std::exchange(g_unindexed, node));
}
void forget_unindexed(const flow_info_node *node) {
  if (node == g_unindexed) g_unindexed = nullptr;
}

std::uint32_t bucket_count() {
  return flow_info_list ? flow_info_list->n_buckets : 0;
}

std::int32_t traverse(flow_info_op op, std::uint32_t start, std::uint32_t end, void *arg) {
  for (std::uint32_t bucket = start; bucket < end; ++bucket) {
    if (!is_live(flow_info_list->flags, bucket)) continue;
    if (const std::int32_t rv = op(flow_info_list->keys[bucket], arg); rv != 0) return rv;
  }
  return 0;
}

}  // namespace

int kh_resize_flow_info_hash(flow_info_hash *hash, std::uint32_t n) {
  const std::uint32_t buckets = std::max<std::uint32_t>(4, round_up_to_power_of_two(n));
  if (hash->size >= upper_bound_of(buckets)) return 0;
  const std::size_t flag_bytes = flag_words(buckets) * sizeof(std::uint32_t);
  auto *new_flags = static_cast<std::uint32_t *>(ssc_sdn_malloc(flag_bytes, __func__, __LINE__));
  if (!new_flags) return QX_FAILED;
  std::memset(new_flags, kAllEmpty, flag_bytes);
  if (hash->n_buckets < buckets && !resize_keys(*hash, buckets)) {
    ssc_sdn_free(new_flags);
    return QX_FAILED;
  }
  for (std::uint32_t bucket = 0; bucket != hash->n_buckets; ++bucket) {
    if (is_live(hash->flags, bucket)) move_node(*hash, bucket, new_flags, buckets);
  }
  if (hash->n_buckets > buckets) resize_keys(*hash, buckets);
  ssc_sdn_free(std::exchange(hash->flags, new_flags));
  hash->n_buckets = buckets;
  hash->n_occupied = hash->size;
  hash->upper_bound = upper_bound_of(buckets);
  return 0;
}

flow_info_hash *ssc_kelim_flow_info_init() {
  ssc_sdn_assert_main_thread();
  if (!flow_info_list) flow_info_list = static_cast<flow_info_hash *>(std::calloc(1, sizeof *flow_info_list));
  return flow_info_list;
}

std::int32_t flow_info_hash_init() {
  ssc_kelim_flow_info_init();
  return 0;
}

flow_info_node *flow_info_hash_find(const flow_info_key *key) {
  const std::uint32_t bucket = bucket_of(flow_info_list, *key);
  return bucket == kNowhere ? nullptr : flow_info_list->keys[bucket];
}

void flow_info_hash_remove(const flow_info_node *node) {
  const std::uint32_t bucket = bucket_of(flow_info_list, *node);
  if (bucket == kNowhere) return;
  mark_deleted(flow_info_list->flags, bucket);
  --flow_info_list->size;
}

std::int32_t flow_info_hash_insert(flow_info_node *node) {
  if (!flow_info_list || !make_room(*flow_info_list)) return 0;
  const std::uint32_t bucket = bucket_for(*flow_info_list, *node);
  if (!is_live(flow_info_list->flags, bucket)) put(*flow_info_list, bucket, node);
  return 0;
}

void flow_info_cache_destroy(flow_info_node *node) {
  flow_info_hash_remove(node);
  forget_unindexed(node);
  ssc_sdn_free(node);
}

flow_info_node *flow_info_cache_create(flow_info_node **out, const flow_info_node *key_only) {
  if (flow_info_node *known = flow_info_hash_find(key_only)) {
    static_cast<flow_info_key &>(*known) = *key_only;
    known->install_state = key_only->install_state;
    known->flow_field_bitmap = key_only->flow_field_bitmap;
    known->flow_action_bitmap = key_only->flow_action_bitmap;
    // Deliberate: the copy that the node held is not released here; a record being written may still borrow from it.
    known->raw = key_only->raw;
    return *out = known;
  }
  void *block = flow_info_list ? ssc_sdn_malloc(sizeof(flow_info_node), __func__, __LINE__) : nullptr;
  if (!block) return *out = nullptr;
  auto *node = static_cast<flow_info_node *>(block);
  *node = *key_only;
  if (make_room(*flow_info_list)) {
    put(*flow_info_list, bucket_for(*flow_info_list, *node), node);
  } else {
    // Deliberate: the flow proceeds with a node that no lookup finds, rather than failing because the index cannot grow.
    keep_unindexed(node);
  }
  return *out = node;
}

std::int32_t flow_info_hash_traverse(flow_info_op op, void *arg) {
  return traverse(op, 0, bucket_count(), arg);
}

std::int32_t flow_info_hash_traverse_with_index(flow_info_op op, std::uint32_t start, std::uint32_t count, void *arg) {
  const std::uint32_t buckets = bucket_count();
  if (start >= buckets || count == 0) return 0;
  return traverse(op, start, start + std::min(count, buckets - start), arg);
}

std::uint32_t flow_info_hash_size() {
  return flow_info_list ? flow_info_list->size : 0;
}

flow_info_node *ssc_kelim_find_flow_node(const flow_info_key *key) {
  ssc_sdn_assert_main_thread();
  flow_info_node *node = flow_info_hash_find(key);
  if (!node) SDN_VER("flow info cache flow_index:%lu, vsd_id:%d get failed.", key->flow_index, key->vsd_id);
  return node;
}

flow_info_node *ssc_kelim_add_flow_node(const void *msg, std::int32_t size, const flow_info_node *key_only) {
  ssc_sdn_assert_main_thread();
  flow_info_node *node = nullptr;
  if (!flow_info_cache_create(&node, key_only)) {
    SDN_ERROR("flow info cache flow_index:%lu, vsd_id:%d create failed.", key_only->flow_index, key_only->vsd_id);
    return nullptr;
  }
  auto *raw = static_cast<std::uint8_t *>(ssc_sdn_malloc(static_cast<std::size_t>(size), __func__, __LINE__));
  if (!raw) {
    SDN_ERROR("flow cache flow_index:%lu, vsd_id:%d create failed.", key_only->flow_index, key_only->vsd_id);
    return nullptr;
  }
  std::memcpy(raw, msg, static_cast<std::size_t>(size));
  static_cast<flow_description &>(*node) = {};
  node->raw_len = static_cast<std::uint32_t>(size);
  node->raw = raw;
  ssc_kelim_parse_flow_rule_para(msg, node);
  ssc_kelim_parse_flow_action_para(msg, node);
  return node;
}

std::int32_t ssc_kelim_del_flow_node(flow_info_node *node) {
  ssc_sdn_assert_main_thread();
  if (!node) {
    SDN_ERROR("flow_info_node is NULL");
    return QX_NO_NODE;
  }
  flow_info_hash_remove(node);
  forget_unindexed(node);
  free_node(node);
  return 0;
}

std::int32_t ssc_kelim_for_each_flow_node_op(flow_info_op op, void *arg) {
  ssc_sdn_assert_main_thread();
  const std::int32_t rv = flow_info_hash_traverse(op, arg);
  if (rv != 0) SDN_ERROR("for_each_db_flow_info_op failed, rv:%d\n", rv);
  return rv;
}

void ssc_kelim_flow_db_reset_for_tests() {
  keep_unindexed(nullptr);
  if (!flow_info_list) return;
  flow_info_hash_traverse(
      [](flow_info_node *node, void *) {
        free_node(node);
        return 0;
      },
      nullptr);
  ssc_sdn_free(flow_info_list->flags);
  std::free(flow_info_list->keys);
  std::free(std::exchange(g_hashes, nullptr));
  std::free(std::exchange(flow_info_list, nullptr));
}
