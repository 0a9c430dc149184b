#include "programmer/linux/executor.h"

#include <time.h>

#include <algorithm>
#include <atomic>
#include <iterator>

#include "programmer/linux/keys.h"
#include "programmer/linux/meter.h"

namespace programmer::dataplane {
namespace {

enum : std::uint32_t {  // 7.2.1
  kFirstReserved = 0xffffff00,
  kInPort = 0xfffffff8,
  kTable = 0xfffffff9,
  kFlood = 0xfffffffb,
  kAll = 0xfffffffc,
  kController = 0xfffffffd
};

std::uint64_t now_ns() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<std::uint64_t>(now.tv_sec) * 1'000'000'000 + static_cast<std::uint64_t>(now.tv_nsec);
}

}  // namespace

// Processing ends at the first action that cannot be carried out; earlier outputs have been sent.
void Executor::run(const ss_pkt_out &packet) {
  const auto *frame = static_cast<const std::uint8_t *>(packet.frame);
  packet_.frame.assign(frame, frame + packet.frame_len);
  packet_.in_port = packet.in_port;
  packet_.queue = 0;
  const bool readable = !read_actions({static_cast<const std::byte *>(packet.actions), packet.actions_len}, actions_);
  if (packet.actions_len == 0) ++nowhere_;
  const bool done = std::ranges::all_of(actions_, [this](const Action &action) { return carry_out(action); });
  if (!done || !readable) ++refused_;
}

bool Executor::carry_out(const Action &action) {
  return action.type == Action::kOutput ? output(action.number) : take_step(step_of(action));
}

bool Executor::take_step(const dp_step &step) {
  if (step.kind != DP_STEP_QUEUE) return rewrite(packet_.frame, step);
  packet_.queue = step.value;
  return true;
}

bool Executor::output(std::uint32_t number) {
  if (number < kFirstReserved) return to_port(number, false);
  if (number == kInPort) return to_port(packet_.in_port, true);
  if (number == kAll || number == kFlood) return to_all();
  if (number == kTable) return through_table();
  if (number != kController) return false;
  to_controller(~std::uint64_t{0}, 0, SS_PKT_ACTION);
  return true;
}

// ---- outputs

// A packet leaves by its ingress port only if the action is IN_PORT.
bool Executor::to_port(std::uint32_t number, bool also_back) {
  const dp_port *begin = plane_.ports, *end = begin + DP_MAX_PORTS;
  const dp_port *port = std::find_if(begin, end, [number](const dp_port &p) { return p.number == number; });
  if (number == 0 || port == end || (!also_back && number == packet_.in_port)) return false;
  sender_.send(static_cast<std::uint32_t>(port - begin), packet_.frame, packet_.queue);
  return true;
}

bool Executor::to_all() {
  const dp_port *ports = plane_.ports;
  for (std::uint32_t place = 0; place < DP_MAX_PORTS && ports[place].number != 0; ++place)
    if (ports[place].number != packet_.in_port) sender_.send(place, packet_.frame, packet_.queue);
  return true;
}

void Executor::to_controller(std::uint64_t cookie, std::uint8_t table, std::uint8_t reason) {
  to_controller_({.cookie = cookie, .in_port = packet_.in_port, .table = table, .reason = reason}, packet_.frame);
}

// ---- the table

// Does in user space what the program does with a received packet. The flow is copied, because after the grace period its place
// may hold another one.
bool Executor::through_table() {
  dp_headers headers;
  const dp_key key = key_of(packet_.frame, packet_.in_port, headers);
  const dp_tables &tables = plane_.tables;
  dp_tally &tally = *plane_.tally;
  dp_flow flow{};
  {
    const Grace::Reading reading(grace_);
    const __u64 current = std::atomic_ref(tables.control->current).load(std::memory_order_acquire);
    const std::uint32_t place =
        dp_search_all(&tables, tables.control, current, reinterpret_cast<const dp_word *>(&key), key.eth_type);
    dp_count_more(tally.looked_up, 1);
    if (place == 0) return ++nowhere_, true;
    dp_count_more(tally.matched, 1);
    flow = *dp_flow_at(&tables, place - 1);
    dp_count_more(tally.matched_in_1, dp_table_of(&flow));
    copy_list(flow.actions.list);
    count(place - 1);
  }
  return follow(flow);
}

// Counts in the last row of the counters, which belongs to no processor.
void Executor::count(std::uint32_t place) {
  const dp_tables &tables = plane_.tables;
  dp_count &cell = tables.counts[std::size_t{tables.rows - 1} * tables.places + place];
  dp_count_more(cell.packets, 1);
  dp_count_more(cell.bytes, packet_.frame.size());
}

bool Executor::follow(const dp_flow &flow) {
  if (!pass_meter(flow)) {
    dp_count_more(plane_.tally->metered, 1);
    return ++nowhere_, true;
  }
  if (flow.actions.list != 0) return follow_list(flow);
  if (!rewrite(packet_.frame, flow.actions)) return false;
  if ((flow.actions.sets & DP_SET_QUEUE) != 0) packet_.queue = flow.actions.queue;
  return finish(flow, flow.actions.output, flow.actions.port);
}

void Executor::copy_list(std::uint32_t first) {
  list_.clear();
  for (std::uint32_t at = first; at != 0 && at <= DP_MAX_STEPS && list_.size() < DP_LIST_STEPS; at = list_.back().next)
    list_.push_back(plane_.tables.steps[at - 1]);
}

bool Executor::follow_list(const dp_flow &flow) {
  return std::ranges::all_of(list_, [&](const dp_step &step) {
    return step.kind == DP_STEP_OUTPUT ? finish(flow, step.output, step.port) : take_step(step);
  });
}

bool Executor::pass_meter(const dp_flow &flow) {
  if (flow.actions.meter == 0 || flow.actions.meter > DP_MAX_METERS) return true;
  dp_meter &meter = plane_.meters[flow.actions.meter - 1];
  const dp_verdict verdict = dp_meter_packet(&meter, now_ns(), 1, static_cast<__u32>(packet_.frame.size()));
  dp_headers headers;
  const dp_key key = key_of(packet_.frame, 0, headers);
  if (verdict.type == DP_BAND_REMARK && headers.l3 != 0) {
    dp_actions remark{};
    remark.sets = DP_SET_DSCP, remark.dscp = dp_remark(key.dscp, verdict.precedence);
    rewrite(packet_.frame, remark);
  }
  return verdict.type != DP_BAND_DROP;
}

// NORMAL is refused: a packet from user space cannot be handed to the machine's own network stack as if it had been received.
bool Executor::finish(const dp_flow &flow, std::uint8_t output, std::uint8_t port) {
  switch (output) {
    case DP_PORT:
      return to_port(plane_.ports[port].number, false);
    case DP_IN_PORT:
      return to_port(packet_.in_port, true);
    case DP_ALL:
      return to_all();
    case DP_CONTROLLER:
      to_controller(flow.cookie, dp_table_of(&flow), flow.actions.miss != 0 ? SS_PKT_NO_MATCH : SS_PKT_ACTION);
      return true;
    case DP_NORMAL:
      return false;
    default:
      return ++nowhere_, true;
  }
}

}  // namespace programmer::dataplane
