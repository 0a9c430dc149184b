// Classes of flows with the same table, bits matched on, output, meter and group. The classes stay few when the flows are many,
// so a request by match, port, meter or group looks at classes instead of at every flow. Openflow thread only.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "host/of_ss/desired/slot_index.h"
#include "host/of_ss/wire/actions.h"
#include "host/of_ss/wire/oxm.h"

namespace host::of_ss {

// Gives distinct values numbers and finds the number of a value. Numbers of removed values are reused. `T` has a `hash`.
template <typename T>
class InternTable {
 public:
  template <typename Same>
  std::uint32_t find(std::uint32_t hash, Same &&same) const {
    return index_.find(hash, [this, hash, &same](std::uint32_t n) { return all_[n].hash == hash && same(all_[n]); });
  }
  std::uint32_t add(T value) {
    std::uint32_t number = static_cast<std::uint32_t>(all_.size());
    if (free_.empty()) {
      all_.push_back(std::move(value));
    } else {
      number = free_.back();
      free_.pop_back();
      all_[number] = std::move(value);
    }
    index_.insert(number, [this](std::uint32_t n) { return all_[n].hash; });
    return number;
  }
  void drop(std::uint32_t number) {
    index_.erase(number, [this](std::uint32_t n) { return all_[n].hash; });
    all_[number] = {};
    free_.push_back(number);
  }
  T &operator[](std::uint32_t number) { return all_[number]; }
  const T &operator[](std::uint32_t number) const { return all_[number]; }
  // Numbers so far; a dropped one holds a default `T`.
  std::uint32_t size() const { return static_cast<std::uint32_t>(all_.size()); }

 private:
  std::vector<T> all_;
  std::vector<std::uint32_t> free_;
  SlotIndex index_;
};

// The criteria of a request; missing ones match everything.
struct FlowCriteria {
  std::optional<std::uint8_t> table_id = {};
  std::optional<std::uint32_t> port = {}, meter_id = {};  // kMeterAll: any meter
  std::optional<std::uint32_t> group_id = {};             // kGroupAll: any group
  std::optional<std::uint64_t> cookie = {};
  Bytes match = {};  // matches flows that it covers (match_covers)
};

class FlowClasses {
 public:
  struct Class {
    std::uint32_t hash = 0;
    std::uint32_t shape = 0;
    Outputs outputs = {};
    std::uint32_t meter_id = 0;     // 0: none
    std::uint32_t first = kNoSlot;  // of its flows; the table links them
    std::uint32_t flows = 0;
  };

  // Adds a flow to the class of the flow-mod, or removes one from the class; join returns the class's number.
  std::uint32_t join(Bytes flow_mod);
  void leave(std::uint32_t number);
  Class &operator[](std::uint32_t number) { return classes_[number]; }

  // The first flows of the classes that may hold wanted flows; adds the number of their flows to `flows`. Classes whose flows
  // match on exactly the bits of the wanted match are left out: of them it covers only flows with the same match.
  std::vector<std::uint32_t> covered(const FlowCriteria &wanted, std::size_t &flows) const;
  // Calls `exact` with each match that an overlapping flow must have, bit for bit, if `match` determines it, otherwise `in_class`
  // with the first flow of a class whose flows may overlap; stops when one of them returns true.
  template <typename Exact, typename InClass>
  bool overlap(std::uint8_t table_id, Bytes match, Exact &&exact, InClass &&in_class) const {
    std::byte mine[kMaxSouthboundMatch], theirs[kMaxSouthboundMatch];
    const Bytes shape = match_shape(match, mine);
    std::vector<bool> settled(shapes_.size());
    for (std::uint32_t n = 0; n < shapes_.size(); ++n) {
      if (shapes_[n].classes == 0 || shapes_[n].table_id != table_id || !match_covers(shapes_[n].bits, shape)) continue;
      settled[n] = true;
      if (exact(match_projection(match, shapes_[n].bits, theirs))) return true;
    }
    for (std::uint32_t n = 0; n < classes_.size(); ++n)
      if (const Class &c = classes_[n];
          c.flows && !settled[c.shape] && shapes_[c.shape].table_id == table_id && in_class(c.first))
        return true;
    return false;
  }

 private:
  struct Shape {
    std::uint32_t hash = 0;
    std::uint8_t table_id = 0;
    std::vector<std::byte> bits;  // as given by match_shape
    std::uint32_t classes = 0;
  };
  std::uint32_t shape_of(std::uint8_t table_id, Bytes match);

  InternTable<Shape> shapes_;
  InternTable<Class> classes_;
};

}  // namespace host::of_ss
