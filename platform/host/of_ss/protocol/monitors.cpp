#include "host/of_ss/protocol/monitors.h"

#include <algorithm>
#include <optional>

#include "host/of_ss/desired/flow_selection.h"
#include "host/of_ss/protocol/parts.h"
#include "host/of_ss/switch/switch.h"

namespace host::of_ss {
namespace {

namespace sb = southbound;

// A request's body: experimenter u32, type u32, then for each monitor {id u32, flags u16, length of the match u16, out_port u32,
// table u8, pad[3]} and the match, padded to 8.
constexpr std::uint32_t kFlowMonitor = 1870, kPaused = 1871, kResumed = 1872;
constexpr std::size_t kExpType = kBody + 4, kMonitors = kBody + 8;
namespace monitor {
constexpr std::size_t kFlags = 4, kMatchLen = 6, kOutPort = 8, kTableId = 12, kMatch = 16;
}
// The cancel message: experimenter u32, type u32, id u32.
constexpr std::size_t kCancelType = 12, kCancelId = 16, kCancelLength = 20;

enum Flag : std::uint16_t { kInitial = 1, kAdd = 2, kDelete = 4, kModify = 8, kInstructions = 16, kOwn = 32, kAllFlags = 63 };

// An update: {length u16, event u16, reason u16, priority u16, idle u16, hard u16, length of the match u16, table u8, pad,
// cookie u64}, match, instructions; the abbreviated one: {length u16, event u16, xid u32}.
enum WireEvent : std::uint16_t { kAdded = 0, kDeletedEvent = 1, kModified = 2, kAbbreviated = 3 };
constexpr std::size_t kUpdateMatchLen = 12;

// Bounds of the monitors that each change is compared with: per connection, and of all connections.
constexpr std::size_t kMonitorsMax = 32, kMonitorsTotal = 256;

struct EventRow {
  WireEvent wire;
  Flag wanted_by;
};

// The rows are in the order of FlowEvent.
const EventRow &row_of(FlowEvent event) {
  static constexpr EventRow kEvents[] = {
      {kAdded, kAdd}, {kDeletedEvent, kDelete}, {kModified, kModify}, {kAdded, kAdd}, {kModified, kModify}};
  return kEvents[static_cast<std::size_t>(event)];
}

struct Monitor {
  std::uint32_t id;
  std::uint16_t flags;
  std::uint32_t out_port;
  FlowMod filter;  // without the port

  bool is_for_port(const FlowEntry &flow) const { return out_port == port::kAny || outputs_to(flow.southbound(), out_port); }
};

// The monitors of one request. While the existing flows are being reported, `told` is the position in the table, and `xid` the
// request's.
struct MonitorRequest {
  std::vector<Monitor> monitors;
  std::uint32_t xid;
  std::optional<std::uint32_t> told;
};

// The flows that existed at a given time.
struct Epoch {
  std::uint64_t newest;
  std::int64_t at_ns;

  bool knows(const FlowEntry &flow) const { return flow.index() <= newest || flow.created_ns < at_ns || flow.replaces; }
};

// A walk over the table for flows added or changed since a pause; if updates pause again meanwhile, another walk follows. Flows
// added after the beginning of the pause may also have been reported by another walk, up to index `newest_told`.
struct Pause {
  Epoch since;
  std::uint64_t newest_told;
  std::uint32_t told = 0;
  std::optional<Epoch> again = {};

