// OpenFlow 1.3.5 on the wire: numbers, big-endian reads and writes. No state, any thread.
#pragma once

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <string_view>
#include <vector>

namespace host::of_ss {

using Bytes = std::span<const std::byte>;

// std::ranges::equal compares byte by byte.
inline bool same_bytes(Bytes a, Bytes b) {
  return a.size() == b.size() && (a.empty() || std::memcmp(a.data(), b.data(), a.size()) == 0);
}

// ---- reading; the caller has checked that the bytes exist

template <typename T>
T load_be(const std::byte *at) {
  T value;
  std::memcpy(&value, at, sizeof value);
  if constexpr (sizeof(T) == 2) return __builtin_bswap16(value);
  if constexpr (sizeof(T) == 4) return __builtin_bswap32(value);
  if constexpr (sizeof(T) == 8) return __builtin_bswap64(value);
  return value;
}

inline std::uint8_t be8(Bytes b, std::size_t at) {
  return static_cast<std::uint8_t>(b[at]);
}
inline std::uint16_t be16(Bytes b, std::size_t at) {
  return load_be<std::uint16_t>(b.data() + at);
}
inline std::uint32_t be32(Bytes b, std::size_t at) {
  return load_be<std::uint32_t>(b.data() + at);
}
inline std::uint64_t be64(Bytes b, std::size_t at) {
  return load_be<std::uint64_t>(b.data() + at);
}

// ---- writing: appends to a vector that the caller keeps and reuses

class Writer {
 public:
  explicit Writer(std::vector<std::byte> &out) : out_(out) {}

  std::size_t size() const { return out_.size(); }
  void u8(std::uint8_t v) { out_.push_back(std::byte{v}); }
  void u16(std::uint16_t v) { put(__builtin_bswap16(v)); }
  void u32(std::uint32_t v) { put(__builtin_bswap32(v)); }
  void u64(std::uint64_t v) { put(__builtin_bswap64(v)); }
  void zeros(std::size_t n) { out_.resize(out_.size() + n); }
  void bytes(Bytes b) { out_.insert(out_.end(), b.begin(), b.end()); }
  // `text` in a field of `width` bytes, cut so that a terminating zero remains.
  void text(std::string_view text, std::size_t width) {
    const std::size_t n = text.size() < width ? text.size() : width - 1;
    bytes(std::as_bytes(std::span(text.data(), n)));
    zeros(width - n);
  }
  // Zeros up to the next multiple of 8 counted from `start`.
  void pad8(std::size_t start) { zeros((8 - (size() - start) % 8) % 8); }
  void patch16(std::size_t at, std::size_t v) {
    const std::uint16_t be = __builtin_bswap16(static_cast<std::uint16_t>(v));
    std::memcpy(out_.data() + at, &be, sizeof be);
  }

