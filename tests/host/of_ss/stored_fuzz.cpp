// Any bytes in the records that an earlier life of the daemon has left: flows, meters, answers to flows, what the service chain
// was asked for and told. What the agent takes over it shows to a controller in whole messages, hands to the daemon again, counts
// on from and deletes.
#include <event2/buffer.h>

#include "host/mom/hub.h"
#include "host/of_ss/agent/agent.h"
#include "host/of_ss/net/session.h"
#include "host/of_ss/protocol/multipart.h"
#include "host/of_ss/protocol/protocol.h"
#include "host/of_ss/stored/stored.h"
#include "libddm.h"
#include "support/fuzz_runtime.h"
#include "support/of_wire.h"
#include "support/records.h"

namespace {

using namespace host::of_ss;
using of_wire::be, of_wire::operator+;

// ---- the records: {kind u8, length u16, bytes} each

qx_global *database() {
  static const bool up = [] {
    static int connected = 0;
    require(libddm_init(runtime(), "fuzz") == 0);  // ports are read once
    for (const std::int32_t db : {QX_MOM_APP_DB, QX_MOM_UDP_DB}) {
      require(qx_mom_client_connect_sync(runtime(), db) == 0);
      require(qx_mom_client_connect(
                  runtime(), db, [](void *, const char *) { return ++connected, 0; }, "fuzz") == 0);
    }
    return host::run_until([] { return connected == 2; }, kPatience);
  }();
  require(up);
  return runtime();
}

std::uint64_t number_in(Bytes bytes) {
  std::uint64_t number = 0;
  std::memcpy(&number, bytes.data(), std::min(sizeof number, bytes.size()));
  return number;
}

ProtobufCBinaryData data(Bytes bytes) {
  return {bytes.size(), reinterpret_cast<std::uint8_t *>(const_cast<std::byte *>(bytes.data()))};
}

void store(std::int32_t db, ProtobufCMessage *record) {
  require(qx_mom_set(database(), db, record, 0, 0) == 0);
}

void store_flow(Bytes bytes, std::uint32_t number) {
  records::Flow flow(number);
  flow.record.flow_data = data(bytes);
  store(QX_MOM_UDP_DB, flow);
}

void store_meter(Bytes bytes, std::uint32_t number) {
  records::Meter meter(number);
  meter.record.meter_data = data(bytes);
  store(QX_MOM_UDP_DB, meter);
}

// Of the other records only the key is read, which the bytes are.
template <typename Record, std::int32_t kDb>
void store_key(Bytes bytes, std::uint32_t) {
  store(kDb, Record(number_in(bytes)));
}

constexpr void (*kStore[])(Bytes, std::uint32_t) = {store_flow, store_meter, store_key<records::FlowSta, QX_MOM_UDP_DB>,
                                                    store_key<records::ParseFlow, QX_MOM_APP_DB>,
                                                    store_key<records::FlowToAceSta, QX_MOM_APP_DB>};

void store_all(Bytes input) {
  for (std::uint32_t number = 1; input.size() >= 3; ++number) {
    const std::size_t length = std::min<std::size_t>(southbound::get<std::uint16_t>(input.data(), 1), input.size() - 3);
    kStore[std::to_integer<std::size_t>(input[0]) % std::size(kStore)](input.subspan(3, length), number);
    input = input.subspan(3 + length);
  }
}

void clear() {
  for (const std::int32_t db : {QX_MOM_APP_DB, QX_MOM_UDP_DB})
    host::mom::hub()->store().provoke_reconnect(*host::mom::hub()->database(db), 1);
  host::run_until([] { return host::mom::hub()->later().size() == 0; }, kPatience);
}

// ---- the agent

int take(void *) {
  return 0;
}

constexpr Callbacks kDaemon{take, take, take, take, [] {}, take, take, take, take, [] {}, take, take, take, take, take, [] {}};

// A controller that reads everything at once.
class Controller final : private ConnectionEvents {
 public:
  explicit Controller(Agent &agent) : agent_(agent) { evbuffer_unfreeze(sent_, 1); }

