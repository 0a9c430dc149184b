// Passes the daemon's replies to the flows and meters that they concern. Openflow thread.
#pragma once

#include "host/of_ss/switch/switch.h"

namespace host::of_ss {

class DaemonReplies {
 public:
  // `events` is notified of meters that the target has refused.
  DaemonReplies(Switch &of_switch, FlowEvents &events) : switch_(of_switch), events_(events) {}

  // Takes one southbound message; one that is unknown or too short is logged.
  void take(Bytes message);

 private:
  struct Row;
  static const Row *row_of(std::uint16_t type);
  Flows &flows() { return switch_.flows; }
  void take_meter_result(Bytes message);
  void take_counters(Bytes message);
  void take_idle(Bytes message);
  void take_report(Bytes message);

  Switch &switch_;
  FlowEvents &events_;
};

}  // namespace host::of_ss