 private:
  template <typename T>
  void put(T v) {
    bytes(std::as_bytes(std::span(&v, 1)));
  }
  std::vector<std::byte> &out_;
};

// ---- header (7.1): version u8, type u8, length u16, xid u32

inline constexpr std::uint8_t kVersion = 4;
inline constexpr std::size_t kOfHeader = 8, kMaxMessage = 65535;
inline constexpr std::size_t kOfType = 1, kOfLength = 2, kOfXid = 4;

enum OfType : std::uint8_t {
  kHello = 0,
  kError = 1,
  kEchoRequest = 2,
  kEchoReply = 3,
  kExperimenter = 4,
  kFeaturesRequest = 5,
  kFeaturesReply = 6,
  kGetConfigRequest = 7,
  kGetConfigReply = 8,
  kSetConfig = 9,
  kPacketIn = 10,
  kFlowRemoved = 11,
  kPortStatus = 12,
  kPacketOut = 13,
  kFlowModMsg = 14,
  kGroupMod = 15,
  kPortMod = 16,
  kTableMod = 17,
  kMultipartRequest = 18,
  kMultipartReply = 19,
  kBarrierRequestMsg = 20,
  kBarrierReplyMsg = 21,
  kQueueGetConfigRequest = 22,
  kQueueGetConfigReply = 23,
  kRoleRequest = 24,
  kRoleReply = 25,
  kGetAsyncRequest = 26,
  kGetAsyncReply = 27,
  kSetAsync = 28,
  kMeterModMsg = 29,
  kTypeCount = 30,
};

// ---- ports (7.2.1), tables, other reserved numbers

namespace port {
inline constexpr std::uint32_t kMax = 0xffffff00, kInPort = 0xfffffff8, kTable = 0xfffffff9, kNormal = 0xfffffffa,
                               kFlood = 0xfffffffb, kAll = 0xfffffffc, kController = 0xfffffffd, kLocal = 0xfffffffe,
                               kAny = 0xffffffff;
}
inline constexpr std::uint32_t kGroupMax = 0xffffff00, kGroupAll = 0xfffffffc, kGroupAny = 0xffffffff;
inline constexpr std::uint32_t kMeterMax = 0xffff0000, kMeterController = 0xfffffffe, kMeterAll = 0xffffffff;
inline constexpr std::uint32_t kOnfExperimenter = 0x4f4e4600, kNiciraExperimenter = 0x00002320;
inline constexpr std::uint32_t kNoBuffer = 0xffffffff;
inline constexpr std::uint8_t kTableAll = 0xff;
inline constexpr std::uint8_t kTableCount = 2;         // 0 ordinary flows, 1 service-chain flows
inline constexpr std::uint8_t kServiceChainTable = 1;  // its flows carry the service-chain application's type southbound

// A number and its name.
struct Named {
  std::uint16_t number;
  const char *name;
};
template <std::size_t N>
constexpr std::uint16_t all_bits(const Named (&flags)[N]) {
  unsigned bits = 0;
  for (const Named &flag : flags) bits |= flag.number;
  return static_cast<std::uint16_t>(bits);
}

// ---- flow-mod (7.3.4.1): offsets in the message

namespace fm {
inline constexpr std::size_t kCookie = 8, kCookieMask = 16, kTableId = 24, kCommand = 25, kIdle = 26, kHard = 28, kPriority = 30,
                             kBufferId = 32, kOutPort = 36, kOutGroup = 40, kFlags = 44, kMatch = 48, kMinLength = 56;
enum Command : std::uint8_t { kAdd = 0, kModify = 1, kModifyStrict = 2, kDelete = 3, kDeleteStrict = 4 };
enum Flag : std::uint16_t { kSendFlowRem = 1, kCheckOverlap = 2, kResetCounts = 4, kNoPacketCounts = 8, kNoByteCounts = 16 };
inline constexpr Named kFlagNames[] = {{kSendFlowRem, "send_flow_rem"},
                                       {kCheckOverlap, "check_overlap"},
                                       {kResetCounts, "reset_counts"},
                                       {kNoPacketCounts, "no_packet_counts"},
                                       {kNoByteCounts, "no_byte_counts"}};
inline constexpr std::uint16_t kKnownFlags = all_bits(kFlagNames);
}  // namespace fm

enum InstructionType : std::uint16_t {
  kGotoTable = 1,
  kWriteMetadata = 2,
  kWriteActions = 3,
  kApplyActions = 4,
  kClearActions = 5,
  kMeterInstruction = 6,
  kInstructionExperimenter = 0xffff,
};

enum ActionType : std::uint16_t {
  kOutput = 0,
  kPushVlan = 17,
  kPopVlan = 18,
  kSetQueue = 21,
  kGroup = 22,
  kSetNwTtl = 23,
  kDecNwTtl = 24,
  kSetField = 25,
  kActionExperimenter = 0xffff,
};

enum RemovedReason : std::uint8_t { kIdleTimeout = 0, kHardTimeout = 1, kDeleted = 2, kGroupDelete = 3 };

// ---- errors (7.4.1): each row holds type, code and the name used in texts

// OFPET_EXPERIMENTER.
inline constexpr std::uint16_t kExperimenterError = 0xffff;

struct Error {
  std::uint16_t type;
  std::uint16_t code;
  const char *name;
  std::uint32_t experimenter = kOnfExperimenter;  // of a kExperimenterError
};

// Every error that is sent: its name here, then type, code, name in OpenFlow. Those at the end belong to bundles and flow
// monitors; OpenFlow 1.3 has no numbers for errors of monitors, so these are the ones that ovs-ofctl knows.
#define KELIM_OPENFLOW_ERRORS(ROW)                                                          \
  ROW(kIncompatible, 0, 0, "OFPHFC_INCOMPATIBLE")                                           \
  ROW(kBadVersion, 1, 0, "OFPBRC_BAD_VERSION")                                              \
  ROW(kBadType, 1, 1, "OFPBRC_BAD_TYPE")                                                    \
  ROW(kBadMultipart, 1, 2, "OFPBRC_BAD_MULTIPART")                                          \
  ROW(kBadExperimenter, 1, 3, "OFPBRC_BAD_EXPERIMENTER")                                    \
  ROW(kBadExperimenterType, 1, 4, "OFPBRC_BAD_EXP_TYPE")                                    \
  ROW(kBadLen, 1, 6, "OFPBRC_BAD_LEN")                                                      \
  ROW(kBufferUnknown, 1, 8, "OFPBRC_BUFFER_UNKNOWN")                                        \
  ROW(kRequestBadTable, 1, 9, "OFPBRC_BAD_TABLE_ID")                                        \
  ROW(kRequestEperm, 1, 5, "OFPBRC_EPERM")                                                  \
  ROW(kIsSlave, 1, 10, "OFPBRC_IS_SLAVE")                                                   \
  ROW(kRequestBadPort, 1, 11, "OFPBRC_BAD_PORT")                                            \
  ROW(kMultipartOverflow, 1, 13, "OFPBRC_MULTIPART_BUFFER_OVERFLOW")                        \
  ROW(kBadAction, 2, 0, "OFPBAC_BAD_TYPE")                                                  \
  ROW(kActionBadLen, 2, 1, "OFPBAC_BAD_LEN")                                                \
  ROW(kActionBadExperimenter, 2, 2, "OFPBAC_BAD_EXPERIMENTER")                              \
  ROW(kBadOutPort, 2, 4, "OFPBAC_BAD_OUT_PORT")                                             \
  ROW(kBadArgument, 2, 5, "OFPBAC_BAD_ARGUMENT")                                            \
  ROW(kTooMany, 2, 7, "OFPBAC_TOO_MANY")                                                    \
  ROW(kBadQueue, 2, 8, "OFPBAC_BAD_QUEUE")                                                  \
  ROW(kBadOutGroup, 2, 9, "OFPBAC_BAD_OUT_GROUP")                                           \
  ROW(kMatchInconsistent, 2, 10, "OFPBAC_MATCH_INCONSISTENT")                               \
  ROW(kUnsupportedOrder, 2, 11, "OFPBAC_UNSUPPORTED_ORDER")                                 \
  ROW(kBadSetType, 2, 13, "OFPBAC_BAD_SET_TYPE")                                            \
  ROW(kBadSetLen, 2, 14, "OFPBAC_BAD_SET_LEN")                                              \
  ROW(kBadSetArgument, 2, 15, "OFPBAC_BAD_SET_ARGUMENT")                                    \
  ROW(kUnknownInstruction, 3, 0, "OFPBIC_UNKNOWN_INST")                                     \
  ROW(kUnsupportedInstruction, 3, 1, "OFPBIC_UNSUP_INST")                                   \
  ROW(kInstructionBadTable, 3, 2, "OFPBIC_BAD_TABLE_ID")                                    \
  ROW(kUnsupportedMetadata, 3, 3, "OFPBIC_UNSUP_METADATA")                                  \
  ROW(kInstructionExperimenterUnknown, 3, 5, "OFPBIC_BAD_EXPERIMENTER")                     \
  ROW(kInstructionBadLen, 3, 7, "OFPBIC_BAD_LEN")                                           \
  ROW(kMatchBadType, 4, 0, "OFPBMC_BAD_TYPE")                                               \
  ROW(kMatchBadLen, 4, 1, "OFPBMC_BAD_LEN")                                                 \
  ROW(kBadWildcards, 4, 5, "OFPBMC_BAD_WILDCARDS")                                          \
  ROW(kBadField, 4, 6, "OFPBMC_BAD_FIELD")                                                  \
  ROW(kBadValue, 4, 7, "OFPBMC_BAD_VALUE")                                                  \
  ROW(kBadMask, 4, 8, "OFPBMC_BAD_MASK")                                                    \
  ROW(kBadPrereq, 4, 9, "OFPBMC_BAD_PREREQ")                                                \
  ROW(kDupField, 4, 10, "OFPBMC_DUP_FIELD")                                                 \
  ROW(kFlowModUnknown, 5, 0, "OFPFMFC_UNKNOWN")                                             \
  ROW(kTableFull, 5, 1, "OFPFMFC_TABLE_FULL")                                               \
  ROW(kBadTableId, 5, 2, "OFPFMFC_BAD_TABLE_ID")                                            \
  ROW(kOverlap, 5, 3, "OFPFMFC_OVERLAP")                                                    \
  ROW(kBadCommand, 5, 6, "OFPFMFC_BAD_COMMAND")                                             \
  ROW(kBadFlags, 5, 7, "OFPFMFC_BAD_FLAGS")                                                 \
  ROW(kGroupExists, 6, 0, "OFPGMFC_GROUP_EXISTS")                                           \
  ROW(kInvalidGroup, 6, 1, "OFPGMFC_INVALID_GROUP")                                         \
  ROW(kOutOfGroups, 6, 3, "OFPGMFC_OUT_OF_GROUPS")                                          \
  ROW(kOutOfBuckets, 6, 4, "OFPGMFC_OUT_OF_BUCKETS")                                        \
  ROW(kChaining, 6, 5, "OFPGMFC_CHAINING_UNSUPPORTED")                                      \
  ROW(kUnknownGroup, 6, 8, "OFPGMFC_UNKNOWN_GROUP")                                         \
  ROW(kGroupBadType, 6, 10, "OFPGMFC_BAD_TYPE")                                             \
  ROW(kGroupBadCommand, 6, 11, "OFPGMFC_BAD_COMMAND")                                       \
  ROW(kBadBucket, 6, 12, "OFPGMFC_BAD_BUCKET")                                              \
  ROW(kPortModBadPort, 7, 0, "OFPPMFC_BAD_PORT")                                            \
  ROW(kPortModBadHwAddr, 7, 1, "OFPPMFC_BAD_HW_ADDR")                                       \
  ROW(kPortModBadConfig, 7, 2, "OFPPMFC_BAD_CONFIG")                                        \
  ROW(kPortModBadAdvertise, 7, 3, "OFPPMFC_BAD_ADVERTISE")                                  \
  ROW(kPortModEperm, 7, 4, "OFPPMFC_EPERM")                                                 \
  ROW(kTableModBadTable, 8, 0, "OFPTMFC_BAD_TABLE")                                         \
  ROW(kTableModBadConfig, 8, 1, "OFPTMFC_BAD_CONFIG")                                       \
  ROW(kQueueBadPort, 9, 0, "OFPQOFC_BAD_PORT")                                              \
  ROW(kQueueBadQueue, 9, 1, "OFPQOFC_BAD_QUEUE")                                            \
  ROW(kConfigBadFlags, 10, 0, "OFPSCFC_BAD_FLAGS")                                          \
  ROW(kRoleStale, 11, 0, "OFPRRFC_STALE")                                                   \
  ROW(kRoleBad, 11, 2, "OFPRRFC_BAD_ROLE")                                                  \
  ROW(kMeterUnknown, 12, 0, "OFPMMFC_UNKNOWN")                                              \
  ROW(kMeterExists, 12, 1, "OFPMMFC_METER_EXISTS")                                          \
  ROW(kInvalidMeter, 12, 2, "OFPMMFC_INVALID_METER")                                        \
  ROW(kUnknownMeter, 12, 3, "OFPMMFC_UNKNOWN_METER")                                        \
  ROW(kMeterBadCommand, 12, 4, "OFPMMFC_BAD_COMMAND")                                       \
  ROW(kMeterBadFlags, 12, 5, "OFPMMFC_BAD_FLAGS")                                           \
  ROW(kMeterBadRate, 12, 6, "OFPMMFC_BAD_RATE")                                             \
  ROW(kMeterBadBand, 12, 8, "OFPMMFC_BAD_BAND")                                             \
  ROW(kMeterBadBandValue, 12, 9, "OFPMMFC_BAD_BAND_VALUE")                                  \
  ROW(kOutOfMeters, 12, 10, "OFPMMFC_OUT_OF_METERS")                                        \
  ROW(kOutOfBands, 12, 11, "OFPMMFC_OUT_OF_BANDS")                                          \
  ROW(kTableFeaturesEperm, 13, 5, "OFPTFFC_EPERM")                                          \
  ROW(kBundleBadId, kExperimenterError, 2302, "OFPBFC_BAD_ID")                              \
  ROW(kBundleExists, kExperimenterError, 2303, "OFPBFC_BUNDLE_EXIST")                       \
  ROW(kBundleClosed, kExperimenterError, 2304, "OFPBFC_BUNDLE_CLOSED")                      \
  ROW(kOutOfBundles, kExperimenterError, 2305, "OFPBFC_OUT_OF_BUNDLES")                     \
  ROW(kBundleBadType, kExperimenterError, 2306, "OFPBFC_BAD_TYPE")                          \
  ROW(kBundleBadFlags, kExperimenterError, 2307, "OFPBFC_BAD_FLAGS")                        \
  ROW(kBundleBadLength, kExperimenterError, 2308, "OFPBFC_MSG_BAD_LEN")                     \
  ROW(kBundleBadXid, kExperimenterError, 2309, "OFPBFC_MSG_BAD_XID")                        \
  ROW(kBundleUnsupported, kExperimenterError, 2310, "OFPBFC_MSG_UNSUP")                     \
  ROW(kBundleTooMany, kExperimenterError, 2312, "OFPBFC_MSG_TOO_MANY")                      \
  ROW(kBundleFailed, kExperimenterError, 2313, "OFPBFC_MSG_FAILED")                         \
  ROW(kBundleTimeout, kExperimenterError, 2314, "OFPBFC_TIMEOUT")                           \
  ROW(kMonitorExists, kExperimenterError, 6, "OFPMOFC_MONITOR_EXISTS", kNiciraExperimenter) \
  ROW(kMonitorBadFlags, kExperimenterError, 7, "OFPMOFC_BAD_FLAGS", kNiciraExperimenter)    \
  ROW(kUnknownMonitor, kExperimenterError, 8, "OFPMOFC_UNKNOWN_MONITOR", kNiciraExperimenter)

namespace err {
#define KELIM_DEFINE_ERROR(name, ...) inline constexpr Error name{__VA_ARGS__};
KELIM_OPENFLOW_ERRORS(KELIM_DEFINE_ERROR)
#undef KELIM_DEFINE_ERROR
#define KELIM_ERROR_ADDRESS(name, ...) &name,
inline constexpr const Error *kAll[] = {KELIM_OPENFLOW_ERRORS(KELIM_ERROR_ADDRESS)};
#undef KELIM_ERROR_ADDRESS
}  // namespace err

// The outcome of a check: the error to answer with, the part of the request at fault and the reason in words (both literals).
// Without an error the request is accepted.
struct Verdict {
  const Error *error = nullptr;
  const char *what = "";
  const char *why = "";
  bool refused() const { return error != nullptr; }
};

inline Verdict refuse(const Error &error, const char *what, const char *why) {
  return {&error, what, why};
}

}  // namespace host::of_ss
