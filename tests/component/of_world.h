// The OpenFlow service library over real sockets, with the test in the daemon's place: the callbacks record what they are given,
// and the test decides when and how the daemon answers.
#pragma once

#include <arpa/inet.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "host/of_ss/testing.h"
#include "host/runtime/loop.h"
#include "of_ss.h"
#include "qx_mom.h"
#include "southbound.h"
#include "support/of_wire.h"
#include "support/runtime_fixture.h"

namespace of_world {

using namespace of_wire;
using namespace std::chrono_literals;

// The daemon as the library sees it.
class PlayedDaemon {
 public:
  PlayedDaemon() { self = this; }
  ~PlayedDaemon() { self = nullptr; }

  // Registers the sixteen callbacks.
  static void register_callbacks() {
    of_ss_regiter_flow_mod(take);
    of_ss_regiter_send_openmsg(take);
    of_ss_regiter_mgmt_ifx(take);
    of_ss_regiter_send_closemsg(take);
    of_ss_regiter_del_all_flow([] { self->record(text("DEL_ALL_FLOWS")); });
    of_ss_regiter_start(take);
    of_ss_regiter_end(take);
    of_ss_regiter_flow_statistic_reply(take);
    of_ss_regiter_meter_mod(take);
    of_ss_socket_connected([] { self->record(text("CONNECTED")); });
    of_ss_flowcount_config(take);
    of_ss_pkt_start(take);
    of_ss_pkt_end(take);
    of_ss_con_info(take);
    ofss_barrier_request(take);
    of_ss_regiter_del_all([] { self->record(text("DEL_ALL")); });
  }

  // Whether barriers are answered at once, from inside the callback, or kept for answer_barriers.
  void hold_barriers(bool hold) {
    const std::lock_guard lock(mutex_);
    hold_ = hold;
  }
  void answer_barriers() {
    hold_barriers(false);
    for (Message &barrier : held()) answer(barrier);
  }
  // Counters that are given for every statistics request.
  void count(std::uint64_t index, std::uint64_t packets, std::uint64_t bytes) {
    const std::lock_guard lock(mutex_);
    counters_.push_back({index, packets, bytes});
  }

  std::vector<Message> messages() const {
    const std::lock_guard lock(mutex_);
    return messages_;
  }
  std::vector<Message> of_type(std::uint16_t type) const {
    std::vector<Message> found;
    for (const Message &m : messages())
      if (southbound::get<std::uint16_t>(m.data(), 0) == type) found.push_back(m);
    return found;
  }
  // Flow-mods that add, or delete.
  std::vector<Message> flows(bool adds) const {
    std::vector<Message> found;
    for (const Message &m : of_type(southbound::kFlowMod))
      if ((southbound::get<std::uint8_t>(m.data(), southbound::kFlowCommand) == 0) == adds) found.push_back(m);
    return found;
  }
  bool told(const char *signal) const {
    const auto all = messages();
    return std::find(all.begin(), all.end(), text(signal)) != all.end();
  }
  void forget() {
    const std::lock_guard lock(mutex_);
    messages_.clear();
  }

  // Replies, as the daemon sends them.
  static void fail(std::uint64_t index, std::uint32_t result) {
    Message reply = message(southbound::kFlowResult, southbound::kFlowResultLen);
    southbound::put(reply.data(), southbound::kFlowIndex, index);
    southbound::put(reply.data(), southbound::kFlowResultCode, result);
    ASSERT_EQ(of_ss_send_msg(reply.data(), static_cast<std::uint32_t>(reply.size())), 0);
  }
  static void capacity(std::uint32_t flows) {
    Message reply = message(southbound::kCapacity, southbound::kCapacityLen);
    southbound::put(reply.data(), southbound::kCapacityFlows, flows);
    of_ss_send_msg(reply.data(), static_cast<std::uint32_t>(reply.size()));
  }
  static void fail_meter(std::uint32_t id, std::uint32_t result) {
    Message reply = message(southbound::kMeterResult, southbound::kMeterResultLen);
    southbound::put(reply.data(), southbound::kMeterResultId, id);
    southbound::put(reply.data(), southbound::kMeterResultCode, result);
    of_ss_send_msg(reply.data(), static_cast<std::uint32_t>(reply.size()));
  }
  static void report(std::uint64_t index, std::uint64_t packets, std::uint64_t bytes) {
    Message reply = message(southbound::kPackedReport, southbound::kCells + southbound::kCellLen);
    southbound::put(reply.data(), southbound::kCells, index);
    southbound::put(reply.data(), southbound::kCells + 8, packets);
    southbound::put(reply.data(), southbound::kCells + 16, bytes);
    of_ss_send_msg(reply.data(), static_cast<std::uint32_t>(reply.size()));
  }

