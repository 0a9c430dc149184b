#include "host/of_ss/desired/groups.h"

#include <algorithm>
#include <bit>

#include "host/of_ss/wire/actions.h"

namespace host::of_ss {
namespace {

constexpr std::size_t kType = 10, kBuckets = 16;

// The rewrites of a bucket are a set of bits: bit N is field N, and these are the rewrites of other things than fields.
constexpr std::uint64_t kTtl = bits(60), kQueue = bits(61), kTags = bits(62);
constexpr std::uint64_t kOuterTag = bits(kOxmVlanVid, kOxmVlanPcp);

struct Planned {
  GroupPlan::Bucket bucket;
  std::uint64_t leaves = 0;   // rewrites that the packet still has after the bucket
  std::uint64_t settles = 0;  // rewrites that make no difference before the bucket, because it sets the same
};

// A tag that the bucket pushed can be popped after it, and with the tag goes what was set in it.
Planned planned(Bytes actions, const BucketEffect &effect) {
  const bool pops_back = effect.pushes && !effect.pops, retags = effect.pushes || effect.pops;
  Planned out{.bucket = {actions, pops_back}};
  out.settles = (effect.sets & ~(retags ? kOuterTag : 0)) | (effect.sets_ttl ? kTtl : 0) | (effect.sets_queue ? kQueue : 0);
  out.leaves = out.settles | (effect.decrements ? kTtl : 0) | (effect.pops ? kTags : 0);
  return out;
}

// Buckets that leave fewer rewrites come first. All that a bucket leaves must be set by every later one.
Verdict plan(std::vector<Planned> buckets, GroupPlan &out) {
  std::ranges::stable_sort(buckets, {},
                           [](const Planned &one) { return std::pair(one.leaves & kTags, std::popcount(one.leaves)); });
  std::uint64_t left = 0;
  for (const Planned &one : buckets) {
    if (left & ~one.settles)
      return refuse(err::kBadBucket, "buckets",
                    "in every order of the buckets the rewrites of one would reach the packet of another");
    left |= one.leaves;
    out.buckets.push_back(one.bucket);
  }
  out.leaves_as_is = left == 0;
  return {};
}

Verdict check_length(Bytes buckets) {
  const std::size_t length = buckets.size() >= kBucketHead ? be16(buckets, 0) : 0;
  if (length >= kBucketHead && length % 8 == 0 && length <= buckets.size()) return {};
  return refuse(err::kBadLen, "bucket", "the length of a bucket is not a multiple of 8 within the message");
}

// Checks the buckets; those without an output drop their packet and are left out of the plan.
Verdict read_buckets(Bytes from, const Terms &terms, std::vector<Planned> &out, std::size_t &count) {
  for (; !from.empty(); ++count) {
    if (const Verdict verdict = check_length(from); verdict.refused()) return verdict;
    const Bytes actions = from.first(be16(from, 0)).subspan(kBucketHead);
    BucketEffect effect;
    if (const Verdict verdict = decode_bucket(actions, terms, effect); verdict.refused()) return verdict;
    if (effect.outputs) out.push_back(planned(actions, effect));
    from = from.subspan(be16(from, 0));
  }
  return {};
}

}  // namespace

Verdict decode_group(Bytes request, const Terms &terms, GroupEntry &out) {
  out.type = be8(request, kType);
  if (out.type > 31 || !(kGroupTypes >> out.type & 1))
    return refuse(err::kGroupBadType, "type", "allowed are ALL (0) and INDIRECT (2)");
  const Bytes buckets = request.subspan(kBuckets);
  if (buckets.size() > kMaxBuckets * kBucketHead + kMaxSouthboundActions)
    return refuse(err::kOutOfBuckets, "buckets", "more than 32 buckets, or more actions than a flow may have");
  out.buckets.assign(buckets.begin(), buckets.end());
  std::vector<Planned> read;
  std::size_t count = 0;
  if (const Verdict verdict = read_buckets(out.buckets, terms, read, count); verdict.refused()) return verdict;
  if (count > kMaxBuckets) return refuse(err::kOutOfBuckets, "buckets", "a group has at most 32 buckets");
  if (out.type == kGroupTypeIndirect && count != 1)
    return refuse(err::kInvalidGroup, "buckets", "an INDIRECT group has one bucket");
  return plan(std::move(read), out.plan);
}

}  // namespace host::of_ss
