// Finds the flow that a packet matches, by a search over the distinct masks of the table. Plain C, the same source in the kernel
// and in user space.
//
// The including file must have defined dp_loop() (parse.h) and, for an opaque struct dp_tables, dp_mask_at(), dp_hint_at(),
// dp_bucket_at(), dp_flow_at() and dp_cached_at() (of this processor), which return null for a place outside the map.
#pragma once

#include "parse.h"

typedef __u64 __attribute__((may_alias)) dp_word;  // one of the DP_WORDS words of a key

DP_INLINE void dp_mask_key(const dp_word *key, const __u64 *mask, __u64 *masked) {
  for (int i = 0; i < DP_WORDS; ++i) masked[i] = key[i] & mask[i];
}

// The hash of the key's bits that are in `mask`: two independent chains of multiplications, which a processor executes in
// parallel.
DP_INLINE __u64 dp_hash_under(const dp_word *key, const __u64 *mask, __u32 id) {
  __u64 a = id * 0x9e3779b97f4a7c15ULL + 1;
  __u64 b = 0x2545f4914f6cdd1dULL;
  for (int i = 0; i < DP_WORDS; i += 2) {
    a = (a ^ (key[i] & mask[i])) * 0xff51afd7ed558ccdULL;
    b = (b ^ (key[i + 1] & mask[i + 1])) * 0xc4ceb9fe1a85ec53ULL;
    a ^= a >> 32;
    b ^= b >> 29;
  }
  a = (a + (b << 32 | b >> 32)) * 0xd6e8feb86659fd93ULL;
  return a ^ a >> 32;
}

DP_INLINE __u64 dp_hash(const __u64 *masked, __u32 id) {
  return dp_hash_under(masked, masked, id);
}

DP_INLINE __u32 dp_tag(__u64 hash) {
  return (__u32)(hash >> 33);
}
DP_INLINE __u32 dp_first_bucket(__u64 hash, __u32 bucket_mask) {
  return (__u32)hash & bucket_mask;
}
DP_INLINE __u32 dp_second_bucket(__u64 hash, __u32 bucket_mask) {
  const __u32 other = (__u32)((hash * 0xff51afd7ed558ccdULL) >> 32) & bucket_mask;
  return other != dp_first_bucket(hash, bucket_mask) ? other : other ^ 1;
}

// The bit of flows with this tag in the hint of the bucket in which they belong.
DP_INLINE __u64 dp_hint_bit(__u32 tag, __u32 bucket) {
  return 1ULL << (bucket % DP_HINT_BUCKETS * 8 + tag % 8);
}

// The bucket's entry with this tag (there is at most one), or 0. *open becomes non-zero if an entry has never been used, so that
// no flow had to move to its second bucket. Branch-free: each entry's branch would double the paths that the verifier follows,
// and Linux 6.1 would give up. The compiler would turn a comparison that it recognises into a branch; the asm hides the range of
// the difference from it. The second asm lets it not put off a half of the work, for which all entries would wait on the stack:
// 512 bytes are for all frames together.
DP_INLINE __u64 dp_scan(const struct dp_bucket *bucket, __u32 tag, __u64 *open) {
  __u64 found = 0, unused = 0;
  for (int i = 0; i < DP_BUCKET; ++i) {
    const __u64 entry = *(const volatile __u64 *)&bucket->entries[i];
    __u64 differs = entry >> 32 ^ tag;
    asm volatile("" : "+r"(differs));
    found |= entry & (0 - ((differs - 1) >> 63));
    unused |= (entry - 1) >> 63;
    asm volatile("" : "+r"(found), "+r"(unused));
  }
  *open = unused;
  return found;
}

DP_INLINE int dp_is(const struct dp_flow *flow, const dp_word *key, const __u64 *mask, __u32 id) {
  __u64 differs = flow->mask ^ id;
  for (int i = 0; i < DP_WORDS; ++i) differs |= flow->key[i] ^ (key[i] & mask[i]);
  return differs == 0;
}

// The place + 1 of the flow in force with this key under the mask with that id; 0: none.
DP_INLINE __u32 dp_find_under(const struct dp_tables *tables, const dp_word *key, const __u64 *mask, __u32 id,
                              __u32 bucket_mask) {
  const __u64 hash = dp_hash_under(key, mask, id);
  const __u32 first = dp_first_bucket(hash, bucket_mask);
  __u64 open = 0;
  const struct dp_hint *hint = dp_hint_at(tables, first / DP_HINT_BUCKETS);
  if (!hint || !(*(const volatile __u64 *)&hint->bits & dp_hint_bit(dp_tag(hash), first))) return 0;
  const struct dp_bucket *bucket = dp_bucket_at(tables, first);
  if (!bucket) return 0;
  __u32 place = (__u32)dp_scan(bucket, dp_tag(hash), &open);
  if (place) {
    const struct dp_flow *flow = dp_flow_at(tables, place - 1);
    if (flow && dp_is(flow, key, mask, id)) return place;
  }
  if (open) return 0;
  bucket = dp_bucket_at(tables, dp_second_bucket(hash, bucket_mask));
  if (!bucket) return 0;
  place = (__u32)dp_scan(bucket, dp_tag(hash), &open);
  if (place) {
    const struct dp_flow *flow = dp_flow_at(tables, place - 1);
    if (flow && dp_is(flow, key, mask, id)) return place;
  }
  return 0;
}