 private:
  static Message message(std::uint16_t type, std::size_t length) {
    Message m(length);
    southbound::put_header(m.data(), type, 4, static_cast<std::uint16_t>(length), 1);
    return m;
  }
  static Message text(const char *name) {
    const auto *at = reinterpret_cast<const std::byte *>(name);
    return Message(at, at + strlen(name) + 1);
  }
  static int take(void *bytes) {
    const auto *at = static_cast<const std::byte *>(bytes);
    self->record(Message(at, at + southbound::get<std::uint16_t>(bytes, southbound::kLen)));
    return 0;
  }
  static void answer(Message barrier) {
    southbound::put(barrier.data(), southbound::kType, std::uint16_t{southbound::kBarrierReply});
    of_ss_send_msg(barrier.data(), southbound::kBarrierLen);
  }
  std::vector<Message> held() {
    const std::lock_guard lock(mutex_);
    return std::exchange(held_, {});
  }
  void record(Message m) {
    const auto type = southbound::get<std::uint16_t>(m.data(), 0);
    bool now;
    std::vector<Counter> counters;
    {
      const std::lock_guard lock(mutex_);
      messages_.push_back(m);
      now = !hold_;
      if (type == southbound::kBarrierRequest && hold_) held_.push_back(m);
      if (type == southbound::kStatRequest) counters = counters_;
    }
    if (type == southbound::kBarrierRequest && now) answer(m);
    for (const Counter &c : counters) send_counter(c);
  }
  struct Counter {
    std::uint64_t index, packets, bytes;
  };
  static void send_counter(const Counter &c) {
    Message reply = message(southbound::kStatReply, southbound::kStatReplyLen);
    southbound::put(reply.data(), southbound::kStatIndex, c.index);
    southbound::put(reply.data(), southbound::kStatPackets, c.packets);
    southbound::put(reply.data(), southbound::kStatBytes, c.bytes);
    of_ss_send_msg(reply.data(), static_cast<std::uint32_t>(reply.size()));
  }

  static inline PlayedDaemon *self = nullptr;
  mutable std::mutex mutex_;
  bool hold_ = false;
  std::vector<Message> messages_, held_;
  std::vector<Counter> counters_;
};

// A controller: a socket and what came from it.
class Controller {
 public:
  Controller() = default;
  explicit Controller(std::uint16_t port) { connect(port); }
  virtual ~Controller() { close(); }
  Controller(const Controller &) = delete;
  Controller &operator=(const Controller &) = delete;

  void connect(std::uint16_t port, in_addr_t to = htonl(INADDR_LOOPBACK)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = to;
    adopt(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const int on = 1;
    setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    ASSERT_EQ(::connect(fd_, reinterpret_cast<sockaddr *>(&address), sizeof address), 0) << strerror(errno);
  }
  void adopt(int fd) {
    close();
    fd_ = fd;
  }
  void close() {
    if (fd_ >= 0) ::close(std::exchange(fd_, -1));
  }
  void limit_receive_buffer(int bytes) { setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &bytes, sizeof bytes); }

  // Sends all of it, letting the loop turn where the peer does not take it at once; false when it does not.
  bool send(const Message &bytes, std::chrono::milliseconds limit = kPatience) {
    std::size_t sent = 0;
    return send_rest(bytes, sent, limit);
  }
  // The same for a message of which `sent` bytes have been taken before.
  bool send_rest(const Message &bytes, std::size_t &sent, std::chrono::milliseconds limit) {
    return host::run_until([&] { return !send_more(bytes, sent); }, limit) && sent == bytes.size();
  }
  // Sends what the peer takes without waiting. Whether there is more to send.
  bool send_more(const Message &bytes, std::size_t &sent) {
    const ssize_t n = put_some(std::span(bytes).subspan(sent));
    if (n > 0) sent += static_cast<std::size_t>(n);
    return sent < bytes.size() && (n >= 0 || errno == EAGAIN);
  }
  // Takes what has arrived.
  void read() {
    std::byte chunk[65536];
    for (ssize_t n; fd_ >= 0 && (n = get_some(chunk)) >= 0;) {
      if (n == 0) {
        ended_ = true;
        return;
      }
      input_.insert(input_.end(), chunk, chunk + n);
      cut();
    }
    if (errno == ECONNRESET) ended_ = true;
  }
  bool ended() {
    read();
    return ended_;
  }
  // Everything received so far, whole messages.
  const std::vector<Message> &received() {
    read();
    return received_;
  }
  std::vector<Message> of_type(std::uint8_t type) {
    std::vector<Message> found;
    for (const Message &m : received())
      if (get(m, 1, 1) == type) found.push_back(m);
    return found;
  }
  void forget() { received_.clear(); }

