// The OpenFlow service library over real sockets, with the test in the daemon's place: the callbacks record what they are given,
// and the test decides when and how the daemon answers.
#pragma once

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <future>
#include <map>
#include <mutex>
#include <nlohmann/json.hpp>

#include "host/base/loop.h"
#include "host/control/client.h"
#include "host/control/control.h"
#include "host/mom/hub.h"
#include "host/mom/testing.h"
#include "host/of_ss/testing.h"
#include "of_ss.h"
#include "qx_mom.h"
#include "s_policy_kelim.pb-c.h"
#include "southbound.h"
#include "support/of_wire.h"
#include "support/runtime_fixture.h"

namespace of_world {

using namespace of_wire;
using flow_bytes::le;
using namespace std::chrono_literals;

// The daemon as the library sees it.
class PlayedDaemon {
 public:
  // What calls without a message are recorded as.
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

  // Whether barriers are answered at once, from inside the callback, or kept for answer_barriers.
  void hold_barriers(bool hold) {
    const std::lock_guard lock(mutex_);
    hold_ = hold;
  }
  void answer_barriers() {
    const std::lock_guard lock(mutex_);
    hold_ = false;
    for (const Message &barrier : std::exchange(held_, {})) answer(barrier);
  }
  // What the headers of the answers to barriers say of their length; the daemon echoes the request's.
  void claim_barrier_length(std::uint16_t length) {
    const std::lock_guard lock(mutex_);
    barrier_length_ = length;
  }
  // Counters that are given for every statistics request.
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
  // Flow-mods that add, or delete.
  std::vector<Message> flows(bool adds) const {
    auto found = of_type(southbound::kFlowMod);
    std::erase_if(found, [adds](const Message &m) { return (m[southbound::kFlowCommand] == std::byte{}) != adds; });
    return found;
  }
  // How many there have been of a type, and of the flow-mods that add. Costs nothing to ask again and again.
  std::size_t seen(std::uint16_t type) const {
    const std::lock_guard lock(mutex_);
    const auto found = seen_.find(type);
    return found == seen_.end() ? 0 : found->second;
  }
  std::size_t adds() const {
    const std::lock_guard lock(mutex_);
    return adds_;
  }
  // "How many: the last of them" of a type.
  std::string told(std::uint16_t type) const {
    const auto all = of_type(type);
    return all.empty() ? "" : std::to_string(all.size()) + ": " + to_hex(all.back());
  }
  void forget() {
    const std::lock_guard lock(mutex_);
    messages_.clear();
    seen_.clear();
    adds_ = 0;
  }
  // Holds the openflow thread at its next call, for as long as the result lives.
  std::unique_lock<std::mutex> stop() { return std::unique_lock(mutex_); }
  unsigned calls() const { return calls_; }

  // Replies, as the daemon sends them.
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
    southbound::put(barrier.data(), southbound::kLen, barrier_length_);
    send(barrier);
  }
  void record(const Message &m) {
    const std::uint16_t type = type_of(m);
    ++calls_;
    const std::lock_guard lock(mutex_);
    messages_.push_back(m);
    ++seen_[type];
    if (type == southbound::kFlowMod && m[southbound::kFlowCommand] == std::byte{}) ++adds_;
    if (type == southbound::kBarrierRequest) hold_ ? held_.push_back(m) : answer(m);
    if (type == southbound::kStatRequest) std::ranges::for_each(counters_, send);
  }

  static inline PlayedDaemon *self = nullptr;
  mutable std::mutex mutex_;
  std::atomic<unsigned> calls_{0};
  bool hold_ = false;
  std::uint16_t barrier_length_ = southbound::kBarrierLen;
  std::vector<Message> messages_, held_, counters_;
  std::map<std::uint16_t, std::size_t> seen_;
  std::size_t adds_ = 0;
};

// A controller: a socket and what came from it.
class Controller {
 public:
  Controller() = default;
  explicit Controller(std::uint16_t port) { connect(port); }
  virtual ~Controller() { close(); }
  Controller(const Controller &) = delete;
  Controller &operator=(const Controller &) = delete;

