// Carries out a controller's packet-out in user space: the actions in order and, for TABLE, those of the flow that matches.
//
// Thread: one at a time. The tables are read while another thread writes them.
#pragma once

#include <cstdint>
#include <functional>

#include "libss_pkt.h"
#include "programmer/actions.h"
#include "programmer/linux/frame.h"
#include "programmer/linux/grace.h"
#include "programmer/linux/sender.h"

namespace programmer::dataplane {

// The parts of the plane that the executor uses.
struct PlaneMemory {
  dp_tables tables;  // the last row of counters is the service's own
  dp_port *ports;    // DP_MAX_PORTS
  dp_meter *meters;  // DP_MAX_METERS
  dp_tally *tally;   // the service's own
};

class Executor {
 public:
  using ToController = std::function<void(const ss_pkt_in &about, Bytes frame)>;

  Executor(const PlaneMemory &plane, Grace &grace, Sender &sender, ToController to_controller)
      : plane_(plane), grace_(grace), sender_(sender), to_controller_(std::move(to_controller)) {}

  void run(const ss_pkt_out &packet);

  // Packets that were dropped because their actions or flow say so or no flow matches, and packets with an action that cannot be
  // carried out.
  std::uint64_t nowhere() const { return nowhere_; }
  std::uint64_t refused() const { return refused_; }

 private:
  struct Packet {
    Frame frame;
    std::uint32_t in_port = 0;
    std::uint32_t queue = 0;
  };
  bool carry_out(const Action &action);
  bool take_step(const dp_step &step);

  bool output(std::uint32_t number);
  bool to_port(std::uint32_t number, bool also_back);
  bool to_all();
  bool through_table();
  bool follow(const dp_flow &flow);
  bool pass_meter(const dp_flow &flow);
  void copy_list(std::uint32_t first);
  bool follow_list(const dp_flow &flow);
  bool finish(const dp_flow &flow, std::uint8_t output, std::uint8_t port);
  void count(std::uint32_t place);
  void to_controller(std::uint64_t cookie, std::uint8_t table, std::uint8_t reason);

  const PlaneMemory plane_;
  Grace &grace_;
  Sender &sender_;
  ToController to_controller_;
  // Members so that their memory is reused.
  Packet packet_;
  std::vector<Action> actions_;
  std::vector<dp_step> list_;
  std::uint64_t nowhere_ = 0, refused_ = 0;
};

}  // namespace programmer::dataplane
