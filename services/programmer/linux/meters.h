// The meters of the plane: the place of each meter, and the schedules of its bands. Loop's thread.
//
// A meter gets its place when its record or a flow first names it; until there is a record it lets everything pass. Meters that
// an earlier service has left in the memory keep running; drop_inherited() drops those that no record has named since.
#pragma once

#include <cstdint>
#include <unordered_map>
#include <vector>

#include "libss_pkt.h"
#include "programmer/bands.h"
#include "programmer/linux/layout.h"

namespace programmer::dataplane {

class Meters {
 public:
  // `meters` holds DP_MAX_METERS, zeroed or left by an earlier service, and must outlive this object.
  explicit Meters(dp_meter *meters);

  // False if there is no room for another meter, or for that many bands.
  bool set(std::uint32_t id, const Bands &bands);
  void remove(std::uint32_t id);
  void drop_inherited();
  std::uint32_t size() const { return set_; }
  // Appends the counts of every meter and of its bands.
  void tell(std::vector<ss_pkt_statistic> &statistics) const;

  // The place + 1 of a meter that one more flow uses; 0: no room. Each use is paired with one release.
  std::uint16_t use(std::uint32_t id);
  void release(std::uint32_t id);

 private:
  struct Known {
    std::uint16_t place = 0;
    bool set = false;
    std::uint32_t flows = 0;
    bool inherited = false;  // and not yet named by a record
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