  // With a small `segment` or `buffer` the kernel keeps little of what is on its way.
  void connect(std::uint16_t port, in_addr_t to = htonl(INADDR_LOOPBACK), int segment = 0, int buffer = 0) {
    const sockaddr_in address{.sin_family = AF_INET, .sin_port = htons(port), .sin_addr = {to}, .sin_zero = {}};
    adopt(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const int on = 1;
    setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    if (buffer) setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &buffer, sizeof buffer);
    if (segment) setsockopt(fd_, IPPROTO_TCP, TCP_MAXSEG, &segment, sizeof segment);
    ASSERT_EQ(::connect(fd_, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0) << strerror(errno);
  }
  void adopt(int fd) {
    close();
    fd_ = fd;
    ended_ = false;
  }
  void close() {
    if (fd_ >= 0) ::close(std::exchange(fd_, -1));
  }

  // Sends all of it and what was left before, letting the loop turn where the peer does not take it at once; false when it does
  // not.
  bool send(const Message &bytes, std::chrono::milliseconds limit = kPatience) {
    append(output_, bytes);
    return host::run_until([&] { return !send_more(); }, limit) && output_.empty();
  }
  // Sends what the peer takes without waiting. Whether there is more to send.
  bool send_more() {
    const ssize_t n = put_some(output_);
    if (n > 0) output_.erase(output_.begin(), output_.begin() + n);
    return !output_.empty() && (n >= 0 || errno == EAGAIN);
  }
  // Takes what has arrived, or about as much of it.
  void read(std::ptrdiff_t bytes = PTRDIFF_MAX) {
    std::byte chunk[65536];
    for (ssize_t n; fd_ >= 0 && bytes > 0 && (n = get_some(chunk)) >= 0; bytes -= n) {
      if (n == 0) ended_ = true;
      if (ended_) return;
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

  // Waits for the n-th message of a type; an empty message when it does not come.
  Message await(std::uint8_t type, std::size_t n = 1) {
    host::run_until([&] { return of_type(type).size() >= n || ended_; }, kPatience);
    const auto found = of_type(type);
    return found.size() >= n ? found[n - 1] : Message{};
  }
  // Sends the request and waits for any message with its xid.
  Message ask(const Message &request) {
    const auto answers = [&](const Message &m) { return get(m, 4, 4) == get(request, 4, 4) && get(m, 1, 1) != 0; };
    const auto answer = [&] { return std::ranges::find_if(received_, answers); };
    forget();
    send(request);
    host::run_until([&] { return read(), answer() != received_.end() || ended_; }, kPatience);
    return answer() != received_.end() ? *answer() : Message{};
  }
  // Everything sent so far has been taken and answered; the answer to the barrier that tells so is not kept.
  bool settle() {
    const Message answer = message(21, ++settled_);
    const auto settled = [&] { return read(), std::erase(received_, answer) == 1 || ended_; };
    return send(barrier(settled_)) && host::run_until(settled, kPatience) && !ended_;
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
    auto at = input_.begin();
    while (input_.end() - at >= 8) {
      const auto end = at + static_cast<std::ptrdiff_t>(get({at, input_.end()}, 2, 2));
      if (end > input_.end()) break;
      received_.emplace_back(at, end);
      at = end;
    }
    input_.erase(input_.begin(), at);
  }
  bool ended_ = false;
  std::uint32_t settled_ = 0xb0000000;
  Message input_, output_;
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

// Where a controller waits for the agent to come.
class Listener {
 public:
  Listener() : fd_(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)) { ::listen(fd_, 5); }
  ~Listener() { ::close(fd_); }
  std::string address() const {
    sockaddr_in bound{};
    socklen_t length = sizeof bound;
    ::getsockname(fd_, reinterpret_cast<sockaddr *>(&bound), &length);
    return "127.0.0.1:" + std::to_string(ntohs(bound.sin_port));
  }
  void accept(Controller &c) {
    int fd = -1;
    ASSERT_TRUE(host::run_until([&] { return (fd = ::accept(fd_, nullptr, nullptr)) >= 0; }, kPatience));
    c.adopt(fd);
  }

 private:
  int fd_;
};

inline std::uint64_t index_of(const Message &southbound) {
  return southbound::get<std::uint64_t>(southbound.data(), southbound::kFlowIndex);
}

// What takes every flow of every table.
inline FlowMod everything(std::uint8_t command = 3) {
  FlowMod f;
  f.command = command, f.table = 0xff;
  return f;
}
// A request for the flows, or their sum, that a non-strict delete would take.
inline Message dump_request(std::uint32_t xid, const FlowMod &filter = everything(), std::uint16_t type = 1) {
  const Message body = be(type) + Message(6) + be(filter.table) + Message(3) + be(filter.out_port, filter.out_group) +
                       Message(4) + be(filter.cookie, filter.cookie_mask);
  return message(18, xid, body + match(filter.fields));
}

// Of an entry of a FLOW reply: its packets, and the port of its last action.
inline std::uint64_t packets_of(const Message &entry) {
  return get(entry, 32, 8);
}
inline std::uint64_t output_of(const Message &entry) {
  return get(entry, entry.size() - 12, 4);
}

// The agent, and a controller `c` that has shaken hands with it.
class AgentTest : public RuntimeTest {
 protected:
  using Strings = std::vector<std::string>;

  void configure() override {
    set("openflow.listen", "ptcp:0.0.0.0:0");
    set("openflow.datapath_id", "00000000000000ab");
    set("openflow.report_cells", "7");
    set("openflow.audit_interval_s", "0");
    set("ports", "1:p1,2:p2,7:p7");
    set("log.level", "off");
  }
  void SetUp() override {
    RuntimeTest::SetUp();
    for (const std::int32_t db : {QX_MOM_APP_DB, QX_MOM_UDP_DB}) {
      qx_mom_client_connect_sync(global, db);
      qx_mom_client_connect(
          global, db, [](void *, const char *) { return 0; }, "test");
    }
    start();
  }
  void TearDown() override {
    RuntimeTest::TearDown();
    host::of_ss::of_ss_reset_for_tests();
  }
  virtual bool is_listened_to() { return true; }

  void start() {
    ASSERT_EQ(ss_of_init(global), 0);
    PlayedDaemon::register_callbacks();
    ASSERT_TRUE(until([this] { return !daemon.told(PlayedDaemon::kConnected).empty(); }));
    PlayedDaemon::capacity(100'000);
    port = host::of_ss::listening_port();
    if (is_listened_to()) come_up(c);
  }
  // A controller that shakes hands.
  void come_up(Controller &controller, in_addr_t to = htonl(INADDR_LOOPBACK)) {
    controller.connect(port, to);
    controller.send(hello());
    ASSERT_FALSE(controller.ask(of_wire::message(5, 0xfea7)).empty());
    controller.forget();
  }
  static bool until(const std::function<bool()> &condition) { return host::run_until(condition, kPatience); }
  // What the process answers to kelimctl, which is another one.
  nlohmann::json ask(const nlohmann::json &request) {
    auto answer = std::async(std::launch::async, [&] {
      std::string line;
      host::control::Client client;
      EXPECT_EQ(client.connect(host::control::socket_path(dir.path(), "core_test")), "");
      EXPECT_EQ(client.request(request.dump(), &line), "");
      return line;
    });
    EXPECT_TRUE(until([&] { return answer.wait_for(0s) == std::future_status::ready; }));
    return nlohmann::json::parse(answer.get());
  }
  nlohmann::json view(const char *name) {
    return ask({{"call", "view"}, {"name", name}, {"args", nlohmann::json::object()}}).value("data", nlohmann::json());
  }
  // Moves the clock, and has the agent look at it.
  static void warp(std::chrono::milliseconds by) {
    host::clock::warp(by);
    host::of_ss::run_timers();
  }
  // Every entry of a FLOW reply, however many parts it has.
  std::vector<Message> dump(const Message &request = dump_request(0xd0)) {
    c.forget();
    c.send(request);
    const auto parts = [this] { return c.of_type(19); };
    EXPECT_TRUE(until([&] { return !parts().empty() && !(get(parts().back(), 10, 2) & 1); }));
    std::vector<Message> entries;
    for (const Message &part : parts())
      for (auto at = part.begin() + 16; at < part.end(); at += std::ssize(entries.back()))
        entries.emplace_back(at, at + static_cast<std::ptrdiff_t>(get({at, part.end()}, 0, 2)));
    return entries;
  }
  // Sends and waits until all is taken and answered.
  void apply(const Message &request) {
    ASSERT_TRUE(c.send(request));
    ASSERT_TRUE(c.settle());
  }
  // Sends while the daemon answers no barrier, and waits until the agent has handed over so many adds in all.
  void hand_over(const Message &request, std::size_t adds) {
    daemon.hold_barriers(true);
    ASSERT_TRUE(c.send(request));
    ASSERT_TRUE(until([&] { return daemon.adds() == adds; }));
  }
  // The errors that have come, "type/code xid" each.
  Strings errors() {
    Strings found;
    for (const Message &m : c.of_type(1)) found.push_back(error_of(m) + " " + std::to_string(get(m, 4, 4)));
    return found;
  }
  std::vector<std::uint64_t> deleted() const {
    std::vector<std::uint64_t> found;
    for (const Message &m : daemon.flows(false)) found.push_back(index_of(m));
    std::sort(found.begin(), found.end());
    return found;
  }

  // A record as the daemon or the programming service writes it.
  template <typename Record, typename Key>
  void store(Record record, Key key, std::int32_t db = QX_MOM_UDP_DB) {
    record.index = &key;
    qx_mom_del_sync(global, db, &record.base, 0, 0);
    ASSERT_EQ(qx_mom_setnx_sync(global, db, &record.base, 0, 0), 0);
  }
  static ProtobufCBinaryData data(const Message &bytes) {
    return {bytes.size(), const_cast<std::uint8_t *>(reinterpret_cast<const std::uint8_t *>(bytes.data()))};
  }
  void store_flow(std::uint64_t index, const Message &bytes) {
    SPolicyKelim__Flow flow = S_POLICY_KELIM__FLOW__INIT;
    flow.flow_data = data(bytes);
    store(flow, flow_key(index));
  }
  // The service-chain application has been asked to translate the flow.
  void store_request(std::uint64_t index) {
    SPolicyKelim__ParseFlowKey key = S_POLICY_KELIM__PARSE_FLOW_KEY__INIT;
    key.t_flow_type = 3, key.flow_index = index;
    store(SPolicyKelim__ParseFlow(S_POLICY_KELIM__PARSE_FLOW__INIT), key, QX_MOM_APP_DB);
  }
  // The programming service has looked at all counters once more; those of the flow, where one is given, had changed.
  void count_round(std::uint64_t index = 0) {
    SPolicyKelim__FlowKey key = flow_key(index);
    SPolicyKelim__FlowCounter counter = S_POLICY_KELIM__FLOW_COUNTER__INIT;
    counter.index = &key;
    if (index) {
      ASSERT_EQ(qx_mom_set(global, QX_MOM_UDP_DB, &counter.base, 0, 0), 0);
    }
    key.flow_index = 0;
    ASSERT_EQ(qx_mom_publish(global, QX_MOM_UDP_DB, &counter.base, 0, 0), 0);
    ASSERT_TRUE(until([] { return mom::hub()->later().size() == 0; }));
  }
  // Whether the database is there, before the next call.
  void connect_again(bool up) {
    mom::testing::provoke_reconnect(QX_MOM_UDP_DB, up ? 2 : 0);
    ASSERT_TRUE(until([up] { return mom::hub()->all_up() == up; }));
  }
  void store_answer(std::uint64_t index, SPolicyKelim__StatusE status = S_POLICY_KELIM__STATUS_E__STATUS_INSTALLED) {
    SPolicyKelim__FlowSta answer = S_POLICY_KELIM__FLOW_STA__INIT;
    answer.status = status;
    store(answer, flow_key(index));
  }
  static SPolicyKelim__FlowKey flow_key(std::uint64_t index) {
    SPolicyKelim__FlowKey key = S_POLICY_KELIM__FLOW_KEY__INIT;
    key.flow_index = index;
    return key;
  }

  PlayedDaemon daemon;
  std::uint16_t port = 0;
  Controller c;
};

}  // namespace of_world
