// The capabilities of the target behind the programming service, as far as the library uses them, and those assumed of a target
// that has announced nothing. Requests are checked against them. Plain values, any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace host::of_ss {

inline constexpr std::uint32_t kMaxMeters = 1024;
inline constexpr std::uint8_t kMaxBands = 8;
inline constexpr std::uint32_t kQueueMin = 1, kQueueMax = 8;

// The set of numbers below 64 that are listed.
template <typename... Number>
constexpr std::uint64_t bits(Number... number) {
  return ((std::uint64_t{1} << number) | ...);
}

// Numbers and bits are OpenFlow's (1.3.5): match fields as in 7.2.3.7, actions as in 7.2.4. The defaults are those of a target
// that reads only a flow's entries (proto/s_policy_kelim.proto, flow_ace).
struct TargetCapabilities {
  char name[33] = "";       // of the target; empty: nothing has been announced
  std::uint32_t flows = 0;  // 0: not known
  std::uint32_t meters = kMaxMeters, bands = kMaxBands, queues = kQueueMax;
  std::uint64_t match_fields = ~std::uint64_t{0};  // all that the library supports
  std::uint64_t set_fields = bits(3, 4, 6, 7, 8);
  std::uint64_t actions = bits(0, 21, 25);
  bool several_outputs = false;  // carries out whole action lists, with outputs at any place
  bool tag_presence = false;     // matches on packets with any VLAN tag, and on those without
  bool forwards_packets = false;

  bool matches(std::size_t field) const { return match_fields >> field & 1; }
  bool sets(std::size_t field) const { return field < 64 && (set_fields >> field & 1) != 0; }
  bool does(std::uint16_t action) const { return action < 64 && (actions >> action & 1) != 0; }
  bool operator==(const TargetCapabilities &) const = default;
};
inline constexpr TargetCapabilities kUnannounced{};

// The fields whose values the library can set, if the target can.
inline constexpr std::uint64_t kKnownSets = kUnannounced.set_fields | bits(11, 12, 13, 14, 15, 16, 26, 27);

// The target's capabilities for flows that the service chain translates into entries.
constexpr TargetCapabilities by_entries(TargetCapabilities target) {
  target.set_fields &= kUnannounced.set_fields;
  target.actions &= kUnannounced.actions;
  target.several_outputs = false;
  return target;
}

// A group for use in a flow's action list: its buckets, in an order in which no rewrite of one reaches the packets of another.
struct GroupPlan {
  struct Bucket {
    std::span<const std::byte> actions;  // as on the wire
    bool pops_back = false;              // a tag that it pushes is popped after it
  };
  std::vector<Bucket> buckets;
  bool leaves_as_is = true;  // after the group the packet is as it was before
};
class GroupSource {
 public:
  // Null if there is no such group.
  virtual const GroupPlan *plan_of(std::uint32_t group) const = 0;

 protected:
  ~GroupSource() = default;
};

// What a request is checked against.
struct Terms {
  std::span<const std::uint32_t> ports;  // the numbers of the switch's ports, ascending
  const TargetCapabilities &target = kUnannounced;
  const GroupSource *groups = nullptr;  // null: none
};

}  // namespace host::of_ss
