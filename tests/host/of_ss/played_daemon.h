// Plays the daemon behind the OpenFlow service library: records the messages that its callbacks get, and answers as the test
// says.
#pragma once

#include <algorithm>
#include <atomic>
#include <mutex>

#include "of_ss.h"
#include "southbound.h"
#include "support/of_wire.h"

namespace of_world {

using namespace of_wire;
using flow_bytes::le;

// The daemon as the library sees it.
class PlayedDaemon {
 public:
  // Types under which calls without a message are recorded.
  static constexpr std::uint16_t kConnected = 0xff01, kDelAllFlows = 0xff02;

  PlayedDaemon() { self = this; }
  ~PlayedDaemon() { self = nullptr; }

  static void register_callbacks() {
    for (const auto regiter :
         {of_ss_regiter_flow_mod, of_ss_regiter_send_openmsg, of_ss_regiter_mgmt_ifx, of_ss_regiter_send_closemsg,
          of_ss_regiter_start, of_ss_regiter_end, of_ss_regiter_flow_statistic_reply, of_ss_regiter_meter_mod,
          of_ss_flowcount_config, of_ss_pkt_start, of_ss_pkt_end, of_ss_con_info, ofss_barrier_request})
      regiter(take);
    of_ss_regiter_del_all_flow([] { self->record(le(kDelAllFlows)); });
    of_ss_socket_connected([] { self->record(le(kConnected)); });
    of_ss_regiter_del_all([] {});
  }

  // Sets whether barriers are kept for answer_barriers or answered at once, from inside the callback.
  void hold_barriers(bool hold) {
    const std::lock_guard lock(mutex_);
    hold_ = hold;
  }
  void answer_barriers() {
    const std::lock_guard lock(mutex_);
    hold_ = false;
    for (const Message &barrier : std::exchange(held_, {})) answer(barrier);
  }
  // Adds counters to the answer to every statistics request.
  void count(std::uint64_t index, std::uint64_t packets, std::uint64_t bytes) {
    const std::lock_guard lock(mutex_);
    counters_.push_back(reply(southbound::kStatReply, le(index) + le(packets) + le(bytes) + Message(8)));
  }

  std::vector<Message> messages() const {
    const std::lock_guard lock(mutex_);
    return messages_;
  }
  std::vector<Message> of_type(std::uint16_t type) const {
    auto found = messages();
    std::erase_if(found, [type](const Message &m) { return type_of(m) != type; });
    return found;
  }
  // The flow-mods that add, or those that delete.
  std::vector<Message> flows(bool adds) const {
    auto found = of_type(southbound::kFlowMod);
    std::erase_if(found, [adds](const Message &m) { return is_add(m) != adds; });
    return found;
  }
  // Numbers of messages of a type, and of flow-mods that add; cheap enough to poll.
  std::size_t seen(std::uint16_t type) const {
    const std::lock_guard lock(mutex_);
    return static_cast<std::size_t>(std::ranges::count(messages_, type, type_of));
  }
  std::size_t adds() const {
    const std::lock_guard lock(mutex_);
    return static_cast<std::size_t>(std::ranges::count_if(messages_, is_add));
  }
  static bool is_add(const Message &m) {
    return type_of(m) == southbound::kFlowMod && m[southbound::kFlowCommand] == std::byte{};
  }
  // The messages of a type as "NUMBER: LAST MESSAGE", in hexadecimal digits.
  std::string told(std::uint16_t type) const {
    const auto all = of_type(type);
    return all.empty() ? "" : std::to_string(all.size()) + ": " + to_hex(all.back());
  }
  void forget() {
    const std::lock_guard lock(mutex_);
    messages_.clear();
  }
  // Blocks the openflow thread at its next call until the result is destroyed.
  std::unique_lock<std::mutex> stop() { return std::unique_lock(mutex_); }
  unsigned calls() const { return calls_; }

  // Send replies as the daemon does.
  static void fail(std::uint64_t index, std::uint64_t result) { send(reply(southbound::kFlowResult, le(index) + le(result))); }
  static void capacity(std::uint32_t flows) { send(reply(southbound::kCapacity, Message(12) + le(flows))); }
  static void fail_meter(std::uint32_t id, std::uint32_t result) { send(reply(southbound::kMeterResult, le(id) + le(result))); }
  static void report(std::uint64_t index, std::uint64_t packets, std::uint64_t bytes) {
    send(reply(southbound::kPackedReport, le(index) + le(packets) + le(bytes)));
  }

 private:
  static std::uint16_t type_of(const Message &m) { return southbound::get<std::uint16_t>(m.data(), southbound::kType); }
  static Message reply(std::uint16_t type, const Message &body) {
    return le(type) + hex("0400") + le(static_cast<std::uint16_t>(8 + body.size())) + hex("0100") + body;
  }
  static void send(const Message &m) { of_ss_send_msg(m.data(), static_cast<std::uint32_t>(m.size())); }
  static int take(void *bytes) {
    const auto *at = static_cast<const std::byte *>(bytes);
    self->record(Message(at, at + southbound::get<std::uint16_t>(bytes, southbound::kLen)));
    return 0;
  }
  void answer(Message barrier) {
    southbound::put(barrier.data(), southbound::kType, std::uint16_t{southbound::kBarrierReply});
    send(barrier);
  }
  void record(const Message &m) {
    ++calls_;
    const std::lock_guard lock(mutex_);
    messages_.push_back(m);
    if (type_of(m) == southbound::kBarrierRequest) hold_ ? held_.push_back(m) : answer(m);
    if (type_of(m) == southbound::kStatRequest) std::ranges::for_each(counters_, send);
  }

  static inline PlayedDaemon *self = nullptr;
  mutable std::mutex mutex_;
  std::atomic<unsigned> calls_{0};
  bool hold_ = false;
  std::vector<Message> messages_, held_, counters_;
};

inline std::uint64_t index_of(const Message &southbound) {
  return southbound::get<std::uint64_t>(southbound.data(), southbound::kFlowIndex);
}

}  // namespace of_world
