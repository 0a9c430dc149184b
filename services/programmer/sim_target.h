// The simulated target: a flow table of a fixed size that answers after a delay, or as its script says, and counters that grow
// evenly. Meters are answered at once.
#pragma once

#include <memory>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "programmer/programmer.h"
#include "programmer/script.h"
#include "programmer/target.h"
#include "programmer/timer.h"

namespace programmer {

class SimTarget final : public Target {
 public:
  static constexpr std::uint64_t kBytesPerPacket = 100;

  // `options` have passed check(); `sink` must outlive the target.
  SimTarget(qx_thread_master *master, const Options &options, FlowSink &sink);

  void install_flow(const FlowRequest &request, Bytes record) override;
  void remove_flow(std::uint32_t slot) override;
  bool holds(std::uint32_t slot) const override { return slot < cells_.size() && cells_[slot].occupied != 0; }
  Outcome install_meter(std::uint32_t id, Bytes meter_data) override;
  void remove_meter(std::uint32_t id) override;
  void set_controller_address(std::uint32_t ip, bool present) override;
  std::uint64_t matched(std::uint32_t) const override { return packets_by_now(); }
  bool counts() const override { return rate_ != 0; }
  void begin_reading() override;
  void read_counters(std::uint32_t slot, Counters &sums) override;
  Usage usage() const override;

 private:
  struct Cell {
    std::uint32_t life : 31 = 0;  // counts removals, so that a waiting answer can tell whether its flow has been removed
    std::uint32_t occupied : 1 = 0;
  };
  struct Waiting {
    std::uint64_t due_us;
    std::uint64_t order;
    FlowRequest request;
    std::uint32_t life;
    Outcome outcome;
  };

  std::uint64_t due_us(const FlowRequest &request, std::uint64_t now);
  bool decide(const FlowRequest &request, Outcome &outcome);
  void set_occupied(Cell &cell, bool occupied);
  std::uint64_t packets_by_now() const;
  void answer_due();
  void wait_for_next();

  FlowSink &sink_;
  Script script_;
  std::uint32_t size_, delay_ms_, rate_;
  std::uint32_t used_ = 0;
  std::uint64_t arrivals_ = 0;
  std::vector<Cell> cells_;
  std::vector<Waiting> waiting_;                                  // a heap with the next due answer in front
  std::unordered_map<std::uint32_t, std::uint64_t> last_due_us_;  // by slot; used only if delays differ
  Timer timer_;
  std::unordered_set<std::uint32_t> meters_, addresses_;
  std::uint64_t started_us_;
  Counters grown_;   // growth of a flow that has been installed since the start
  Counters growth_;  // since the previous reading
};

}  // namespace programmer
