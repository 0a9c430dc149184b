// Packets between the data plane and the controllers: the agent's end of the packet path (host/packet/message.h). It listens in
// the run directory; the programming service that connected last is the data plane.
//
// Packets that a connection cannot accept at once are dropped and counted there: packets never delay flows. Openflow thread,
// unless noted otherwise.
#pragma once

#include <event2/event.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "host/base/event_owner.h"
#include "host/of_ss/switch/controllers.h"
#include "host/of_ss/switch/statistics.h"
#include "host/of_ss/wire/wire.h"
#include "host/packet/message.h"

namespace host::of_ss {

struct PacketCounters {
  std::uint64_t in = 0;           // received from the data plane
  std::uint64_t in_unwanted = 0;  // of these, dropped because no connection wanted them
  std::uint64_t in_sent = 0;      // messages to controllers
  std::uint64_t in_dropped = 0;   // not sent to a controller that does not read
  std::uint64_t out = 0;          // handed to the data plane
  std::uint64_t out_refused = 0;  // answered with an error for lack of a data plane
  std::uint64_t out_full = 0;     // dropped because the data plane was backed up
};

class Packets {
 public:
  // `controllers` must outlive this; `scratch` is used during calls.
  Packets(event_base *base, Controllers &controllers, std::vector<std::byte> &scratch)
      : base_(base), controllers_(controllers), scratch_(scratch) {}
  // Removes the socket.
  ~Packets();
  Packets(const Packets &) = delete;
  Packets &operator=(const Packets &) = delete;

  // Begins to listen. Before the openflow thread runs.
  void open(const std::string &run_dir);
  // Listens again if the socket has been removed. To be called about every second.
  void look_after_socket();
  // Sets whether packets may flow to the controllers.
  void want(bool wanted);

  // Hands over a packet-out; its actions are laid out as in southbound.h.
  Verdict send(Connection &from, std::uint32_t in_port, Bytes actions, Bytes frame);

  // The data plane's statistics; empty without a data plane.
  const Statistics &statistics() const { return statistics_; }

  // ---- for the views

  bool has_data_plane() const { return greeted_; }
  bool wanted() const { return wanted_; }
  const PacketCounters &counters() const { return counters_; }
  // The data plane's counts by port number; 0 stands for no port.
  const std::map<std::uint32_t, ss_pkt_counts> &ports() const { return ports_; }

 private:
  template <void (Packets::*Handler)()>
  EventOwner watch(int fd);

  void listen();
  void accept();
  void hang_up();
  void take();
  bool handle(const packet::Head &head, Bytes frame);
  void deliver(const packet::Head &head, Bytes frame);
  void keep(Bytes counts);

  event_base *base_;
  Controllers &controllers_;
  std::vector<std::byte> &scratch_;
  std::string path_;
  std::string failure_;  // why it does not listen, as logged
  packet::Descriptor listener_, plane_;
  EventOwner listener_watch_, plane_watch_;
  bool greeted_ = false;  // the data plane has sent its hello
  bool wanted_ = false;
  PacketCounters counters_;
  std::map<std::uint32_t, ss_pkt_counts> ports_;
  Statistics statistics_;
  std::vector<std::byte> buffer_;
};

}  // namespace host::of_ss
