#include "host/of_ss/agent/replies.h"

#include <algorithm>

#include "host/log/log.h"
#include "host/of_ss/desired/results.h"

namespace host::of_ss {
namespace {

namespace sb = southbound;

}  // namespace

struct DaemonReplies::Row {
  std::uint16_t type;
  std::size_t min_length;
  void (*take)(DaemonReplies &replies, Bytes message);
};

const DaemonReplies::Row *DaemonReplies::row_of(std::uint16_t type) {
  static constexpr Row kReplies[] = {
      {sb::kFlowResult, sb::kFlowResultLen, [](DaemonReplies &r, Bytes m) { r.flows().flow_result(m, r.switch_.now()); }},
      {kFlowAnswer, sb::kFlowResultLen, [](DaemonReplies &r, Bytes m) { r.flows().flow_answer(m, r.switch_.now()); }},
      {sb::kStatReply, sb::kStatReplyLen, [](DaemonReplies &r, Bytes m) { r.take_counters(m); }},
      {kFlowIdle, sb::kStatReplyLen, [](DaemonReplies &r, Bytes m) { r.take_idle(m); }},
      {sb::kMeterResult, sb::kMeterResultLen, [](DaemonReplies &r, Bytes m) { r.take_meter_result(m); }},
      {sb::kPackedReport, sb::kHeaderLen, [](DaemonReplies &r, Bytes m) { r.take_report(m); }},
      {sb::kBarrierReply, sb::kBarrierLen, [](DaemonReplies &r, Bytes m) { r.flows().barrier_reply(m, r.switch_.now()); }},
      {sb::kCapacity, sb::kCapacityLen,
       [](DaemonReplies &r, Bytes m) { r.flows().capacity(sb::get<std::uint32_t>(m.data(), sb::kCapacityFlows)); }},
  };
  const auto *row = std::ranges::find(kReplies, type, &Row::type);
  return row == std::end(kReplies) ? nullptr : row;
}

void DaemonReplies::take(Bytes message) {
  const auto type = sb::get<std::uint16_t>(message.data(), sb::kType);
  const Row *row = row_of(type);
  if (row && message.size() >= row->min_length) return row->take(*this, message);
  log::warn("a reply of type {} and length {} from the daemon is not known", type, message.size());
}

void DaemonReplies::take_meter_result(Bytes message) {
  if (const auto failure = switch_.meters.result(message, switch_.now()))
    events_.flow_failed(failure->origin, *failure->error, failure->request);
}

void DaemonReplies::take_counters(Bytes message) {
  const std::byte *at = message.data();
  if (sb::get<std::uint32_t>(at, sb::kStatStatus) != 0) return;
  flows().counted(sb::get<std::uint64_t>(at, sb::kStatIndex), sb::get<std::uint64_t>(at, sb::kStatPackets),
                  sb::get<std::uint64_t>(at, sb::kStatBytes));
}

void DaemonReplies::take_idle(Bytes message) {
  take_counters(message);
  flows().idle(sb::get<std::uint64_t>(message.data(), sb::kStatIndex));
}

void DaemonReplies::take_report(Bytes message) {
  const std::byte *at = message.data();
  for (std::size_t cell = sb::kCells; cell + sb::kCellLen <= message.size(); cell += sb::kCellLen)
    flows().count_more(sb::get<std::uint64_t>(at, cell), sb::get<std::uint64_t>(at, cell + 8),
                       sb::get<std::uint64_t>(at, cell + 16));
}

}  // namespace host::of_ss
