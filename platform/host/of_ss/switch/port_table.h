// The switch's ports as known to controllers: the machine's ports at the last update. Openflow thread.
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
  // The port with this number, or null.
  const ddm::Port *find(std::uint32_t number) const { return find(*ports_, number); }
  std::span<const std::uint32_t> numbers() const { return numbers_; }

  struct Change {
    ddm::Port port;
    PortReason reason;
  };
  // Rereads the machine's ports and returns the changes.
  std::vector<Change> update();

 private:
  static const ddm::Port *find(const ddm::Ports &ports, std::uint32_t number);

  std::shared_ptr<const ddm::Ports> ports_;
  std::vector<std::uint32_t> numbers_;  // ascending
};

}  // namespace host::of_ss
