// Carries packets between the plane and the controllers, on its own thread: from the program's ring to the packet path, and from
// the packet path to the ports.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "programmer/context.h"
#include "programmer/linux/executor.h"
#include "programmer/linux/frame.h"
#include "programmer/linux/grace.h"
#include "programmer/linux/plane.h"
#include "programmer/linux/reported_statistics.h"
#include "programmer/linux/sender.h"

struct ring_buffer;

namespace programmer::dataplane {

// Limit of the packets that a port may send to the controllers.
struct PacketRate {
  std::uint32_t rate;   // packets per second
  std::uint32_t burst;  // packets at once
};

class Packets {
 public:
  // Null, with one line in `why`, if this machine does not allow it. The plane must already have its ports; `plane` and `grace`
  // must outlive the object.
  static std::unique_ptr<Packets> open(const Context &context, Plane &plane, Grace &grace, PacketRate rate, std::string &why);
  ~Packets();
  Packets(const Packets &) = delete;
  Packets &operator=(const Packets &) = delete;

  // Sets whether controllers want packets, as the daemon has signalled; the packet path repeats it when it connects. Any thread.
  void want(bool wanted);
  // Takes the statistics that the agent is to have: those that have changed are sent at once. Any thread.
  void tell(std::vector<ss_pkt_statistic> statistics);

 private:
  struct FreePath {
    void operator()(ss_pkt_path *path) const { ss_pkt_path_close(path); }
  };
  struct FreeRing {
    void operator()(ring_buffer *ring) const;
  };
  struct Handed {
    std::uint64_t in = 0, full = 0, unwanted = 0;
  };

  Packets(Plane &plane, Grace &grace);
  void forget_earlier();
  bool start(const Context &context, PacketRate rate, std::string &why);
  void set_rate(PacketRate rate);
  void run();
  bool woken();
  int take(Bytes sample);
  void hand_on(const ss_pkt_in &about, Bytes frame);
  std::uint32_t place_of(std::uint32_t number) const;
  ss_pkt_counts counts_of(std::uint32_t place) const;
  void report();
  void report_statistics();

  Plane &plane_;
  Sender sender_;
  Executor executor_;
  std::unique_ptr<ss_pkt_path, FreePath> path_;
  std::unique_ptr<ring_buffer, FreeRing> ring_;
  int wake_ = -1;
  Frame room_;
  int taken_ = 0;                                  // packets taken from the ring in this turn
  std::array<Handed, DP_MAX_PORTS + 1> handed_{};  // by place; the last one is for packets of unknown ports
  std::vector<ss_pkt_counts> reported_;
  std::atomic<bool> ending_ = false;
  std::mutex telling_;
  std::vector<ss_pkt_statistic> told_;  // guarded by telling_
  ReportedStatistics statistics_;
  std::thread thread_;
};

}  // namespace programmer::dataplane
