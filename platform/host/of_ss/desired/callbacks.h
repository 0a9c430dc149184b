// The daemon's sixteen callbacks, as registered. Written on the loop's thread before the agent starts, read by the agent
// afterwards.
#pragma once

#include "of_ss.h"

namespace host::of_ss {

struct Callbacks {
  of_ss_msg_cb flow_mod = nullptr;
  of_ss_msg_cb open = nullptr;
  of_ss_msg_cb mgmt_ifx = nullptr;
  of_ss_msg_cb close = nullptr;
  of_ss_signal_cb del_all_flow = nullptr;
  of_ss_msg_cb ds_start = nullptr;
  of_ss_msg_cb ds_end = nullptr;
  of_ss_msg_cb statistic = nullptr;
  of_ss_msg_cb meter_mod = nullptr;
  of_ss_signal_cb connected = nullptr;
  of_ss_msg_cb flow_count = nullptr;
  of_ss_msg_cb pkt_start = nullptr;
  of_ss_msg_cb pkt_end = nullptr;
  of_ss_msg_cb onc_info = nullptr;
  of_ss_msg_cb barrier = nullptr;
  of_ss_signal_cb del_all = nullptr;

  bool complete() const {
    return flow_mod && open && mgmt_ifx && close && del_all_flow && ds_start && ds_end && statistic && meter_mod && connected &&
           flow_count && pkt_start && pkt_end && onc_info && barrier && del_all;
  }
};

}  // namespace host::of_ss
