// The members of a flow: their places in the cached node and in the records made from it.
//
// A pair of members (value and mask, or a value alone) is named once, by pointers to members; the type of the record's member
// decides how it is copied: a scalar is widened, an IPv4 address is copied into its own sub-message, a MAC or IPv6 address gets a
// sub-message that borrows the node's bytes. Sub-messages are allocated with ssc_sdn_malloc.
//
// Thread: main SDN thread.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>

#include "kelim/common/kelim_debug.h"
#include "p_libpub.pb-c.h"
#include "s_policy_kelim.pb-c.h"
#include "ssc_kelim/sdn/flow_node.h"
#include "ssc_kelim/sdn/sdn_ptr.h"

namespace flow_members {

// ---- record messages on the checked allocator

template <typename T>
inline constexpr void (*init_of)(T *) = nullptr;
template <>
inline constexpr auto init_of<PLibpub__Mac> = p_libpub__mac__init;
template <>
inline constexpr auto init_of<PLibpub__Ipv4> = p_libpub__ipv4__init;
template <>
inline constexpr auto init_of<PLibpub__Ipv6> = p_libpub__ipv6__init;

// An empty message, or null when memory is short.
template <typename T>
sdn_ptr<T> new_message() {
  sdn_ptr<T> message(static_cast<T *>(ssc_sdn_malloc(sizeof(T), __func__, __LINE__)));
  if (message) init_of<T>(message.get());
  return message;
}

// ---- addresses

inline void put(PLibpub__Ipv4 &to, const std::uint32_t &from) {
  to.data = from;
}

// Borrows the bytes. The cast is for protobuf-c's type only: nothing writes through a record that is being stored.
template <typename Wrapper, std::size_t N>
void put(Wrapper &to, const std::uint8_t (&from)[N]) {
  to.data = {N, const_cast<std::uint8_t *>(from)};
}

inline bool get(std::uint32_t &to, const PLibpub__Ipv4 *from) {
  if (from) to = from->data;
  return from != nullptr;
}

template <typename Wrapper, std::size_t N>
bool get(std::uint8_t (&to)[N], const Wrapper *from) {
  if (!from || from->data.len != N) return false;
  std::memcpy(to, from->data.data, N);
  return true;
}

// ---- operations on the members of one bit

template <typename Record>
struct ops {
  bool (*fill)(Record &, const flow_description &);       // false: out of memory, the members stay empty
  bool (*read_back)(flow_description &, const Record &);  // false: an address is missing or of the wrong length
  void (*release)(Record &);                              // frees the sub-messages
};

// A bit that carries its meaning in the bitmap alone.
template <typename Record>
inline constexpr ops<Record> kNothing = {
    [](Record &, const flow_description &) { return true; },
    [](flow_description &, const Record &) { return true; },
    [](Record &) {},
};

template <typename T>
struct pointed_at;
template <typename Record, typename Member>
struct pointed_at<Member Record::*> {
  using record = Record;
  using member = Member;
};

// Two addresses and their masks.
template <auto Value, auto Mask, auto NodeValue, auto NodeMask>
struct address_pair {
  using record = typename pointed_at<decltype(Value)>::record;
  using wrapper = std::remove_pointer_t<typename pointed_at<decltype(Value)>::member>;

  static bool fill(record &r, const flow_description &node) {
    auto value = new_message<wrapper>(), mask = new_message<wrapper>();
    if (!value || !mask) return false;
    put(*value, node.*NodeValue);
    put(*mask, node.*NodeMask);
    r.*Value = value.release();
    r.*Mask = mask.release();
    return true;
  }
  static bool read_back(flow_description &node, const record &r) {
    return get(node.*NodeValue, r.*Value) && get(node.*NodeMask, r.*Mask);
  }
  static void release(record &r) {
    ssc_sdn_free(r.*Value);
    ssc_sdn_free(r.*Mask);
    r.*Value = r.*Mask = nullptr;
  }
};

// A scalar with its mask, or (Mask null) a scalar alone.
template <auto Value, auto Mask, auto NodeValue, auto NodeMask>
struct scalar_pair {
  using record = typename pointed_at<decltype(Value)>::record;

  template <auto To, auto From>
  static void copy(auto &to, const auto &from) {
    to.*To = static_cast<typename pointed_at<decltype(To)>::member>(from.*From);
  }
  static bool fill(record &r, const flow_description &node) {
    copy<Value, NodeValue>(r, node);
    if constexpr (Mask != nullptr) copy<Mask, NodeMask>(r, node);
    return true;
  }
  static bool read_back(flow_description &node, const record &r) {
    copy<NodeValue, Value>(node, r);
    if constexpr (Mask != nullptr) copy<NodeMask, Mask>(node, r);
    return true;
  }
  static void release(record &) {}
};

// A flag: any non-zero value in the record becomes 1 in the node.
template <auto Value, auto NodeValue>
struct flag {
  using record = typename pointed_at<decltype(Value)>::record;

  static bool fill(record &r, const flow_description &node) {
    r.*Value = node.*NodeValue;
    return true;
  }
  static bool read_back(flow_description &node, const record &r) {
    node.*NodeValue = r.*Value != 0;
    return true;
  }
  static void release(record &) {}
};

template <typename Members>
inline constexpr ops<typename Members::record> ops_of = {Members::fill, Members::read_back, Members::release};

// ops for the members Value and Mask of a record, made from NodeValue and NodeMask of the node.
template <auto Value, auto Mask, auto NodeValue, auto NodeMask>
consteval auto pair() {
  if constexpr (std::is_pointer_v<typename pointed_at<decltype(Value)>::member>) {
    return ops_of<address_pair<Value, Mask, NodeValue, NodeMask>>;
  } else {
    return ops_of<scalar_pair<Value, Mask, NodeValue, NodeMask>>;
  }
}
template <auto Value, auto NodeValue>
consteval auto single() {
  return ops_of<scalar_pair<Value, nullptr, NodeValue, nullptr>>;
}
template <auto Value, auto NodeValue>
consteval auto flag_member() {
  return ops_of<flag<Value, NodeValue>>;
}

// Runs `work` on every bit below `count` that is set, ascending, while it returns true. The bit that failed, or -1.
template <typename Work>
int first_failing_bit(std::uint64_t bitmap, unsigned count, Work work) {
  for (std::uint64_t left = bitmap & ((std::uint64_t{1} << count) - 1); left != 0; left &= left - 1) {
    const int bit = std::countr_zero(left);
    if (!work(static_cast<unsigned>(bit))) return bit;
  }
  return -1;
}

}  // namespace flow_members
