// Layout of the messages between the OpenFlow service library and the daemon.
//
// Messages are little-endian, as in memory. Offsets are in bytes from the start of the message. Every message begins with the
// 8-byte header {type, ver, len, table}, four 16-bit words; `len` is the whole message. The accessors copy, so a message needs no
// alignment; readers of a message from elsewhere must check its length first.
//
// In C++ everything is in the namespace southbound (southbound::kFlowIndex); in C the names carry it as a prefix
// (southbound_kFlowIndex).
#pragma once

#include <assert.h>
#include <stddef.h>
#include <stdint.h>
#include <string.h>

#ifdef __cplusplus
#include <cstddef>
#include <cstdint>
#include <cstring>

#define SOUTHBOUND_NAME(name) name
#define SOUTHBOUND_ENUM(name, type) enum name : type
#define SOUTHBOUND_NUMBER(type, name, value) inline constexpr type name = value
#define SOUTHBOUND_WIDE_NUMBER(type, name, value) inline constexpr type name = value
#define SOUTHBOUND_FUNCTION constexpr
#else
#define SOUTHBOUND_NAME(name) southbound_##name
#define SOUTHBOUND_ENUM(name, type) enum southbound_##name
#define SOUTHBOUND_NUMBER(type, name, value) enum { southbound_##name = (value) }
#define SOUTHBOUND_WIDE_NUMBER(type, name, value) static const type southbound_##name = (value)  // more than an enumerator holds
#define SOUTHBOUND_FUNCTION static inline
#endif

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "southbound messages are laid out little-endian, as in memory");

