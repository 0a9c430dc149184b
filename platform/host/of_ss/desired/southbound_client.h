// The southbound client: builds the agent's messages to the daemon and calls the registered callbacks. Openflow thread, no lock
// held.
#pragma once

#include <cstdint>
#include <span>

#include "host/base/thread_bound.h"
#include "host/of_ss/desired/callbacks.h"
#include "host/of_ss/desired/flow_table.h"
#include "host/of_ss/wire/wire.h"

namespace host::of_ss {

// The tag that a barrier carries through the daemon and back. Connection numbers of controllers are below kOwnBarrier.
struct BarrierTag {
  std::uint8_t connection;
  std::uint32_t xid;
  std::uint32_t address;  // IPv4, first octet in the least significant byte; 0 for other kinds of address
  bool operator==(const BarrierTag &) const = default;
};
inline constexpr std::uint8_t kOwnBarrier = 255;

class SouthboundClient {
 public:
  explicit SouthboundClient(const Callbacks &callbacks) : callbacks_(callbacks) {}

  // Called once on the openflow thread; from then on no other thread may use this object.
  void bind_to_thread() { thread_.bind(); }
  // Number of calls so far.
  std::uint64_t calls() const { return calls_; }

  void add(FlowEntry &flow) { call(callbacks_.flow_mod, flow.message()); }
  void remove(FlowEntry &flow);
  void remove_all_flows() { call(callbacks_.del_all_flow); }
  void remove_everything() { call(callbacks_.del_all); }
  // `message` is a southbound meter-mod.
  void meter(std::byte *message) { call(callbacks_.meter_mod, message); }
  void barrier(const BarrierTag &tag);
  void begin_sync();
  void end_sync();
  // The first controller has connected, or the last one has disconnected; with the interfaces over which controllers are or were
  // connected.
  void open(std::span<const std::uint32_t> interfaces) { list_interfaces(southbound::kOpen, callbacks_.open, interfaces); }
  void close(std::span<const std::uint32_t> interfaces) { list_interfaces(southbound::kClose, callbacks_.close, interfaces); }
  // The interfaces have changed while a controller is connected.
  void manage(std::span<const std::uint32_t> interfaces) {
    list_interfaces(southbound::kMgmtIfx, callbacks_.mgmt_ifx, interfaces);
  }
  // Asks for the counters of the flow with this index, or of all with southbound::kAllFlows.
  void ask_counters(std::uint64_t index);
  void configure_reports(std::uint32_t cells, std::uint32_t period_s);
  void packets(bool start);
  // Announces or withdraws the address of a controller, laid out as in BarrierTag.
  void controller(bool announce, std::uint32_t address);
  void connected() { call(callbacks_.connected); }

 private:
  template <typename Callback, typename... Message>
  void call(Callback callback, Message... message) {
    thread_.check();
    ++calls_;
    callback(message...);
  }
  void list_interfaces(southbound::MsgType type, of_ss_msg_cb callback, std::span<const std::uint32_t> interfaces);

  const Callbacks &callbacks_;
  ThreadBound thread_;
  std::uint64_t calls_ = 0;
};

// The tag of a barrier reply; the message is kBarrierLen long.
BarrierTag barrier_tag(Bytes reply);

}  // namespace host::of_ss
