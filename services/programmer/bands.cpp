#include "programmer/bands.h"

#include <algorithm>

#include "southbound.h"

namespace programmer {
namespace {

namespace sb = southbound;

constexpr std::uint16_t kPackets = 2, kBurst = 4;  // flags
constexpr std::size_t kBandLen = 16, kBandRate = 4, kBandBurst = 8, kBandPrecedence = 12;

}  // namespace

bool read_bands(Bytes meter_data, Bands &out) {
  out = {};
  if (meter_data.size() < sb::kMeterBands || (meter_data.size() - sb::kMeterBands) % kBandLen != 0) return false;
  const auto flags = sb::get<std::uint16_t>(meter_data.data(), sb::kMeterFlags);
  out.packets = (flags & kPackets) != 0;
  for (Bytes rest = meter_data.subspan(sb::kMeterBands); !rest.empty(); rest = rest.subspan(kBandLen)) {
    const Band band{sb::get<BandType>(rest.data(), 0), sb::get<std::uint32_t>(rest.data(), kBandRate),
                    (flags & kBurst) != 0 ? sb::get<std::uint32_t>(rest.data(), kBandBurst) : 0, rest[kBandPrecedence]};
    if ((band.type != BandType::drop && band.type != BandType::remark) || band.rate == 0) return false;
    out.bands.push_back(band);
  }
  std::ranges::stable_sort(out.bands, std::ranges::greater{}, &Band::rate);
  return true;
}

}  // namespace programmer
