#include "host/of_ss/protocol/multipart.h"

#include <algorithm>
#include <array>
#include <optional>
#include <unordered_map>

#include "host/of_ss/desired/flow_selection.h"
#include "host/of_ss/net/session.h"
#include "host/of_ss/protocol/asynchronous.h"
#include "host/of_ss/protocol/groups.h"
#include "host/of_ss/protocol/monitors.h"
#include "host/of_ss/protocol/parts.h"
#include "host/of_ss/wire/message_names.h"
#include "kelim_version.h"

namespace host::of_ss {

// A FLOW reply in progress: its filter and its position.
struct Dump {
  std::uint32_t xid;
  bool aggregate;
  std::uint32_t cursor = 0;
  FlowMod filter;
};

void FreeDump::operator()(Dump *dump) const {
  delete dump;
}

namespace {

namespace sb = southbound;

constexpr std::uint32_t kAllQueues = 0xffffffff;  // OFPQ_ALL

void put_age(Writer &out, std::int64_t since, std::int64_t now) {
  const std::int64_t age = std::max<std::int64_t>(now - since, 0);
  out.u32(static_cast<std::uint32_t>(age / 1'000'000'000));
  out.u32(static_cast<std::uint32_t>(age % 1'000'000'000));
}

// ---- switch, ports, tables

Verdict desc(Switch &sw, Connection &connection, Bytes request) {
  Parts parts(sw.scratch, connection, request);
  Writer &out = parts.entry();
  out.text("kelim", 256);
  out.text("Linux host", 256);
  out.text("ssc_kelim " KELIM_VERSION, 256);
  out.text("none", 32);
  out.text("OpenFlow agent of ssc_kelim", 256);
  parts.end();
  return {};
}

Verdict port_desc(Switch &sw, Connection &connection, Bytes request) {
  Parts parts(sw.scratch, connection, request);
  for (const ddm::Port &port : sw.ports.all()) put_port(parts.entry(), port);
  parts.end();
  return {};
}

void put_port_stats(Writer &out, const ddm::Port &port) {
  const auto counters = ddm::counters(port);
  out.u32(port.ifx);
  out.zeros(4);
  for (std::size_t n = 0; n < std::tuple_size_v<ddm::Counters>; ++n) out.u64(counters ? (*counters)[n] : kUnknown);
  out.u32(~std::uint32_t{0});  // the port's age is unknown
  out.u32(~std::uint32_t{0});
}

Verdict port_stats(Switch &sw, Connection &connection, Bytes request) {
  const std::uint32_t number = be32(request, kBody);
  if (number != port::kAny && !sw.ports.find(number)) return refuse(err::kRequestBadPort, "port", "no such port");
  Parts parts(sw.scratch, connection, request);
  for (const ddm::Port &port : sw.ports.all())
    if (number == port::kAny || number == port.ifx) put_port_stats(parts.entry(), port);
  parts.end();
  return {};
}

Verdict table_stats(Switch &sw, Connection &connection, Bytes request) {
  Parts parts(sw.scratch, connection, request);
  for (std::uint8_t table = 0; table < kTableCount; ++table) {
    Writer &out = parts.entry();
    out.u8(table);
    out.zeros(3);
    out.u32(static_cast<std::uint32_t>(sw.flows.table().flows_of(table)));
    const ss_pkt_statistic counts = sw.packets.statistics().of(SS_PKT_TABLE, table);
    out.u64(counts.packets);
    out.u64(counts.other);
  }
  parts.end();
  return {};
}

// Table properties (7.3.5.5.2).
enum Property : std::uint16_t {
  kInstructionsProperty = 0,
  kNextTables = 2,
  kWriteActionsProperty = 4,
  kApplyActionsProperty = 6,
  kMatchProperty = 8,
  kWildcards = 10,
  kWriteSetField = 12,
  kApplySetField = 14
};

template <typename Fill>
void put_property(Writer &out, Property type, Fill &&fill) {
  const std::size_t start = out.size();
  out.u16(type);
  out.u16(0);
  fill();
  out.patch16(start + 2, out.size() - start);
  out.pad8(start);
}

void put_match_fields(Writer &out, const TargetCapabilities &target, bool with_masks) {
  for (std::size_t number = 0; number < kOxmAppType; ++number)
    if (const OxmField &field = oxm_field(number); field.supported && target.matches(number))
      out.u32(oxm_header(field, with_masks && field.maskable));
}

void put_set_fields(Writer &out, const TargetCapabilities &target) {
  for (std::uint8_t number = 0; number < kOxmAppType; ++number)
    if (target.sets(number)) out.u32(oxm_header(oxm_field(number), false));
}

void put_ids(Writer &out, const std::vector<Capability> &kinds) {
  for (const Capability &kind : kinds) {
    if (!kind.supported) continue;
    out.u16(kind.type);
    out.u16(4);
  }
}

void put_table_features(Writer &out, std::uint8_t table, const TargetCapabilities &target, std::uint32_t capacity) {
  const std::size_t start = out.size();
  out.u16(0);
  out.u8(table);
  out.zeros(5);
  out.text(table == kServiceChainTable ? "service_chain" : "flows", 32);
  out.u64(0);
  out.u64(0);
  out.u32(0);
  out.u32(capacity);
  put_property(out, kInstructionsProperty, [&out] { put_ids(out, instruction_kinds()); });
  put_property(out, kNextTables, [] {});
  for (const Property type : {kWriteActionsProperty, kApplyActionsProperty})
    put_property(out, type, [&] { put_ids(out, action_kinds(target)); });
  for (const Property type : {kMatchProperty, kWildcards})
    put_property(out, type, [&] { put_match_fields(out, target, type == kMatchProperty); });
  for (const Property type : {kWriteSetField, kApplySetField}) put_property(out, type, [&] { put_set_fields(out, target); });
  out.patch16(start, out.size() - start);
}

Verdict table_features(Switch &sw, Connection &connection, Bytes request) {
  if (request.size() > kBody || be16(request, 10) & kMore)
    return refuse(err::kTableFeaturesEperm, "table features", "the features of the tables cannot be changed");
  Parts parts(sw.scratch, connection, request);
  const TargetCapabilities translated = by_entries(sw.target());
  for (std::uint8_t table = 0; table < kTableCount; ++table)
    put_table_features(parts.entry(), table, table == kServiceChainTable ? translated : sw.target(), sw.flows.capacity());
  parts.end();
  return {};
}

// QUEUE: {port u32, queue u32}. The queues are those that the data plane reports.
Verdict queue_stats(Switch &sw, Connection &connection, Bytes request) {
  const std::uint32_t number = be32(request, kBody), queue = be32(request, kBody + 4);
  if (number != port::kAny && !sw.ports.find(number)) return refuse(err::kQueueBadPort, "port", "no such port");
  std::vector<ss_pkt_statistic> found;
  sw.packets.statistics().each(SS_PKT_QUEUE, [&](const ss_pkt_statistic &row) {
    if ((number == port::kAny || number == row.id) && (queue == kAllQueues || queue == row.part)) found.push_back(row);
  });
  if (found.empty() && queue != kAllQueues) return refuse(err::kQueueBadQueue, "queue", "no such queue");
  Parts parts(sw.scratch, connection, request);
  for (const ss_pkt_statistic &row : found) {
    Writer &out = parts.entry();
    out.u32(row.id);
    out.u32(row.part);
    out.u64(row.bytes);
    out.u64(row.packets);
    out.u64(row.other);
    out.u32(~std::uint32_t{0});  // the queue's age is unknown
    out.u32(~std::uint32_t{0});
  }
  parts.end();
  return {};
}

// ---- meters

// The number of flows that use each meter, from a single walk over the table: there may be a thousand meters, and a hundred times
// as many flows.
using MeterUsers = std::unordered_map<std::uint32_t, std::uint32_t>;
MeterUsers meter_users(const FlowTable &table) {
  MeterUsers users;
  std::uint32_t cursor = 0;
  while (const FlowEntry *flow = table.next(cursor))
    if (const auto meter = flow->get<std::uint32_t>(sb::kFlowMeterId); meter && flow->in_force) ++users[meter];
  return users;
}

void put_counts(Writer &out, const ss_pkt_statistic &counts) {
  out.u64(counts.packets);
  out.u64(counts.bytes);
}

void put_meter_stats(Writer &out, std::uint32_t id, const Meter &meter, std::uint32_t users, const Switch &sw) {
  const std::size_t start = out.size();
  out.u32(id);
  out.u16(0);
  out.zeros(6);
  out.u32(users);
  put_counts(out, sw.packets.statistics().of(SS_PKT_METER, id));
  put_age(out, meter.created_ns, sw.now());
  for (std::uint32_t band = 0; band < meter.bands().size() / kBandLen; ++band)
    put_counts(out, sw.packets.statistics().of(SS_PKT_BAND, id, band));
  out.patch16(start + 4, out.size() - start);
}

void put_meter_config(Writer &out, std::uint32_t id, const Meter &meter) {
  out.u16(static_cast<std::uint16_t>(8 + meter.bands().size()));
  out.u16(meter.flags());
  out.u32(id);
  for (Bytes bands = meter.bands(); bands.size() >= kBandLen; bands = bands.subspan(kBandLen)) {
    const std::byte *band = bands.data();
    out.u16(sb::get<std::uint16_t>(band, 0));
    out.u16(kBandLen);
    out.u32(sb::get<std::uint32_t>(band, 4));
    out.u32(sb::get<std::uint32_t>(band, 8));
    out.u8(sb::get<std::uint8_t>(band, 12));
    out.zeros(3);
  }
}

template <typename Put>
Verdict each_meter(Switch &sw, Connection &connection, Bytes request, Put &&put) {
  const std::uint32_t id = be32(request, kBody);
  const auto &meters = sw.meters.all();
  if (id != kMeterAll && !meters.contains(id)) return refuse(err::kUnknownMeter, "meter", "there is no meter with this number");
  Parts parts(sw.scratch, connection, request);
  for (const auto &[number, meter] : meters)
    if (id == kMeterAll || id == number) put(parts.entry(), number, meter);
  parts.end();
  return {};
}

Verdict meter_stats(Switch &sw, Connection &connection, Bytes request) {
  MeterUsers users = meter_users(sw.flows.table());
  return each_meter(sw, connection, request, [&sw, &users](Writer &out, std::uint32_t id, const Meter &meter) {
    put_meter_stats(out, id, meter, users[id], sw);
  });
}

Verdict meter_config(Switch &sw, Connection &connection, Bytes request) {
  return each_meter(sw, connection, request,
                    [](Writer &out, std::uint32_t id, const Meter &meter) { put_meter_config(out, id, meter); });
}

Verdict meter_features(Switch &sw, Connection &connection, Bytes request) {
  Parts parts(sw.scratch, connection, request);
  Writer &out = parts.entry();
  out.u32(sw.target().meters);
  std::uint32_t bands = 0;
  for (const Named &band : kMeterBands) bands |= 1u << band.number;
  out.u32(bands);
  // The flag for statistics is accepted even if nothing counts them.
  out.u32(all_bits(kMeterFlags) & ~(sw.packets.has_data_plane() ? 0U : std::uint32_t{kMeterStats}));
  out.u8(static_cast<std::uint8_t>(sw.target().bands));
  out.u8(0);
  out.zeros(2);
  parts.end();
  return {};
}

// ---- flows

void put_flow(Writer &out, const FlowEntry &flow, std::int64_t now) {
  const std::size_t start = out.size();
  out.u16(0);
  out.u8(flow.table_id());
  out.zeros(1);
  put_age(out, flow.created_ns, now);
  out.u16(flow.priority());
  out.u16(flow.get<std::uint16_t>(sb::kFlowIdleTimeout));
  out.u16(flow.get<std::uint16_t>(sb::kFlowHardTimeout));
  out.u16(flow.flags());
  out.zeros(4);
  out.u64(flow.cookie());
  out.u64(flow.packets());
  out.u64(flow.bytes());
  encode_wire_match(southbound_match(flow.southbound()), flow.table_id() == kServiceChainTable, out);
  encode_wire_instructions(flow.southbound(), out);
  out.patch16(start, out.size() - start);
}

// Sends flows until all are sent or the peer has enough to read for now. True when all are sent.
bool send_flows(Switch &sw, Connection &connection, Dump &dump) {
  while (!connection.is_backed_up()) {
    Parts parts(sw.scratch, connection, kFlow, dump.xid);
    const FlowEntry *flow = nullptr;
    while (!parts.full() && (flow = sw.flows.table().next(dump.cursor)))
      if (flow->in_force && selected(*flow, dump.filter)) put_flow(parts.entry(), *flow, sw.now());
    parts.send(flow ? kMore : 0);
    if (!flow) return true;
  }
  return false;
}

void send_aggregate(Switch &sw, Connection &connection, const Dump &dump) {
  std::uint64_t packets = 0, bytes = 0;
  std::uint32_t cursor = 0, flows = 0;
  while (const FlowEntry *flow = sw.flows.table().next(cursor)) {
    if (!flow->in_force || !selected(*flow, dump.filter)) continue;
    packets += flow->packets();
    bytes += flow->bytes();
    ++flows;
  }
  Parts parts(sw.scratch, connection, kAggregate, dump.xid);
  Writer &out = parts.entry();
  out.u64(packets);
  out.u64(bytes);
  out.u32(flows);
  out.zeros(4);
  parts.end();
}

// FLOW and AGGREGATE: {table u8, out_port u32 at 4, out_group u32 at 8, cookie u64 at 16, mask u64 at 24, match at 32}.
Verdict flow_stats(Switch &sw, Connection &connection, Bytes request) {
  auto dump = std::unique_ptr<Dump, FreeDump>(new Dump);
  const std::uint8_t table = be8(request, kBody);
  if (table >= kTableCount && table != kTableAll)
    return refuse(err::kRequestBadTable, "table", "no such table, there are 0 and 1");
  if (const Verdict verdict = decode_flow_filter(request, kBody + 32, table, dump->filter); verdict.refused()) return verdict;
  dump->xid = be32(request, kOfXid);
  dump->aggregate = be16(request, 8) == kAggregate;
  dump->filter.out_port = be32(request, kBody + 4);
  dump->filter.out_group = be32(request, kBody + 8);
  dump->filter.cookie = be64(request, kBody + 16);
  dump->filter.cookie_mask = be64(request, kBody + 24);
  connection.session().dump = std::move(dump);
  sw.counters.ask(connection, sw.now());
  continue_dump(sw, connection);
  return {};
}

// ---- the table

struct MultipartRow {
  MultipartType type;
  std::size_t body;  // length of the request's body
  bool more;         // the body may be longer
  Verdict (*handle)(Switch &, Connection &, Bytes);
};

const char *name_of(MultipartType type) {
  return command_name(kMultipartRequest, static_cast<std::uint8_t>(type));
}

constexpr std::array<MultipartRow, kMultipartTypes> kMultiparts{{
    {kDesc, 0, false, desc},
    {kFlow, 40, true, flow_stats},
    {kAggregate, 40, true, flow_stats},
    {kTable, 0, false, table_stats},
    {kPort, 8, false, port_stats},
    {kQueue, 8, false, queue_stats},
    {kGroupStats, 8, false, group_stats},
    {kGroupDesc, 0, false, group_desc},
    {kGroupFeatures, 0, false, group_features},
    {kMeter, 8, false, meter_stats},
    {kMeterConfig, 8, false, meter_config},
    {kMeterFeatures, 0, false, meter_features},
    {kTableFeatures, 0, true, table_features},
    {kPortDesc, 0, false, port_desc},
}};

Verdict experimenter(Switch &sw, Connection &connection, Bytes request) {
  if (Monitors::is_request(request) && !(be16(request, 10) & kMore)) return sw.monitors.request(connection, request);
  if (request.size() < kBody + 8) return refuse(err::kBadLen, "experimenter", "the length of the request is wrong");
  if (be32(request, kBody) != kOnfExperimenter)
    return refuse(err::kBadExperimenter, "experimenter", "of experimenters' requests the switch knows flow monitors only");
  return refuse(Monitors::is_request(request) ? err::kMultipartOverflow : err::kBadExperimenterType, "type",
                "a request for flow monitors has type 1870 and one part");
}

}  // namespace

Verdict handle_multipart(Switch &sw, Connection &connection, Bytes request) {
  const std::uint16_t type = be16(request, 8);
  if (type == kExperimenterMultipart) return experimenter(sw, connection, request);
  if (type >= kMultiparts.size()) return refuse(err::kBadMultipart, "multipart", "unknown type of multipart request");
  const MultipartRow &row = kMultiparts[type];
  if (be16(request, 10) & kMore && type != kTableFeatures)
    return refuse(err::kMultipartOverflow, name_of(row.type), "the request has one part");
  const std::size_t body = request.size() - kBody;
  if (body < row.body || (body > row.body && !row.more))
    return refuse(err::kBadLen, name_of(row.type), "the length of the request is wrong");
  return row.handle(sw, connection, request);
}

bool multipart_is_for_daemon(Bytes request) {
  if (request.size() < kBody) return false;
  const std::uint16_t type = be16(request, 8);
  return type == kFlow || type == kAggregate || type == kExperimenterMultipart;
}

void continue_dump(Switch &sw, Connection &connection) {
  Session &session = connection.session();
  if (!session.dump || session.waits_for_counters) return;
  if (session.dump->aggregate)
    send_aggregate(sw, connection, *session.dump);
  else if (!send_flows(sw, connection, *session.dump))
    return;
  session.dump.reset();
}

}  // namespace host::of_ss
