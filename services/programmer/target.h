// What the programming service applies records to. Narrow on purpose: a target knows neither the database nor the records'
// history.
//
// Threads: the loop's thread.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>

#include "programmer/programmer.h"
#include "record_reader.h"

namespace programmer {

using records::Bytes;

struct FlowKey {
  std::uint64_t index = 0;
  std::uint32_t vsd = 0;
  bool operator==(const FlowKey &) const = default;
};

struct Counters {
  std::uint64_t packets = 0;
  std::uint64_t bytes = 0;
  bool operator==(const Counters &) const = default;
};

// A request to install a flow. The slot is a small number that stands for the flow until it is removed, so that a target can keep
// its own state of a flow in an array.
struct FlowRequest {
  FlowKey key;
  std::uint32_t slot = 0;
  std::uint64_t uuid = 0;
  Counters counted;  // what the flow has counted so far, as the database knows it
};

enum class Outcome : std::uint8_t { kInstalled, kFailed, kResource };

// Where a target's answers go; may be called from inside install_flow.
class FlowSink {
 public:
  virtual void flow_answered(const FlowRequest &request, Outcome outcome) = 0;

 protected:
  ~FlowSink() = default;
};

class Target {
 public:
  virtual ~Target() = default;

  // Installs the flow, or replaces what the slot holds; a failed replacement leaves nothing. A target that goes on from an
  // earlier life leaves what it has already as it is. `record` is the packed flow record, valid during the call. Every request is
  // answered once, unless its slot is removed before.
  virtual void install_flow(const FlowRequest &request, Bytes record) = 0;
  // Empties the slot and forgets requests for it. Harmless for a slot that holds nothing.
  virtual void remove_flow(std::uint32_t slot) = 0;
  // Whether the slot's flow is in force.
  virtual bool holds(std::uint32_t slot) const = 0;

  virtual Outcome install_meter(std::uint32_t id, Bytes meter_data) = 0;
  virtual void remove_meter(std::uint32_t id) = 0;
  // All that is stored has been asked for since the start, once or again: what an earlier life has left in the hardware and
  // nobody has asked for goes.
  virtual void all_flows_known() {}
  virtual void all_meters_known() {}

  // Whether controllers want packets, as the daemon says; a target without packets of its own has nothing to do.
  virtual void want_packets(bool) {}
  virtual void set_controller_address(std::uint32_t ip, bool present) = 0;

  // Whether counters can move at all; without that they are never read.
  virtual bool counts() const = 0;
  // A round of read_counters calls begins.
  virtual void begin_reading() = 0;
  // `sums` holds what the slot's flow had counted when it was read last and receives its present totals.
  virtual void read_counters(std::uint32_t slot, Counters &sums) = 0;

  struct Usage {
    std::uint32_t flows = 0, size = 0, meters = 0, addresses = 0, waiting = 0;
  };
  virtual Usage usage() const = 0;

  // What else an operator may want to know, one number at a time.
  using Tell = std::function<void(const char *what, std::uint64_t number)>;
  virtual void describe(const Tell &) const {}
  virtual std::optional<PlaneState> plane() const { return std::nullopt; }
};

}  // namespace programmer
