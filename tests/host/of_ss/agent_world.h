// The OpenFlow service library over real sockets; the test plays both the daemon and its controllers.
#pragma once

#include "host/mom/hub.h"
#include "host/mom/testing.h"
#include "host/of_ss/controller.h"
#include "host/of_ss/played_daemon.h"
#include "host/of_ss/testing.h"
#include "qx_mom.h"
#include "support/ask.h"
#include "support/records.h"

namespace of_world {

using namespace std::chrono_literals;

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
  virtual bool is_listened_to() { return true; }

  void start() {
    ASSERT_EQ(ss_of_init(global), 0);
    PlayedDaemon::register_callbacks();
    ASSERT_TRUE(until([this] { return !daemon.told(PlayedDaemon::kConnected).empty(); }));
    PlayedDaemon::capacity(100'000);
    port = host::of_ss::listening_port();
    if (is_listened_to()) come_up(c);
  }
  // Connects the controller and completes its handshake.
  void come_up(Controller &controller, in_addr_t to = htonl(INADDR_LOOPBACK)) {
    controller.connect(port, to);
    controller.send(hello());
    ASSERT_FALSE(controller.ask(of_wire::message(5, 0xfea7)).empty());
    controller.forget();
  }
  static bool until(const std::function<bool()> &condition) { return host::run_until(condition, kPatience); }
  // The process's answer to kelimctl, asked over the control socket.
  nlohmann::json ask(const nlohmann::json &request) {
    return beside_the_loop([&] { return ::ask(dir.path(), "core_test", request); });
  }
  nlohmann::json view(const char *name) {
    return ask({{"call", "view"}, {"name", name}, {"args", nlohmann::json::object()}}).value("data", nlohmann::json());
  }
  // Moves the clock, and has the agent check its deadlines.
  static void warp(std::chrono::milliseconds by) {
    host::clock::warp(by);
    host::of_ss::run_timers();
  }
  // The entries of all parts of a FLOW reply.
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
  // The error by which the request is refused; "" if it is carried out.
  std::string answer(const Message &request) {
    c.forget();
    EXPECT_TRUE(c.send(request) && c.settle());
    const auto refused = c.of_type(1);
    return refused.empty() ? "" : error_of(refused[0]);
  }
  // The body of the reply to a multipart request.
  Message multipart(std::uint16_t type, const Message &body = {}) {
    const Message reply = c.ask(message(18, 0x3e7e, be(type) + Message(6) + body));
    return {reply.begin() + 16, reply.end()};
  }
  // Sends the request and waits until everything has been handled and answered.
  void apply(const Message &request) {
    ASSERT_TRUE(c.send(request));
    ASSERT_TRUE(c.settle());
  }
  // Sends the request while the daemon answers no barrier, and waits until the agent has handed over that many adds in total.
  void hand_over(const Message &request, std::size_t adds) {
    daemon.hold_barriers(true);
    ASSERT_TRUE(c.send(request));
    ASSERT_TRUE(until([&] { return daemon.adds() == adds; }));
  }
  // The errors received, "type/code xid" each.
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

  // Writes a record as the daemon or the programming service does.
  void store(ProtobufCMessage *record, std::int32_t db = QX_MOM_UDP_DB) {
    qx_mom_del_sync(global, db, record, 0, 0);
    ASSERT_EQ(qx_mom_setnx_sync(global, db, record, 0, 0), 0);
  }
  static ProtobufCBinaryData data(const Message &bytes) {
    return {bytes.size(), const_cast<std::uint8_t *>(reinterpret_cast<const std::uint8_t *>(bytes.data()))};
  }
  void store_flow(std::uint64_t index, const Message &bytes) {
    records::Flow flow(index);
    flow.record.flow_data = data(bytes);
    store(flow);
  }
  // Reports what a flow has counted, and waits until the agent knows: its next request may come in before the report.
  void report(std::uint64_t index, std::uint64_t packets, std::uint64_t bytes) {
    PlayedDaemon::report(index, packets, bytes);
    ASSERT_TRUE(c.settle());
  }
  // Reports the flow's counters as the programming service does: by a record, or, if the flow is `idle`, by publishing one.
  void count(std::uint64_t index, std::uint64_t packets, bool idle = false) {
    records::FlowCounter counter(index);
    counter.record.packet_sum = packets, counter.record.byte_sum = 100 * packets;
    ASSERT_EQ((idle ? qx_mom_publish : qx_mom_set)(global, QX_MOM_UDP_DB, counter, 0, 0), 0);
    ASSERT_TRUE(until([] { return host::mom::hub()->later().size() == 0; }));
  }
  // Disconnects the database, or connects it again.
  void connect_again(bool up) {
    host::mom::testing::provoke_reconnect(QX_MOM_UDP_DB, up ? 2 : 0);
    ASSERT_TRUE(until([up] { return host::mom::hub()->all_up() == up; }));
  }
  void store_answer(std::uint64_t index, SPolicyKelim__StatusE status = S_POLICY_KELIM__STATUS_E__STATUS_INSTALLED) {
    records::FlowSta answer(index);
    answer.record.status = status;
    store(answer);
  }
  // Announces what the target can do, as the programming service does.
  void announce(records::Capabilities &target) {
    if (!*target.record.name) target.record.name = const_cast<char *>("test");
    ASSERT_EQ(qx_mom_set(global, QX_MOM_UDP_DB, target, 0, 0), 0);
    ASSERT_TRUE(until([this] { return view("capabilities").value("target", "") != ""; }));
  }

  PlayedDaemon daemon;
  std::uint16_t port = 0;
  Controller c;
};

}  // namespace of_world