  // True if the peer may know the flow: deletions are reported for all flows that it knows, and for some that it does not.
  bool may_know(const FlowEntry &flow) const { return flow.slot < told || flow.index() <= newest_told || since.knows(flow); }
};

std::size_t padded(std::size_t length) {
  return (length + 7) & ~std::size_t{7};
}

// True if the monitor, having requested the first flows, has been told of the flow; for a deletion also if it may have been told
// of an older form.
bool is_told(const MonitorRequest &request, const Monitor &monitor, const FlowEntry &flow, Flag wanted) {
  return !request.told || !(monitor.flags & kInitial) || flow.slot < *request.told || (wanted == kDelete && flow.replaces);
}

// The flags of the request's monitors that cover the flow and have `wanted`. A change is also reported if the `older` form went
// to the port, or, with `any_port`, whatever the port, because that form is gone.
std::uint16_t wanting(const MonitorRequest &request, const FlowEntry &flow, Flag wanted, const FlowEntry *older,
                      bool any_port = false) {
  std::uint16_t flags = 0;
  for (const Monitor &monitor : request.monitors)
    if (monitor.flags & wanted && is_told(request, monitor, flow, wanted) && selected(flow, monitor.filter) &&
        (any_port || monitor.is_for_port(flow) || (older && monitor.is_for_port(*older))))
      flags |= monitor.flags;
  return flags;
}

void put_update(Writer &out, const FlowEntry &flow, WireEvent event, RemovedReason reason, bool with_instructions) {
  const std::size_t start = out.size();
  out.u16(0);
  out.u16(event);
  out.u16(event == kDeletedEvent ? reason : 0);
  out.u16(flow.priority());
  out.u16(flow.get<std::uint16_t>(sb::kFlowIdleTimeout));
  out.u16(flow.get<std::uint16_t>(sb::kFlowHardTimeout));
  out.u16(0);
  out.u8(flow.table_id());
  out.zeros(1);
  out.u64(flow.cookie());
  const std::size_t match_len =
      encode_wire_match(southbound_match(flow.southbound()), flow.table_id() == kServiceChainTable, out);
  out.patch16(start + kUpdateMatchLen, match_len);
  if (with_instructions) encode_wire_instructions(flow.southbound(), out);
  out.patch16(start, out.size() - start);
}

// Reads one monitor from the front of `entry` and stores its length in `length`.
Verdict read_monitor(Bytes entry, Monitor &out, std::size_t &length) {
  if (entry.size() < monitor::kMatch) return refuse(err::kBadLen, "flow monitor", "the request is shorter than its monitors");
  const std::size_t match_len = be16(entry, monitor::kMatchLen);
  length = monitor::kMatch + padded(match_len);
  if (match_len < 4 || length > entry.size())
    return refuse(err::kBadLen, "flow monitor", "the request is shorter than its monitors");
  out.id = be32(entry, 0);
  out.flags = be16(entry, monitor::kFlags);
  if (!(out.flags & (kAdd | kDelete | kModify)) || out.flags & ~kAllFlags)
    return refuse(err::kMonitorBadFlags, "flags", "they name an unknown flag or none of ADD, DELETE and MODIFY");
  const std::uint8_t table = be8(entry, monitor::kTableId);
  if (table >= kTableCount && table != kTableAll)
    return refuse(err::kRequestBadTable, "table", "no such table, there are 0 and 1");
  if (be16(entry, monitor::kMatch + 2) != match_len)
    return refuse(err::kMatchBadLen, "match", "it has another length than the monitor says");
  if (const Verdict verdict = decode_flow_filter(entry.first(length), monitor::kMatch, table, out.filter); verdict.refused())
    return verdict;
  out.out_port = be32(entry, monitor::kOutPort);
  out.filter.out_port = port::kAny;
  out.filter.out_group = kGroupAny;
  out.filter.cookie = out.filter.cookie_mask = 0;
  return {};
}

}  // namespace

// The monitors of one connection and the progress of its updates. `abbreviated` is its own last request that was reported in
// abbreviated form.
struct Watcher {
  std::vector<MonitorRequest> requests;
  std::optional<Pause> pause;
  std::uint64_t abbreviated = 0;