  void ask(const of_wire::Message &request) {
    handle_message(agent_.of_switch(), connection_, request);
    connection_.session().waits_for_counters = false;
    continue_dump(agent_.of_switch(), connection_);
    std::vector<std::byte> sent(evbuffer_get_length(sent_));
    require(evbuffer_remove(sent_, sent.data(), sent.size()) == static_cast<int>(sent.size()));
    for (Bytes left = sent; !left.empty();) left = left.subspan(whole_message(left));
  }

 private:
  // The length of the message; what it lists lies in it.
  static std::size_t whole_message(Bytes sent) {
    const std::size_t length = be16(sent, kOfLength);
    require(length >= kOfHeader && length <= sent.size());
    const int type = be8(sent, kOfType) == kMultipartReply ? be16(sent, kOfHeader) : -1;
    if (type != 1 && type != 9 && type != 10) return length;  // FLOW, METER, METER_CONFIG
    for (Bytes left = sent.subspan(16, length - 16); !left.empty();) {
      const std::size_t entry = be16(left, type == 9 ? 4 : 0);
      require(entry >= 8 && entry % 8 == 0 && entry <= left.size());
      left = left.subspan(entry);
    }
    return length;
  }
  void up(Connection &) override {}
  void message(Connection &, Bytes) override {}
  void batch_begins(Connection &) override {}
  bool may_take(Connection &, Bytes) override { return false; }
  void batch_done(Connection &) override {}
  void drained(Connection &) override {}
  void gone(Connection &) override {}
  void overfull() override {}

  Agent &agent_;
  bufferevent *socket_ = bufferevent_socket_new(host::loop_base(), -1, 0);  // without a peer: what is sent stays there
  evbuffer *sent_ = bufferevent_get_output(socket_);
  Connection connection_{*this, BuffereventOwner(socket_), {}, 1, {}, 0};
};

// ---- what is done with it; requests are made once, for speed

constexpr std::uint32_t kAny = 0xffffffff;

of_wire::Message multipart(std::uint16_t type, const of_wire::Message &body) {
  return of_wire::message(kMultipartRequest, 1, be(type, std::uint32_t{0}, std::uint16_t{0}) + body);
}

const of_wire::Message kEveryFlow = be(0xff000000U, kAny, kAny, 0U, std::uint64_t{0}, std::uint64_t{0}) + of_wire::match({});
const of_wire::Message kShow[] = {multipart(1, kEveryFlow), multipart(2, kEveryFlow), multipart(9, be(kAny, 0U)),
                                  multipart(10, be(kAny, 0U))};

void show(Agent &agent, Controller &controller) {
  for (const auto &request : kShow) controller.ask(request);
  std::uint32_t cursor = 0;
  while (const FlowEntry *flow = agent.flows().table().next(cursor)) {
    match_text(southbound_match(flow->southbound()));
    actions_text(flow->southbound());
  }
}

const of_wire::Message kAdd = of_wire::flow_mod({.instructions = of_wire::apply({})});
const of_wire::Message kChange[] = {of_wire::flow_mod({.flags = fm::kCheckOverlap}), of_wire::flow_mod({.command = fm::kModify})};
const of_wire::Message kDelete[] = {of_wire::message(kMeterModMsg, 1, be(std::uint16_t{2}, std::uint16_t{0}, kAny)),
                                    of_wire::flow_mod({.command = fm::kDelete, .table = kTableAll})};

void work(Agent &agent, Controller &controller) {
  for (agent.flows().begin_replay(); agent.flows().is_replaying();) agent.flows().replay_more();
  agent.of_switch().meters.replay();
  const FlowTable &table = agent.flows().table();
  const std::uint64_t newest = table.newest_index();
  controller.ask(kAdd);
  require(table.newest_index() > newest && table.newest_index() < southbound::kAllFlows);
  for (const auto &request : kChange) controller.ask(request);
  for (const auto &request : kDelete) controller.ask(request);
  require(table.size() == 0 && agent.of_switch().meters.all().empty());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  database();
  static Inbox inbox;
  store_all(std::as_bytes(std::span(data, size)));
  StoredState stored;
  require(read_stored(database(), stored) == 0);
  Agent agent(kDaemon, inbox, settings_from(host::config().openflow), [](const auto &) {});
  agent.restore(stored);
  Controller controller(agent);
  show(agent, controller);
  work(agent, controller);
  clear();
  return 0;
}