  // Waits for the n-th message of a type, or of a type and xid; an empty message when it does not come.
  Message await(std::uint8_t type, std::size_t n = 1) {
    host::run_until([&] { return of_type(type).size() >= n || ended_; }, kPatience);
    const auto found = of_type(type);
    return found.size() >= n ? found[n - 1] : Message{};
  }
  // Sends the request and waits for any message with its xid.
  Message ask(const Message &request) {
    const std::uint64_t xid = get(request, 4, 4);
    const auto answer = [&]() -> const Message * {
      for (const Message &m : received())
        if (get(m, 4, 4) == xid && get(m, 1, 1) != 0) return &m;
      return nullptr;
    };
    forget();
    send(request);
    host::run_until([&] { return answer() || ended_; }, kPatience);
    return answer() ? *answer() : Message{};
  }
  // Everything sent so far has been taken and answered; the answer to the barrier that tells so is not kept.
  bool settle() {
    const Message mine = barrier(++settled_);
    const Message answer = message(21, settled_);
    return send(mine) &&
           host::run_until(
               [&] {
                 read();
                 return std::erase(received_, answer) == 1 || ended_;
               },
               kPatience) &&
           !ended_;
  }

 protected:
  // As send and recv without waiting.
  virtual ssize_t put_some(std::span<const std::byte> bytes) {
    return ::send(fd_, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
  }
  virtual ssize_t get_some(std::span<std::byte> into) { return ::recv(fd_, into.data(), into.size(), MSG_DONTWAIT); }
  int fd_ = -1;

 private:
  void cut() {
    std::size_t at = 0;
    for (; input_.size() - at >= 8; at += get(input_, at + 2, 2)) {
      const std::size_t length = get(input_, at + 2, 2);
      if (input_.size() - at < length) break;
      received_.emplace_back(input_.begin() + static_cast<std::ptrdiff_t>(at),
                             input_.begin() + static_cast<std::ptrdiff_t>(at + length));
    }
    input_.erase(input_.begin(), input_.begin() + static_cast<std::ptrdiff_t>(at));
  }
  bool ended_ = false;
  std::uint32_t settled_ = 0xb0000000;
  Message input_;
  std::vector<Message> received_;
};

// "type/code" of an error, "" of another message.
inline std::string error_of(const Message &m) {
  if (m.size() < 12 || get(m, 1, 1) != 1) return "";
  return std::to_string(get(m, 8, 2)) + "/" + std::to_string(get(m, 10, 2));
}
inline Message data_of(const Message &error) {
  return Message(error.begin() + 12, error.end());
}

class AgentTest : public RuntimeTest {
 protected:
  void configure() override {
    set("openflow.listen", "ptcp:127.0.0.1:0");
    set("openflow.connect", "");
    set("openflow.datapath_id", "00000000000000ab");
    set("openflow.capacity", "100000");
    set("ports", "1:p1,2:p2,7:p7");
    set("log.level", "off");
    set("log.target", "stderr");
  }
  void SetUp() override {
    RuntimeTest::SetUp();
    qx_mom_client_connect_sync(global, QX_MOM_UDP_DB);
    if (starts_at_once()) start();
  }
  void TearDown() override {
    RuntimeTest::TearDown();
    host::of_ss::of_ss_reset_for_tests();
  }
  virtual bool starts_at_once() { return true; }

  void start() {
    ASSERT_EQ(ss_of_init(global), 0);
    PlayedDaemon::register_callbacks();
    ASSERT_TRUE(host::run_until([this] { return daemon.told("CONNECTED"); }, kPatience));
    port = host::of_ss::listening_port();
  }
  // A controller that has shaken hands.
  void come_up(Controller &controller) {
    controller.connect(port);
    controller.send(hello());
    ASSERT_FALSE(controller.ask(of_wire::message(5, 0xfea7)).empty());
    controller.forget();
  }
  static bool until(const std::function<bool()> &condition) { return host::run_until(condition, kPatience); }
  // Moves the clock, and has the agent look at it.
  static void warp(std::chrono::milliseconds by) {
    host::clock::warp(by);
    host::of_ss::run_timers();
  }

  PlayedDaemon daemon;
  std::uint16_t port = 0;
};

}  // namespace of_world
