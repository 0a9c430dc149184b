// The meters of the plane: which place has which number, and the schedules of their bands. Loop's thread.
//
// A place is taken by the first who names the meter, its record or a flow; a meter without a record lets everything pass. What
// another one of these has left in the memory goes on with its schedules, until drop_inherited() for what no record has named.
#pragma once

#include <cstdint>
#include <unordered_map>
#include <vector>

#include "programmer/bands.h"
#include "programmer/linux/layout.h"

namespace programmer::dataplane {

class Meters {
 public:
  // `meters` has DP_MAX_METERS, zeroed or left by another one, and outlives this.
  explicit Meters(dp_meter *meters);

  // False when there is no room for another meter, or for that many bands.
  bool set(std::uint32_t id, const Bands &bands);
  void remove(std::uint32_t id);
  void drop_inherited();
  std::uint32_t size() const { return set_; }

  // The place of a meter for one more flow, + 1; 0: no room. Each is given back once.
  std::uint16_t use(std::uint32_t id);
  void release(std::uint32_t id);

 private:
  struct Known {
    std::uint16_t place = 0;
    bool set = false;
    std::uint32_t flows = 0;
    bool inherited = false;  // and no record has named it
  };
  void silence(std::uint16_t place);
  Known *know(std::uint32_t id);
  void forget_unused(std::uint32_t id);

  dp_meter *meters_;
  std::unordered_map<std::uint32_t, Known> known_;
  std::vector<std::uint16_t> free_;
  std::uint32_t set_ = 0;
};

}  // namespace programmer::dataplane
