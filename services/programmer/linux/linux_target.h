// The forwarding target: puts flows and meters into the tables of a program on the ingress of the machine's own interfaces.
//
// Threads: the loop's thread.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "programmer/context.h"
#include "programmer/entry.h"
#include "programmer/linux/flow_table.h"
#include "programmer/linux/grace.h"
#include "programmer/linux/lists.h"
#include "programmer/linux/meters.h"
#include "programmer/linux/packets.h"
#include "programmer/linux/pins.h"
#include "programmer/linux/plane.h"
#include "programmer/linux/ports.h"
#include "programmer/target.h"
#include "programmer/timer.h"

namespace programmer::dataplane {

class LinuxTarget final : public Target {
 public:
  struct Settings {
    std::uint32_t flows;  // 1 to Plane::kMaxFlows
    std::vector<PortName> ports;
    PacketRate rate;
    std::string pin_dir;  // empty: nothing is pinned
  };

  // Null if this machine cannot be the target; `why` is then one line that names what is missing. `context` and `sink` must
  // outlive the target.
  static std::unique_ptr<Target> open(const Context &context, Settings settings, FlowSink &sink, std::string &why);

  // Removes everything that an earlier target has left; `said` lists it, one line each. False, with the reason in `said`, while a
  // target is running.
  static bool release(const Context &context, const Settings &settings, std::string &said);

  void install_flow(const FlowRequest &request, Bytes record) override;
  void remove_flow(std::uint32_t slot) override;
  bool holds(std::uint32_t slot) const override { return slot < cells_.size() && !cells_[slot].places.empty(); }
  Outcome install_meter(std::uint32_t id, Bytes meter_data) override;
  void remove_meter(std::uint32_t id) override { meters_.remove(id); }
  void all_flows_known() override;
  void all_meters_known() override;
  void want_packets(bool wanted) override { packets_->want(wanted); }
  void set_controller_address(std::uint32_t ip, bool present) override;
  std::uint64_t matched(std::uint32_t slot) const override { return holds(slot) ? total(cells_[slot]).packets : 0; }
  bool counts() const override { return true; }
  void begin_reading() override {}
  void read_counters(std::uint32_t slot, Counters &sums) override;
  Usage usage() const override;
  void describe(const Tell &tell) const override;
  std::optional<PlaneState> plane() const override;
  std::optional<Capabilities> capabilities() const override;

 private:
  // A slot's share of the plane: a place in the table for each entry of the flow.
  struct Cell {
    std::vector<FlowTable::Place> places;
    std::uint32_t meter = 0;
    std::uint32_t list = 0;  // place + 1
  };

  // A request without room while inherited flows occupy the table; it is repeated once all stored flows are known.
  struct Postponed {
    FlowRequest request;
    std::vector<std::uint8_t> record;
  };
  struct Parts {
    std::unique_ptr<Pins> pins;
    std::string unpinned;  // why there are no pins
    std::unique_ptr<Plane> plane;
    std::unique_ptr<Ports> ports;
  };

  LinuxTarget(const Context &context, std::uint32_t flows, FlowSink &sink, Parts parts);
  static bool open_pins(const Context &context, const std::string &root, Parts &parts, std::string &why);
  Outcome program(const FlowRequest &request, Bytes record, Cell &cell);
  Outcome add(const Entry &entry, dp_flow flow, Cell &cell);
  const char *find_output(std::uint32_t number, __u8 &output, __u8 &port) const;
  Outcome use_list(Cell &cell, dp_actions &to);
  Outcome refuse(const char *why, Outcome outcome);
  Outcome finally(Outcome outcome);
  void clear(Cell &cell);
  void go_on_counting(const Cell &cell, const Counters &earlier, bool taken_over);
  bool postpone(const FlowRequest &request, Bytes record);
  void finish_start();
  Counters total(const Cell &cell) const;
  void breathe();
  std::vector<ss_pkt_statistic> statistics() const;
  void tidy();

  const Context &context_;
  FlowSink &sink_;
  std::uint32_t size_;
  std::uint32_t used_ = 0;
  const std::unique_ptr<Pins> pins_;
  const std::string unpinned_;
  std::unique_ptr<Plane> plane_;
  std::unique_ptr<Ports> ports_;
  FlowTable table_;
  ActionLists lists_;
  Meters meters_;
  Grace grace_;
  std::unique_ptr<Packets> packets_;
  bool resting_ = false;  // the table waits for the current grace period, which may be over
  std::vector<Cell> cells_;
  // Members so that their memory is reused.
  FlowProgram program_;
  std::vector<dp_step> steps_;
  bool flows_known_ = false, meters_known_ = false, in_step_ = false;
  std::uint64_t taken_over_ = 0, dropped_ = 0, written_ = 0;
  std::unordered_map<std::uint32_t, Postponed> postponed_;  // by slot
  const char *why_ = "";                                    // of the latest refusal
  std::map<std::string, std::uint64_t> refused_;
  std::vector<std::uint32_t> addresses_;
  Timer timer_;
};

}  // namespace programmer::dataplane