DP_INLINE __u32 dp_find(const struct dp_tables *tables, const __u64 *masked, __u32 id, __u32 bucket_mask) {
  return dp_find_under(tables, masked, masked, id, bucket_mask);
}

struct dp_search {
  const struct dp_tables *tables;
  const dp_word *key;
  __u64 index;  // of the best flow so far
  __u32 list;   // first row
  __u32 bucket_mask;
  __u32 type;
  __u32 rank;
  __u32 place;  // + 1
};

static long dp_search_step(__u32 i, void *context) {
  struct dp_search *search = (struct dp_search *)context;
  const struct dp_mask *mask = dp_mask_at(search->tables, search->list + i);
  if (!mask) return 1;
  const __u32 rank = *(const volatile __u32 *)&mask->rank;
  if (rank == 0) return 1;
  const __u32 only = *(const volatile __u32 *)&mask->only_type;
  if (rank >= search->rank && (only == DP_ANY_TYPE || only == search->type)) {
    const __u32 place = dp_find_under(search->tables, search->key, mask->words, mask->id, search->bucket_mask);
    const struct dp_flow *flow = place ? dp_flow_at(search->tables, place - 1) : 0;
    if (flow && (flow->rank > search->rank || (flow->rank == search->rank && flow->index > search->index))) {
      search->rank = flow->rank;
      search->index = flow->index;
      search->place = place;
    }
  }
  const __u32 rest = *(const volatile __u32 *)&mask->rest;
  return rest == 0 || rest < search->rank;
}

DP_INLINE __u32 dp_search_all(const struct dp_tables *tables, const struct dp_control *control, __u64 current, const dp_word *key,
                              __u32 type) {
  struct dp_search search;
  __builtin_memset(&search, 0, sizeof search);
  search.tables = tables;
  search.key = key;
  search.list = (__u32)(current & 1) * DP_MAX_MASKS;
  search.bucket_mask = control->bucket_mask;
  search.type = type;
  dp_loop(DP_MAX_MASKS, dp_search_step, &search);
  return search.place;
}

// The way that may hold the result of a key with this tag; DP_CACHE_WAYS: none does.
DP_INLINE __u32 dp_way_of(const struct dp_cached *set, __u64 current, __u16 tag) {
  for (__u32 way = 0; way < DP_CACHE_WAYS; ++way)
    if (set->tag[way] == tag && set->current[way] == current) return way;
  return DP_CACHE_WAYS;
}

// The way for another result: one that is out of date or, for each eighth miss, one in turn; DP_CACHE_WAYS: none. So results stay
// for some time even where more headers than ways take turns.
DP_INLINE __u32 dp_way_for(struct dp_cached *set, __u64 current) {
  for (__u32 way = 0; way < DP_CACHE_WAYS; ++way)
    if (set->current[way] != current) return way;
  if (++set->misses % 8 != 0) return DP_CACHE_WAYS;
  return set->misses / 8 % DP_CACHE_WAYS;
}

DP_INLINE int dp_is_cached(const __u64 *cached, const dp_word *key, const __u64 *matched) {
  __u64 differs = 0;
  for (int i = 0; i < DP_WORDS; ++i) differs |= cached[i] ^ (key[i] & matched[i]);
  return differs == 0;
}

// The place + 1 of the matching flow with the highest rank; 0: none matches. A cached result is valid only while the table's
// `current` is the one under which it was found. The bits that are matched on are read at an address that depends on `current`,
// so that they are not older than it.
DP_INLINE __u32 dp_classify(const struct dp_tables *tables, const struct dp_control *control, const struct dp_key *packet) {
  const dp_word *key = (const dp_word *)packet;
  const __u64 current = *(const volatile __u64 *)&control->current;
  const __u32 sets = *(const volatile __u32 *)&control->cache;
  if (sets == 0) return dp_search_all(tables, control, current, key, packet->eth_type);
  const __u64 *matched = control->matched[current & 1];
  const __u64 hash = dp_hash_under(key, matched, 0);
  const __u16 tag = (__u16)(hash >> 48);
  struct dp_cached *set = dp_cached_at(tables, (__u32)hash & (sets - 1), sets);
  if (!set) return 0;
  __u32 way = dp_way_of(set, current, tag);
  if (way < DP_CACHE_WAYS && dp_is_cached(set->key[way], key, matched)) return set->place[way];
  const __u32 place = dp_search_all(tables, control, current, key, packet->eth_type);
  if (way == DP_CACHE_WAYS) way = dp_way_for(set, current);
  if (way == DP_CACHE_WAYS) return place;
  set->current[way] = current;
  set->tag[way] = tag;
  set->place[way] = place;
  dp_mask_key(key, matched, set->key[way]);
  return place;
}
