// The switch's ports as controllers know them: those of the machine when it was last asked. Openflow thread.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "host/ddm/ports.h"

namespace host::of_ss {

// OFPPR_* (OpenFlow 1.3.5, 7.4.3).
enum class PortReason : std::uint8_t { added = 0, deleted = 1, modified = 2 };

class PortTable {
 public:
  PortTable() { update(); }

  const ddm::Ports &all() const { return *ports_; }
  // Null when there is none with this number.
  const ddm::Port *find(std::uint32_t number) const { return find(*ports_, number); }
  std::span<const std::uint32_t> numbers() const { return numbers_; }

  struct Change {
    ddm::Port port;
    PortReason reason;
  };
  // Asks the machine again; what has changed since.
  std::vector<Change> update();

 private:
  static const ddm::Port *find(const ddm::Ports &ports, std::uint32_t number);

  std::shared_ptr<const ddm::Ports> ports_;
  std::vector<std::uint32_t> numbers_;  // ascending
};

}  // namespace host::of_ss
