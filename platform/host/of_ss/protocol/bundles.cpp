#include "host/of_ss/protocol/bundles.h"

#include <algorithm>

#include "host/of_ss/net/reply.h"
#include "host/of_ss/net/session.h"
#include "host/of_ss/protocol/flow_mods.h"
#include "host/of_ss/switch/switch.h"

namespace host::of_ss {
namespace {

// An experimenter message is header, experimenter u32, type u32; here bundle u32 follows and then, in a control message, type u16
// and flags u16, in an add two bytes of padding, flags u16 and the message.
constexpr std::size_t kExpType = 12, kBundle = 16, kType = 20, kFlags = 22, kControlLength = 24, kAdded = 24;
constexpr std::uint32_t kControl = 2300, kAdd = 2301;
enum ControlType : std::uint16_t { kOpen = 0, kClose = 2, kCommit = 4, kDiscard = 6 };  // the reply to each has the next number
constexpr std::uint16_t kAtomic = 1, kOrdered = 2;

// Bounds of collected bundles: per connection, and of all connections together.
constexpr std::ptrdiff_t kBundlesMax = 32;
constexpr std::size_t kBytesMax = 64u << 20;
constexpr std::int64_t kIdleLimit = 60'000'000'000;

std::uint32_t number_of(Bytes message) {
  return be32(message, kBundle);
}

}  // namespace

Bundles::Key Bundles::key_of(const Connection &connection, Bytes message) {
  return {connection.generation(), number_of(message)};
}

bool Bundles::commits(Bytes message) {
  return message.size() >= kControlLength && be32(message, kOfHeader) == kOnfExperimenter &&
         be32(message, kExpType) == kControl && be16(message, kType) == kCommit;
}

Bytes Bundles::carried_by(Bytes message) {
  const bool is_add = message.size() >= kAdded && be8(message, kOfType) == kExperimenter &&
                      be32(message, kOfHeader) == kOnfExperimenter && be32(message, kExpType) == kAdd;
  return is_add ? message.subspan(kAdded) : Bytes{};
}

// ---- messages

Verdict Bundles::handle(Connection &connection, Bytes message) {
  const std::uint32_t type = be32(message, kExpType);
  if (type != kControl && type != kAdd) return refuse(err::kBadExperimenterType, "type", "not a message of the bundle extension");
  if (message.size() < kControlLength) return refuse(err::kBadLen, "bundle", "the message is shorter than its kind");
  if (connection.session().role == Role::slave) return refuse(err::kIsSlave, "bundle", "a slave may not change the switch");
  return type == kControl ? control(connection, message) : add(connection, message);
}

Verdict Bundles::control(Connection &connection, Bytes message) {
  static constexpr Control kControls[] = {
      {kOpen, &Bundles::open}, {kClose, &Bundles::close}, {kCommit, &Bundles::commit}, {kDiscard, &Bundles::discard}};
  const std::uint16_t type = be16(message, kType);
  const auto row = std::ranges::find(kControls, type, &Control::type);
  if (row == std::end(kControls)) return refuse(err::kBundleBadType, "type", "not one of the requests about a bundle");
  return (this->*row->handle)(connection, message);
}

Verdict Bundles::create(Connection &connection, Bytes message) {
  const std::uint16_t flags = be16(message, kFlags);
  if (flags & ~(kAtomic | kOrdered)) return refuse(err::kBundleBadFlags, "flags", "unknown flag");
  const auto first = open_.lower_bound({connection.generation(), 0}), last = open_.upper_bound({connection.generation(), ~0u});
  if (std::distance(first, last) >= kBundlesMax)
    return refuse(err::kOutOfBundles, "bundle", "the connection has too many open bundles");
  open_.emplace(key_of(connection, message), Bundle{flags, be32(message, kOfXid), sw_.now()});
  return {};
}

Verdict Bundles::open(Connection &connection, Bytes message) {
  if (open_.contains(key_of(connection, message))) return refuse(err::kBundleExists, "bundle", "this number is in use");
  if (const Verdict verdict = create(connection, message); verdict.refused()) return verdict;
  reply(connection, message);
  return {};
}

// The first message for a bundle may open it.
Verdict Bundles::add(Connection &connection, Bytes message) {
  if (!open_.contains(key_of(connection, message)))
    if (const Verdict verdict = create(connection, message); verdict.refused()) return verdict;
  Bundle &bundle = open_.at(key_of(connection, message));
  const Verdict verdict = put(message, bundle);
  bundle.spoiled |= verdict.refused();
  return verdict;
}

// A flow-mod that no state of the table could accept is refused at once.
Verdict Bundles::put(Bytes message, Bundle &bundle) {
  const Bytes added = message.subspan(kAdded);
  if (bundle.closed) return refuse(err::kBundleClosed, "bundle", "it is closed");
  if (be16(message, kFlags) != bundle.flags) return refuse(err::kBundleBadFlags, "flags", "not those it was opened with");
  if (added.size() < kOfHeader || be16(added, kOfLength) < kOfHeader || be16(added, kOfLength) > added.size())
    return refuse(err::kBundleBadLength, "message", "longer than the message that carries it");
  if (be32(added, kOfXid) != be32(message, kOfXid)) return refuse(err::kBundleBadXid, "xid", "not that of the message it is in");
  if (be8(added, 0) != kVersion || be8(added, kOfType) != kFlowModMsg)
    return refuse(err::kBundleUnsupported, "message", "only flow-mods can be in a bundle");
  const Bytes flow_mod = added.first(be16(added, kOfLength));
  if (bytes_ + flow_mod.size() > kBytesMax) return refuse(err::kBundleTooMany, "bundle", "there is no room for more messages");
  if (const Verdict verdict = decode_flow_mod(flow_mod, sw_.terms(), sw_.flow_mod); verdict.refused()) return verdict;
  bundle.messages.insert(bundle.messages.end(), flow_mod.begin(), flow_mod.end());
  bundle.used_ns = sw_.now();
  bytes_ += flow_mod.size();
  return {};
}

Verdict Bundles::close(Connection &connection, Bytes message) {
  const auto at = open_.find(key_of(connection, message));
  if (at == open_.end()) return refuse(err::kBundleBadId, "bundle", "no bundle has this number");
  if (at->second.closed) return refuse(err::kBundleClosed, "bundle", "it is closed already");
  at->second.closed = true;
  reply(connection, message);
  return {};
}

Verdict Bundles::discard(Connection &connection, Bytes message) {
  const auto at = open_.find(key_of(connection, message));
  if (at == open_.end()) return refuse(err::kBundleBadId, "bundle", "no bundle has this number");
  erase(at);
  reply(connection, message);
  return {};
}

Verdict Bundles::commit(Connection &connection, Bytes message) {
  const auto at = open_.find(key_of(connection, message));
  if (at == open_.end()) return refuse(err::kBundleBadId, "bundle", "no bundle has this number");
  const bool same_flags = at->second.flags == be16(message, kFlags), spoiled = at->second.spoiled;
  Commit begun{std::move(at->second), number_of(message), sw_.origin(connection, message)};
  bytes_ -= begun.bundle.messages.size();
  open_.erase(at);
  if (!same_flags) return refuse(err::kBundleBadFlags, "flags", "not those it was opened with");
  if (spoiled) return refuse(err::kBundleFailed, "bundle", "one of its messages was refused");
  commit_.emplace(std::move(begun));
  return {};
}

void Bundles::reply(Connection &connection, Bytes request) {
  Reply reply(sw_.scratch, kExperimenter, be32(request, kOfXid));
  reply.out.u32(kOnfExperimenter);
  reply.out.u32(kControl);
  reply.out.u32(number_of(request));
  reply.out.u16(be16(request, kType) + 1);
  reply.out.u16(be16(request, kFlags));
  reply.send(connection);
}

void Bundles::erase(std::map<Key, Bundle>::iterator at) {
  bytes_ -= at->second.messages.size();
  open_.erase(at);
}

void Bundles::forget(std::uint64_t generation) {
  for (auto at = open_.lower_bound({generation, 0}); at != open_.end() && at->first.first == generation;) erase(at++);
}

void Bundles::expire(std::int64_t now_ns) {
  for (auto at = open_.begin(); at != open_.end();) {
    const auto idle = at++;
    if (now_ns - idle->second.used_ns < kIdleLimit) continue;
    if (Connection *connection = sw_.controllers.find(idle->first.first))
      connection->send_error(err::kBundleTimeout, idle->second.xid, {});
    erase(idle);
  }
}

// ---- the commit

void Bundles::advance() {
  if (!commit_) return;
  const Trace::During during(sw_.trace, commit_->origin.request);
  while (commit_ && (this->*commit_->stage)()) {
  }
}

bool Bundles::settle() {
  if (sw_.replay.is_asked_or_running() || !sw_.flows.can_begin()) return false;
  sw_.flows.begin(sw_.now());
  commit_->stage = &Bundles::carry_out;
  return true;
}

bool Bundles::carry_out() {
  const Bytes messages = commit_->bundle.messages;
  while (commit_->next < messages.size() && commit_->keep && !sw_.flows.has_failed()) {
    if (!sw_.may_work()) return false;
    const Bytes rest = messages.subspan(commit_->next), message = rest.first(be16(rest, kOfLength));
    const auto &[generation, commit_xid, controller, commit_request] = commit_->origin;
    Trace &trace = sw_.trace;
    const Trace::During its_own(trace, trace.begin(Step::from_bundle, message, controller));
    const Verdict verdict = carry_out_flow_mod(sw_, {generation, be32(message, kOfXid), controller, trace.request()}, message);
    commit_->next += message.size();
    commit_->keep = !verdict.refused();
    Connection *connection = sw_.controllers.find(commit_->origin.generation);
    if (verdict.refused() && connection) sw_.refuse(*connection, verdict, message);
  }
  commit_->stage = &Bundles::wait;
  return true;
}

bool Bundles::wait() {
  const Flows &flows = sw_.flows;
  commit_->keep &= !flows.has_failed();
  if (commit_->keep && !flows.all_decided()) return false;
  commit_->stage = &Bundles::finish;
  return true;
}

bool Bundles::finish() {
  do {
    if (!sw_.may_work()) return false;
  } while (sw_.flows.end_more(commit_->keep, sw_.now()));
  answer();
  commit_.reset();
  return true;
}

void Bundles::answer() {
  Connection *connection = sw_.controllers.find(commit_->origin.generation);
  if (!connection) return;
  std::vector<std::byte> bytes;
  Reply request(bytes, kExperimenter, commit_->origin.xid);
  request.out.u32(kOnfExperimenter);
  request.out.u32(kControl);
  request.out.u32(commit_->number);
  request.out.u16(kCommit);
  request.out.u16(commit_->bundle.flags);
  if (commit_->keep)
    reply(*connection, request.finish());
  else
    sw_.refuse(*connection, refuse(err::kBundleFailed, "bundle", "one of its messages failed"), request.finish());
}

}  // namespace host::of_ss
