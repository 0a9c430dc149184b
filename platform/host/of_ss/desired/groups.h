// The group table (OpenFlow 1.3.5, 5.6), with groups of types ALL and INDIRECT. It exists in the agent only: a flow that refers
// to a group carries the actions of its buckets to the target in its own list. Openflow thread only.
//
// Wire layout: OpenFlow 1.3.5, 7.3.4.3.
#pragma once

#include <cstdint>
#include <map>
#include <utility>
#include <vector>

#include "host/of_ss/wire/target_capabilities.h"
#include "host/of_ss/wire/wire.h"

namespace host::of_ss {

inline constexpr std::size_t kMaxGroups = 1024, kMaxBuckets = 32;
enum GroupType : std::uint8_t { kGroupTypeAll = 0, kGroupTypeIndirect = 2 };
inline constexpr Named kGroupTypeNames[] = {{kGroupTypeAll, "all"}, {kGroupTypeIndirect, "indirect"}};
inline constexpr std::uint32_t kGroupTypes = 1u << kGroupTypeAll | 1u << kGroupTypeIndirect;

struct GroupEntry {
  std::uint8_t type = kGroupTypeAll;
  std::vector<std::byte> buckets = {};  // as received
  GroupPlan plan = {};                  // refers to `buckets`
  std::int64_t created_ns = 0;

  // Calls `take` with each bucket, which is {length u16, weight u16, watch_port u32, watch_group u32, pad, actions}.
  template <typename Take>
  void each_bucket(Take &&take) const {
    for (Bytes left = buckets; !left.empty(); left = left.subspan(be16(left, 0))) take(left.first(be16(left, 0)));
  }
};
inline constexpr std::size_t kBucketHead = 16;

// Reads type and buckets of an OFPT_GROUP_MOD. In a flow's list all buckets act on one packet, so buckets are refused if there is
// no order in which the rewrites of one do not reach the packets of another.
Verdict decode_group(Bytes request, const Terms &terms, GroupEntry &out);

class Groups final : public GroupSource {
 public:
  const GroupPlan *plan_of(std::uint32_t group) const override {
    const auto found = all_.find(group);
    return found == all_.end() ? nullptr : &found->second.plan;
  }
  bool knows(std::uint32_t group) const { return all_.contains(group); }
  const std::map<std::uint32_t, GroupEntry> &all() const { return all_; }

  void add(std::uint32_t group, GroupEntry made) { all_[group] = std::move(made); }
  // Replaces an existing group and returns its former state.
  GroupEntry exchange(std::uint32_t group, GroupEntry made) { return std::exchange(all_.at(group), std::move(made)); }
  void remove(std::uint32_t group) { all_.erase(group); }
  void forget() { all_.clear(); }

 private:
  std::map<std::uint32_t, GroupEntry> all_;
};

}  // namespace host::of_ss