#ifdef __cplusplus
namespace southbound {
#endif

// Message types.
SOUTHBOUND_ENUM(MsgType, uint16_t){
    SOUTHBOUND_NAME(kOpen) = 6,              // {header, ifx[]}: a controller is connected; ver and table are echoed in replies
    SOUTHBOUND_NAME(kClose) = 7,             // {header, ifx[]}: the last controller has disconnected
    SOUTHBOUND_NAME(kFlowMod) = 10,          // see below
    SOUTHBOUND_NAME(kFlowResult) = 11,       // reply: a flow failed
    SOUTHBOUND_NAME(kStatRequest) = 13,      // {header, flow index}; all ones asks for every flow
    SOUTHBOUND_NAME(kStatReply) = 14,        // reply: counters of one flow
    SOUTHBOUND_NAME(kMeterMod) = 17,         // see below
    SOUTHBOUND_NAME(kMeterResult) = 18,      // reply: a meter failed
    SOUTHBOUND_NAME(kMgmtIfx) = 24,          // {header, ifx[]}: the management interfaces
    SOUTHBOUND_NAME(kFlowCountConfig) = 26,  // {header, cells a packed report, period in seconds}
    SOUTHBOUND_NAME(kPackedReport) = 27,     // reply: {header, cell[]}, counter changes
    SOUTHBOUND_NAME(kPktStart) = 28,         // {header}: packets to the controller may flow
    SOUTHBOUND_NAME(kPktEnd) = 29,           // {header}
    SOUTHBOUND_NAME(kOncInfo) = 30,          // see below: a controller address
    SOUTHBOUND_NAME(kBarrierRequest) = 31,   // see below
    SOUTHBOUND_NAME(kBarrierReply) = 32,     // reply: the request with this type
    SOUTHBOUND_NAME(kDsStart) = 33,          // {header}: a data synchronisation begins
    SOUTHBOUND_NAME(kDsEnd) = 34,            // {header}
    SOUTHBOUND_NAME(kCapacity) = 36,         // reply: the number of flows that fit
};

// Header of every message.
SOUTHBOUND_NUMBER(size_t, kType, 0);
SOUTHBOUND_NUMBER(size_t, kVer, 2);
SOUTHBOUND_NUMBER(size_t, kLen, 4);
SOUTHBOUND_NUMBER(size_t, kTable, 6);
SOUTHBOUND_NUMBER(size_t, kHeaderLen, 8);

// Barrier request and reply: {header, conn_id u8, pad[7], xid u32, conn_ip u32}.
SOUTHBOUND_NUMBER(size_t, kBarrierConnId, 8);
SOUTHBOUND_NUMBER(size_t, kBarrierXid, 16);
SOUTHBOUND_NUMBER(size_t, kBarrierConnIp, 20);
SOUTHBOUND_NUMBER(size_t, kBarrierLen, 24);

// Flow-mod. The daemon reads index, priority, command, meter id and everything from byte 40 on; the rest belongs to the library,
// which can thus rebuild its flow entry from a stored record.
SOUTHBOUND_NUMBER(size_t, kFlowIndex, 8);          // u64, never 0 or all ones, never reused
SOUTHBOUND_NUMBER(size_t, kFlowCookie, 16);        // u64, library
SOUTHBOUND_NUMBER(size_t, kFlowPriority, 24);      // u16
SOUTHBOUND_NUMBER(size_t, kFlowFlags, 26);         // u16, library: OFPFF_*
SOUTHBOUND_NUMBER(size_t, kFlowCommand, 28);       // u8: 0 add, other delete
SOUTHBOUND_NUMBER(size_t, kFlowTableId, 29);       // u8, library
SOUTHBOUND_NUMBER(size_t, kFlowInstructions, 30);  // u8, library: which instructions the flow came with
SOUTHBOUND_NUMBER(size_t, kFlowApplied, 31);       // u8, library: how many of the actions came with APPLY_ACTIONS
SOUTHBOUND_NUMBER(size_t, kFlowMeterId, 32);       // u32, 0 none
SOUTHBOUND_NUMBER(size_t, kFlowIdleTimeout, 36);   // u16, library, seconds
SOUTHBOUND_NUMBER(size_t, kFlowHardTimeout, 38);   // u16, library, seconds
SOUTHBOUND_NUMBER(size_t, kFlowMatchType, 40);     // u16
SOUTHBOUND_NUMBER(size_t, kFlowMatchLen, 42);      // u16, sum of the slots
SOUTHBOUND_NUMBER(size_t, kFlowOxm, 44);           // match fields, each in a slot

SOUTHBOUND_NUMBER(uint8_t, kFlowAdd, 0);
SOUTHBOUND_NUMBER(uint8_t, kFlowDelete, 1);

// A match field is a 32-bit OXM header (OpenFlow 1.3.5, 7.2.3.2) in host order, value and mask in host order, padded to a slot.
SOUTHBOUND_FUNCTION size_t SOUTHBOUND_NAME(oxm_slot)(uint32_t header) {
  return ((size_t)4 + (header & 0xff) + 7) & ~(size_t)7;
}

// Offset of the instruction block {i32 length of the actions, u32 created} behind a match of `match_len` bytes; the actions
// follow the block. A flow that ends where the block would begin has none, and would match without doing anything: the library
// always writes one. `created`, in Unix seconds and 0 if unknown, belongs to the library.
SOUTHBOUND_FUNCTION size_t SOUTHBOUND_NAME(flow_instruction_offset)(uint16_t match_len) {
  return SOUTHBOUND_NAME(kFlowMatchType) + (((size_t)match_len + 11) & ~(size_t)7);
}
SOUTHBOUND_NUMBER(size_t, kInstructionLen, 8);
SOUTHBOUND_NUMBER(size_t, kInstructionCreated, 4);

// An action is {u16 type, u16 length, body}; the next one begins at the length rounded up to 8. Types are OpenFlow's
// (1.3.5, 7.2.4).
SOUTHBOUND_NUMBER(size_t, kActionType, 0);
SOUTHBOUND_NUMBER(size_t, kActionLen, 2);
SOUTHBOUND_NUMBER(size_t, kActionBody, 4);
SOUTHBOUND_NUMBER(size_t, kActionValue, 8);
SOUTHBOUND_FUNCTION size_t SOUTHBOUND_NAME(action_step)(uint16_t len) {
  return ((size_t)len + 7) & 0x1fff8;
}

// A group that the flow refers to: {type 22, length 16, group u32, length u32, 0}. The actions of its buckets follow in `length`
// bytes. The entry itself has no effect.
SOUTHBOUND_NUMBER(size_t, kActionGroupBytes, 8);
SOUTHBOUND_NUMBER(size_t, kActionGroupLen, 16);

// The service-chain application's type and the match field that carries it (experimenter class, without the experimenter id).
SOUTHBOUND_WIDE_NUMBER(uint32_t, kOxmExpAppType, 0xffff0204);
SOUTHBOUND_NUMBER(uint32_t, kServiceChainAppType, 3);

// Meter-mod: {header, command u16, flags u16, meter id u32, bands}. The bands are OpenFlow's (1.3.5, 7.3.4.4) in host order.
SOUTHBOUND_NUMBER(size_t, kMeterCommand, 8);
SOUTHBOUND_NUMBER(size_t, kMeterFlags, 10);
SOUTHBOUND_NUMBER(size_t, kMeterId, 12);
SOUTHBOUND_NUMBER(size_t, kMeterBands, 16);
SOUTHBOUND_NUMBER(uint16_t, kMeterAdd, 0);
SOUTHBOUND_NUMBER(uint16_t, kMeterModify, 1);
SOUTHBOUND_NUMBER(uint16_t, kMeterDelete, 2);

// Statistics request and reply.
SOUTHBOUND_NUMBER(size_t, kStatIndex, 8);
SOUTHBOUND_NUMBER(size_t, kStatRequestLen, 16);
SOUTHBOUND_NUMBER(size_t, kStatPackets, 16);
SOUTHBOUND_NUMBER(size_t, kStatBytes, 24);
SOUTHBOUND_NUMBER(size_t, kStatStatus, 32);
SOUTHBOUND_NUMBER(size_t, kStatReplyLen, 40);
SOUTHBOUND_WIDE_NUMBER(uint64_t, kAllFlows, UINT64_MAX);

// Flow-count configuration.
SOUTHBOUND_NUMBER(size_t, kCountCells, 8);
SOUTHBOUND_NUMBER(size_t, kCountPeriod, 12);
SOUTHBOUND_NUMBER(size_t, kCountLen, 16);

// Controller address: {header, command u16, pad, address u32}; 0 announces, 1 withdraws. The first octet of the dotted form is
// the least significant byte of the address.
SOUTHBOUND_NUMBER(size_t, kOncCommand, 8);
SOUTHBOUND_NUMBER(size_t, kOncAddress, 12);
SOUTHBOUND_NUMBER(size_t, kOncLen, 16);

// Flow result: {header, index u64, result u32, 0}. Result 1: out of hardware resources; 2: any other failure.
SOUTHBOUND_NUMBER(size_t, kFlowResultCode, 16);
SOUTHBOUND_NUMBER(size_t, kFlowResultLen, 24);
SOUTHBOUND_NUMBER(uint32_t, kResultResource, 1);
SOUTHBOUND_NUMBER(uint32_t, kResultFailed, 2);

// Meter result: {header, meter id u32, result u32}.
SOUTHBOUND_NUMBER(size_t, kMeterResultId, 8);
SOUTHBOUND_NUMBER(size_t, kMeterResultCode, 12);
SOUTHBOUND_NUMBER(size_t, kMeterResultLen, 16);

// Capacity: {header, u32 1, 0, 0, flows u32}.
SOUTHBOUND_NUMBER(size_t, kCapacityFlows, 20);
SOUTHBOUND_NUMBER(size_t, kCapacityLen, 24);

// Packed report: cells of {index u64, packets u64, bytes u64}.
SOUTHBOUND_NUMBER(size_t, kCells, 8);
SOUTHBOUND_NUMBER(size_t, kCellLen, 24);

#ifdef __cplusplus

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

#else

#define SOUTHBOUND_ACCESSORS(suffix, type)                                           \
  static inline type southbound_get_##suffix(const void *msg, size_t offset) {       \
    type value;                                                                      \
    memcpy(&value, (const unsigned char *)msg + offset, sizeof value);               \
    return value;                                                                    \
  }                                                                                  \
  static inline void southbound_put_##suffix(void *msg, size_t offset, type value) { \
    memcpy((unsigned char *)msg + offset, &value, sizeof value);                     \
  }
SOUTHBOUND_ACCESSORS(u8, uint8_t)
SOUTHBOUND_ACCESSORS(u16, uint16_t)
SOUTHBOUND_ACCESSORS(u32, uint32_t)
SOUTHBOUND_ACCESSORS(u64, uint64_t)
#undef SOUTHBOUND_ACCESSORS

static inline void southbound_put_header(void *msg, uint16_t type, uint16_t ver, uint16_t len, uint16_t table) {
  southbound_put_u16(msg, southbound_kType, type);
  southbound_put_u16(msg, southbound_kVer, ver);
  southbound_put_u16(msg, southbound_kLen, len);
  southbound_put_u16(msg, southbound_kTable, table);
}

#endif

#undef SOUTHBOUND_NAME
#undef SOUTHBOUND_ENUM
#undef SOUTHBOUND_NUMBER
#undef SOUTHBOUND_WIDE_NUMBER
#undef SOUTHBOUND_FUNCTION
