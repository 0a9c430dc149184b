// The interface of a target, to which the programming service applies records. It is narrow on purpose: a target knows neither
// the database nor the records' history.
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

// A request to install a flow. The slot is a small number that identifies the flow until it is removed, so that a target can keep
// its own flow state in an array.
struct FlowRequest {
  FlowKey key;
  std::uint32_t slot = 0;
  std::uint64_t uuid = 0;
  Counters counted;  // the flow's counters so far, according to the database
};

enum class Outcome : std::uint8_t { installed, failed, resource };

// Receives a target's answers; may be called from inside install_flow.
class FlowSink {
 public:
  virtual void flow_answered(const FlowRequest &request, Outcome outcome) = 0;

 protected:
  ~FlowSink() = default;
};

// The capabilities of a target, as in the record (proto/s_target.proto): numbers and bits are OpenFlow's, and the reader makes
// its own assumption for a member that is 0.
struct Capabilities {
  const char *name = "";
  std::uint32_t flows = 0, meters = 0, bands = 0, queues = 0;
  std::uint64_t match_fields = 0, set_fields = 0, actions = 0;
  bool several_outputs = false, tag_presence = false, forwards_packets = false;
};

class Target {
 public:
  virtual ~Target() = default;

  // Installs the flow, or replaces the slot's flow; after a failed replacement the slot is empty. A target that has inherited the
  // flows of an earlier service leaves identical ones untouched. `record` is the packed flow record, valid during the call.
  // Every request is answered once, unless its slot is removed first.
  virtual void install_flow(const FlowRequest &request, Bytes record) = 0;
  // Empties the slot and drops requests for it. Harmless for an empty slot.
  virtual void remove_flow(std::uint32_t slot) = 0;
  // True if the slot's flow is in force.
  virtual bool holds(std::uint32_t slot) const = 0;

  virtual Outcome install_meter(std::uint32_t id, Bytes meter_data) = 0;
  virtual void remove_meter(std::uint32_t id) = 0;
  // Called once every stored flow, or meter, has been requested since the start: those that an earlier service left in the
  // hardware and that have not been requested are to be removed.
  virtual void all_flows_known() {}
  virtual void all_meters_known() {}

  // Tells whether controllers want packets, according to the daemon; a target without real packets ignores it.
  virtual void want_packets(bool) {}
  virtual void set_controller_address(std::uint32_t ip, bool present) = 0;

  // The packets that the slot's flow has matched; only changes are meaningful. May be called at any time.
  virtual std::uint64_t matched(std::uint32_t slot) const = 0;
  // False if counters can never change; they are then never read.
  virtual bool counts() const = 0;
  // Begins a round of read_counters calls.
  virtual void begin_reading() = 0;
  // `sums` holds the totals of the slot's flow at the previous reading and receives the present ones.
  virtual void read_counters(std::uint32_t slot, Counters &sums) = 0;

  struct Usage {
    std::uint32_t flows = 0, size = 0, meters = 0, addresses = 0, waiting = 0;
  };
  virtual Usage usage() const = 0;

  // The capabilities to announce to the OpenFlow library. Without any, it accepts what every target can read from the entries of
  // a record.
  virtual std::optional<Capabilities> capabilities() const { return std::nullopt; }

  // Passes further numbers for the operator to `tell`, one at a time.
  using Tell = std::function<void(const char *what, std::uint64_t number)>;
  virtual void describe(const Tell &) const {}
  virtual std::optional<PlaneState> plane() const { return std::nullopt; }
};

}  // namespace programmer
