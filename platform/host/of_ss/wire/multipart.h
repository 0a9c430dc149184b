// Multipart messages (OpenFlow 1.3.5, 7.3.5): {header, type u16, flags u16, pad[4], body}.
#pragma once

#include <cstddef>
#include <cstdint>

namespace host::of_ss {

inline constexpr std::size_t kBody = 16;   // where the body of a request or reply begins
inline constexpr std::uint16_t kMore = 1;  // OFPMPF_REQ_MORE, OFPMPF_REPLY_MORE

enum MultipartType : std::uint16_t {
  kDesc,
  kFlow,
  kAggregate,
  kTable,
  kPort,
  kQueue,
  kGroupStats,
  kGroupDesc,
  kGroupFeatures,
  kMeter,
  kMeterConfig,
  kMeterFeatures,
  kTableFeatures,
  kPortDesc,
  kMultipartTypes,
  kExperimenterMultipart = 0xffff
};

}  // namespace host::of_ss