  std::size_t count() const {
    std::size_t sum = 0;
    for (const MonitorRequest &request : requests) sum += request.monitors.size();
    return sum;
  }
  // True while the first flows are still being reported.
  bool is_at_first() const {
    return std::ranges::any_of(requests, [](const MonitorRequest &request) { return request.told.has_value(); });
  }
  bool has(std::uint32_t id) const {
    return std::ranges::any_of(requests, [id](const MonitorRequest &request) {
      return std::ranges::find(request.monitors, id, &Monitor::id) != request.monitors.end();
    });
  }
};

void FreeWatcher::operator()(Watcher *watcher) const {
  delete watcher;
}

// ---- requests

bool Monitors::is_request(Bytes message) {
  return message.size() >= kMonitors && be32(message, kBody) == kOnfExperimenter && be32(message, kExpType) == kFlowMonitor;
}

bool Monitors::is_cancel(Bytes message) {
  return message.size() >= kCancelType + 4 && be32(message, kOfHeader) == kOnfExperimenter &&
         be32(message, kCancelType) == kFlowMonitor;
}

Verdict Monitors::request(Connection &connection, Bytes message) {
  if (const Verdict verdict = set_up(connection, message); verdict.refused()) return verdict;
  if (connection.session().owes_updates)
    go_on(connection);
  else
    Parts(sw_.scratch, connection, kExperimenterMultipart, be32(message, kOfXid), kFlowMonitor).end();
  return {};
}

Verdict Monitors::set_up(Connection &connection, Bytes message) {
  auto &watcher = connection.session().watcher;
  MonitorRequest request{{}, be32(message, kOfXid), {}};
  bool initial = false;
  std::size_t length = 0;
  for (Bytes rest = message.subspan(kMonitors); !rest.empty(); rest = rest.subspan(length)) {
    Monitor &monitor = request.monitors.emplace_back();
    if (const Verdict verdict = read_monitor(rest, monitor, length); verdict.refused()) return verdict;
    if ((watcher && watcher->has(monitor.id)) || std::ranges::count(request.monitors, monitor.id, &Monitor::id) > 1)
      return refuse(err::kMonitorExists, "monitor", "the connection has one with this number");
    if (request.monitors.size() + (watcher ? watcher->count() : 0) > kMonitorsMax ||
        request.monitors.size() + count() > kMonitorsTotal)
      return refuse(err::kRequestEperm, "monitor", "there are too many already, 32 of one connection or 256 of all");
    initial |= monitor.flags & kInitial;
  }
  if (request.monitors.empty()) return {};
  if (initial) request.told = 0;
  connection.session().owes_updates = initial;
  if (!watcher) {
    watcher.reset(new Watcher);
    watching_.push_back(connection.generation());
  }
  watcher->requests.push_back(std::move(request));
  sw_.flows.watch(true);
  return {};
}

Verdict Monitors::cancel(Connection &connection, Bytes message) {
  if (message.size() != kCancelLength) return refuse(err::kBadLen, "flow monitor cancel", "the length of the message is wrong");
  auto &watcher = connection.session().watcher;
  const std::uint32_t id = be32(message, kCancelId);
  if (!watcher || !watcher->has(id)) return refuse(err::kUnknownMonitor, "monitor", "the connection has none with this number");
  for (MonitorRequest &request : watcher->requests)
    std::erase_if(request.monitors, [id](const Monitor &monitor) { return monitor.id == id; });
  std::erase_if(watcher->requests, [](const MonitorRequest &request) { return request.monitors.empty(); });
  if (watcher->requests.empty()) watcher.reset();
  sweep();
  return {};
}

std::size_t Monitors::count() const {
  std::size_t sum = 0;
  for (const std::uint64_t generation : watching_)
    if (const Watcher *one = watcher(generation)) sum += one->count();
  return sum;
}

Watcher *Monitors::watcher(std::uint64_t generation) const {
  Connection *connection = sw_.controllers.find(generation);
  return connection ? connection->session().watcher.get() : nullptr;
}

void Monitors::sweep() {
  std::erase_if(watching_, [this](std::uint64_t generation) { return !watcher(generation); });
  sw_.flows.watch(!watching_.empty());
}

// ---- updates

// Walks by number, because a connection with too much unsent output may end in between.
void Monitors::flow_changed(const FlowEntry &flow, const FlowChange &change) {
  for (std::size_t n = 0; n < watching_.size(); ++n)
    if (watcher(watching_[n])) tell(*sw_.controllers.find(watching_[n]), flow, change);
}

void Monitors::tell(Connection &connection, const FlowEntry &flow, const FlowChange &change) {
  Watcher &watcher = *connection.session().watcher;
  std::uint16_t flags = 0;
  const FlowEntry *older = sw_.flows.table().at(flow.older);
  for (const MonitorRequest &request : watcher.requests) flags |= wanting(request, flow, row_of(change.event).wanted_by, older);
  if (!flags || is_to_wait(connection, flow, change.event)) return;
  const bool is_own = change.author.origin.generation == connection.generation();
  if (is_own && !(flags & kOwn) && !watcher.pause)
    abbreviate(connection, change.author);
  else
    send_update(connection, flow, change, flags);
}

// True if nothing is to be reported now: the peer does not know the flow, or a later walk over the changes will find it.
bool Monitors::is_to_wait(Connection &connection, const FlowEntry &flow, FlowEvent event) {
  auto &pause = connection.session().watcher->pause;
  if (event == FlowEvent::unchanged) return pause || connection.is_backed_up();
  if (event == FlowEvent::deleted || event == FlowEvent::brought_back)
    return pause && !connection.session().watcher->is_at_first() && !pause->may_know(flow);
  if (pause && (pause->again || flow.slot >= pause->told)) return true;
  if (!connection.is_backed_up()) return false;
  const Epoch before{sw_.flows.table().newest_index() - 1, sw_.now()};
  if (pause) {
    pause->again = before;
  } else {
    pause = Pause{before, before.newest};
    connection.session().owes_updates = true;
    notify(connection, kPaused);
  }
  return true;
}

void Monitors::send_update(Connection &connection, const FlowEntry &flow, const FlowChange &change, std::uint16_t flags) {
  Parts parts(sw_.scratch, connection, kExperimenterMultipart, 0, kFlowMonitor);
  put_update(parts.entry(), flow, row_of(change.event).wire, change.reason, flags & kInstructions);
  parts.end();
}

// Sends one abbreviated update for all changes of the request.
void Monitors::abbreviate(Connection &connection, const Author &author) {
  Watcher &watcher = *connection.session().watcher;
  if (std::exchange(watcher.abbreviated, author.request) == author.request) return;
  Parts parts(sw_.scratch, connection, kExperimenterMultipart, 0, kFlowMonitor);
  Writer &out = parts.entry();
  out.u16(8);
  out.u16(kAbbreviated);
  out.u32(author.origin.xid);
  parts.end();
}

void Monitors::notify(Connection &connection, std::uint32_t type) {
  Reply message(sw_.scratch, kExperimenter, 0);
  message.out.u32(kOnfExperimenter);
  message.out.u32(type);
  message.send(connection);
}

// ---- walks over the table

// Waits for the end of a transaction, whose flows may be undone.
void Monitors::go_on(Connection &connection) {
  Watcher *watcher = connection.session().watcher.get();
  if (!watcher || sw_.flows.is_in_transaction()) return;
  connection.session().owes_updates = !send_initial(connection, *watcher) || !send_changed(connection, *watcher);
}

void Monitors::go_on() {
  for (std::size_t n = 0; n < watching_.size(); ++n)
    if (Connection *connection = sw_.controllers.find(watching_[n])) go_on(*connection);
}

// Writes entries from the cursor on until all flows have been visited (true) or the peer has enough to read for now (false).
template <typename Put>
bool Monitors::walk(Connection &connection, std::uint32_t xid, std::uint32_t &cursor, bool is_reply, Put &&put) {
  while (!connection.is_backed_up()) {
    Parts parts(sw_.scratch, connection, kExperimenterMultipart, xid, kFlowMonitor);
    const FlowEntry *flow = nullptr;
    while (!parts.full() && (flow = sw_.flows.table().next(cursor)))
      if (flow->in_force) put(parts.entry(), *flow);
    if (is_reply || !parts.empty()) parts.send(is_reply && flow ? kMore : 0);
    if (!flow) return true;
  }
  return false;
}

bool Monitors::send_initial(Connection &connection, Watcher &watcher) {
  for (MonitorRequest &request : watcher.requests) {
    if (!request.told) continue;
    const auto put = [&request](Writer &out, const FlowEntry &flow) {
      if (const std::uint16_t flags = wanting(request, flow, kInitial, nullptr))
        put_update(out, flow, kAdded, kDeleted, flags & kInstructions);
    };
    if (!walk(connection, request.xid, *request.told, true, put)) return false;
    request.told.reset();
    if (watcher.pause) watcher.pause->newest_told = sw_.flows.table().newest_index();
  }
  return true;
}

bool Monitors::send_changed(Connection &connection, Watcher &watcher) {
  if (!watcher.pause) return true;
  Pause &pause = *watcher.pause;
  const auto put = [&watcher, &pause](Writer &out, const FlowEntry &flow) {
    if (flow.index() <= pause.since.newest) return;
    const bool is_modified = flow.created_ns < pause.since.at_ns;
    const FlowEvent event = is_modified ? FlowEvent::modified : FlowEvent::added;
    std::uint16_t flags = 0;
    for (const MonitorRequest &request : watcher.requests)
      flags |= wanting(request, flow, row_of(event).wanted_by, nullptr, is_modified || flow.replaces);
    if (flags) put_update(out, flow, row_of(event).wire, kDeleted, flags & kInstructions);
  };
  while (walk(connection, 0, pause.told, false, put)) {
    if (pause.again) {
      pause = Pause{*pause.again, sw_.flows.table().newest_index()};
      continue;
    }
    watcher.pause.reset();
    notify(connection, kResumed);
    return true;
  }
  return false;
}

}  // namespace host::of_ss
