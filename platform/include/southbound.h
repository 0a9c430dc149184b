// Layout of the messages between the OpenFlow service library and the daemon.
//
// Little-endian, as laid in memory. Offsets are in bytes from the start of the message. Every message begins with the 8-byte
// header {type, ver, len, table}, four 16-bit words; `len` is the whole message. The accessors copy, so a message needs no
// alignment; who reads one that came from elsewhere checks its length first.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

static_assert(std::endian::native == std::endian::little, "southbound messages are laid out little-endian, as in memory");

namespace southbound {

// Message types.
enum MsgType : std::uint16_t {
  kOpen = 6,              // {header, ifx[]}: a controller is there; ver and table are echoed in replies
  kClose = 7,             // {header, ifx[]}: the last controller has gone
  kFlowMod = 10,          // see below
  kFlowResult = 11,       // reply: a flow failed
  kStatRequest = 13,      // {header, flow index}; all ones asks for every flow
  kStatReply = 14,        // reply: counters of one flow
  kMeterMod = 17,         // see below
  kMeterResult = 18,      // reply: a meter failed
  kMgmtIfx = 24,          // {header, ifx[]}: the management interfaces
  kFlowCountConfig = 26,  // {header, cells a packed report, period in seconds}
  kPackedReport = 27,     // reply: {header, cell[]}, counter changes
  kPktStart = 28,         // {header}: packets to the controller may flow
  kPktEnd = 29,           // {header}
  kOncInfo = 30,          // see below: a controller address
  kBarrierRequest = 31,   // see below
  kBarrierReply = 32,     // reply: the request with this type
  kDsStart = 33,          // {header}: a data synchronisation begins
  kDsEnd = 34,            // {header}
  kCapacity = 36,         // reply: how many flows there is room for
};

// Header of every message.
inline constexpr std::size_t kType = 0, kVer = 2, kLen = 4, kTable = 6, kHeaderLen = 8;

// Barrier request and reply: {header, conn_id u8, pad[7], xid u32, conn_ip u32}.
inline constexpr std::size_t kBarrierConnId = 8, kBarrierXid = 16, kBarrierConnIp = 20, kBarrierLen = 24;

// Flow-mod. The daemon reads index, priority, command, meter id and all from byte 40 on; the rest is the library's own, kept so
// that a stored flow can be turned back into the entry it came from.
inline constexpr std::size_t kFlowIndex = 8;          // u64, never 0 or all ones, never reused
inline constexpr std::size_t kFlowCookie = 16;        // u64, library
inline constexpr std::size_t kFlowPriority = 24;      // u16
inline constexpr std::size_t kFlowFlags = 26;         // u16, library: OFPFF_*
inline constexpr std::size_t kFlowCommand = 28;       // u8: 0 add, other delete
inline constexpr std::size_t kFlowTableId = 29;       // u8, library
inline constexpr std::size_t kFlowInstructions = 30;  // u8, library: which instructions the flow came with
inline constexpr std::size_t kFlowApplied = 31;       // u8, library: how many of the actions came with APPLY_ACTIONS
inline constexpr std::size_t kFlowMeterId = 32;       // u32, 0 none
inline constexpr std::size_t kFlowIdleTimeout = 36;   // u16, library, seconds
inline constexpr std::size_t kFlowHardTimeout = 38;   // u16, library, seconds
inline constexpr std::size_t kFlowMatchType = 40;     // u16
inline constexpr std::size_t kFlowMatchLen = 42;      // u16, sum of the slots
inline constexpr std::size_t kFlowOxm = 44;           // match fields, each in a slot

inline constexpr std::uint8_t kFlowAdd = 0, kFlowDelete = 1;

// A match field is a 32-bit OXM header (OpenFlow 1.3.5, 7.2.3.2) in host order, value and mask in host order, padded to a slot.
inline constexpr std::size_t oxm_slot(std::uint32_t header) {
  return (4 + (header & 0xff) + 7) & ~std::size_t{7};
}

// The instruction block {i32 length of the actions, u32 created} that follows a match of `match_len` bytes; the actions follow it. A
// flow that ends where the block would begin has none, and would match without doing anything: the library always writes one.
// When the flow was created, in Unix seconds, is the library's own; 0 when that is not known.
inline constexpr std::size_t flow_instruction_offset(std::uint16_t match_len) {
  return kFlowMatchType + ((static_cast<std::size_t>(match_len) + 11) & ~std::size_t{7});
}
inline constexpr std::size_t kInstructionLen = 8, kInstructionCreated = 4;

// An action is {u16 type, u16 length, body}; the next one begins at the length rounded up to 8. Types are OpenFlow's
// (1.3.5, 7.2.4).
inline constexpr std::size_t kActionType = 0, kActionLen = 2, kActionBody = 4, kActionValue = 8;
inline constexpr std::size_t action_step(std::uint16_t len) {
  return (static_cast<std::size_t>(len) + 7) & 0x1fff8;
}

// The service-chain application's type and the match field that carries it (experimenter class, without the experimenter id).
inline constexpr std::uint32_t kOxmExpAppType = 0xffff0204;
inline constexpr std::uint32_t kServiceChainAppType = 3;

// Meter-mod: {header, command u16, flags u16, meter id u32, bands}. The bands are OpenFlow's (1.3.5, 7.3.4.4) in host order.
inline constexpr std::size_t kMeterCommand = 8, kMeterFlags = 10, kMeterId = 12, kMeterBands = 16;
inline constexpr std::uint16_t kMeterAdd = 0, kMeterModify = 1, kMeterDelete = 2;

// Statistics request and reply.
inline constexpr std::size_t kStatIndex = 8, kStatRequestLen = 16;
inline constexpr std::size_t kStatPackets = 16, kStatBytes = 24, kStatStatus = 32, kStatReplyLen = 40;
inline constexpr std::uint64_t kAllFlows = ~std::uint64_t{0};

// Flow-count configuration.
inline constexpr std::size_t kCountCells = 8, kCountPeriod = 12, kCountLen = 16;

// Controller address: {header, command u16, pad, address u32}; 0 announces, 1 withdraws. The first octet of the dotted form is
// the least significant byte of the address.
inline constexpr std::size_t kOncCommand = 8, kOncAddress = 12, kOncLen = 16;

// Flow result: {header, index u64, result u32, 0}. Result 1: out of hardware resources; 2: any other failure.
inline constexpr std::size_t kFlowResultCode = 16, kFlowResultLen = 24;
inline constexpr std::uint32_t kResultResource = 1, kResultFailed = 2;

// Meter result: {header, meter id u32, result u32}.
inline constexpr std::size_t kMeterResultId = 8, kMeterResultCode = 12, kMeterResultLen = 16;

// Capacity: {header, u32 1, 0, 0, flows u32}.
inline constexpr std::size_t kCapacityFlows = 20, kCapacityLen = 24;

// Packed report: cells of {index u64, packets u64, bytes u64}.
inline constexpr std::size_t kCells = 8, kCellLen = 24;

template <typename T>
T get(const void *msg, std::size_t offset) {
  T value;
  std::memcpy(&value, static_cast<const std::byte *>(msg) + offset, sizeof value);
  return value;
}

template <typename T>
void put(void *msg, std::size_t offset, T value) {
  std::memcpy(static_cast<std::byte *>(msg) + offset, &value, sizeof value);
}

inline void put_header(void *msg, std::uint16_t type, std::uint16_t ver, std::uint16_t len, std::uint16_t table) {
  put(msg, kType, type);
  put(msg, kVer, ver);
  put(msg, kLen, len);
  put(msg, kTable, table);
}

}  // namespace southbound
