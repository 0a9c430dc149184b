#include "host/of_ss/desired/southbound_client.h"

#include <algorithm>
#include <array>
#include <vector>

namespace host::of_ss {
namespace {

namespace sb = southbound;

// The table property in open and close messages, which the daemon echoes in its replies.
constexpr std::uint16_t kTableProperty = 1;

template <std::size_t N>
struct Message {
  alignas(8) std::array<std::byte, N> bytes{};
  explicit Message(sb::MsgType type) { sb::put_header(bytes.data(), type, kVersion, N, kTableProperty); }
  template <typename T>
  Message &with(std::size_t at, T value) {
    sb::put(bytes.data(), at, value);
    return *this;
  }
  std::byte *data() { return bytes.data(); }
};

}  // namespace

// The same bytes as the add, so that a trace of the delete shows the flow; the daemon reads only the index.
void SouthboundClient::remove(FlowEntry &flow) {
  sb::put(flow.message(), sb::kFlowCommand, sb::kFlowDelete);
  call(callbacks_.flow_mod, flow.message());
  sb::put(flow.message(), sb::kFlowCommand, sb::kFlowAdd);
}

void SouthboundClient::barrier(const BarrierTag &tag) {
  call(callbacks_.barrier, Message<sb::kBarrierLen>(sb::kBarrierRequest)
                               .with(sb::kBarrierConnId, tag.connection)
                               .with(sb::kBarrierXid, tag.xid)
                               .with(sb::kBarrierConnIp, tag.address)
                               .data());
}

void SouthboundClient::begin_sync() {
  call(callbacks_.ds_start, Message<sb::kHeaderLen>(sb::kDsStart).data());
}
void SouthboundClient::end_sync() {
  call(callbacks_.ds_end, Message<sb::kHeaderLen>(sb::kDsEnd).data());
}

void SouthboundClient::list_interfaces(sb::MsgType type, of_ss_msg_cb callback, std::span<const std::uint32_t> interfaces) {
  std::vector<std::byte> message(sb::kHeaderLen + interfaces.size_bytes());
  sb::put_header(message.data(), type, kVersion, static_cast<std::uint16_t>(message.size()), kTableProperty);
  std::ranges::copy(std::as_bytes(interfaces), message.begin() + sb::kHeaderLen);
  call(callback, message.data());
}

void SouthboundClient::ask_counters(std::uint64_t index) {
  call(callbacks_.statistic, Message<sb::kStatRequestLen>(sb::kStatRequest).with(sb::kStatIndex, index).data());
}

void SouthboundClient::configure_reports(std::uint32_t cells, std::uint32_t period_s) {
  call(callbacks_.flow_count,
       Message<sb::kCountLen>(sb::kFlowCountConfig).with(sb::kCountCells, cells).with(sb::kCountPeriod, period_s).data());
}

void SouthboundClient::packets(bool start) {
  call(start ? callbacks_.pkt_start : callbacks_.pkt_end, Message<sb::kHeaderLen>(start ? sb::kPktStart : sb::kPktEnd).data());
}

void SouthboundClient::controller(bool announce, std::uint32_t address) {
  call(callbacks_.onc_info, Message<sb::kOncLen>(sb::kOncInfo)
                                .with(sb::kOncCommand, static_cast<std::uint16_t>(announce ? 0 : 1))
                                .with(sb::kOncAddress, address)
                                .data());
}

BarrierTag barrier_tag(Bytes reply) {
  return {sb::get<std::uint8_t>(reply.data(), sb::kBarrierConnId), sb::get<std::uint32_t>(reply.data(), sb::kBarrierXid),
          sb::get<std::uint32_t>(reply.data(), sb::kBarrierConnIp)};
}

}  // namespace host::of_ss
