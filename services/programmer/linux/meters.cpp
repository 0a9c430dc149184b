#include "programmer/linux/meters.h"

#include <algorithm>
#include <atomic>

namespace programmer::dataplane {
namespace {

constexpr std::uint64_t kNs = 1'000'000'000;
constexpr std::uint64_t kBytesAKilobit = 125;
// What passes at once where no burst was given: enough for a sender that waits 200 ms for what was lost, and for some frames.
constexpr std::uint64_t kBurstNs = kNs / 4;
constexpr std::uint64_t kBurstFrames = 4, kFrameBytes = 1518;

dp_band schedule_of(const Band &band, bool packets) {
  dp_band out{};
  out.type = band.type == BandType::kDrop ? DP_BAND_DROP : DP_BAND_REMARK;
  out.precedence = band.precedence;
  const std::uint64_t units = packets ? 1 : kBytesAKilobit;  // bytes or packets of one unit of the rate
  out.cost = ((kNs << DP_COST_SHIFT) / units + band.rate / 2) / band.rate;
  const std::uint64_t frames = kBurstFrames * (packets ? 1 : kFrameBytes);
  out.burst = band.burst != 0 ? std::uint64_t{band.burst} * kNs / band.rate
                              : std::max<std::uint64_t>(kBurstNs, (frames * out.cost) >> DP_COST_SHIFT);
  return out;
}

}  // namespace

Meters::Meters(dp_meter *meters) : meters_(meters) {
  for (std::uint16_t place = DP_MAX_METERS; place-- > 0;) free_.push_back(place);
}

Meters::Known *Meters::know(std::uint32_t id) {
  if (const auto found = known_.find(id); found != known_.end()) return &found->second;
  if (free_.empty()) return nullptr;
  Known &known = known_[id];
  known.place = free_.back();
  free_.pop_back();
  meters_[known.place] = {};
  return &known;
}

void Meters::forget_unused(std::uint32_t id) {
  const auto found = known_.find(id);
  if (found->second.set || found->second.flows != 0) return;
  free_.push_back(found->second.place);
  known_.erase(found);
}

// While the bands are written the meter has none, so everything passes for some hundred nanoseconds.
bool Meters::set(std::uint32_t id, const Bands &bands) {
  if (bands.bands.size() > DP_MAX_BANDS) return false;
  Known *known = know(id);
  if (known == nullptr) return false;
  if (!known->set) ++set_;
  known->set = true;
  dp_meter &meter = meters_[known->place];
  std::atomic_ref(meter.bands).store(0, std::memory_order_release);
  meter.counts_packets = bands.packets ? 1 : 0;
  std::ranges::transform(bands.bands, meter.band, [&](const Band &band) { return schedule_of(band, bands.packets); });
  std::atomic_ref(meter.bands).store(static_cast<__u32>(bands.bands.size()), std::memory_order_release);
  return true;
}

void Meters::remove(std::uint32_t id) {
  const auto found = known_.find(id);
  if (found == known_.end() || !found->second.set) return;
  found->second.set = false;
  --set_;
  std::atomic_ref(meters_[found->second.place].bands).store(0, std::memory_order_release);
  forget_unused(id);
}

std::uint16_t Meters::use(std::uint32_t id) {
  Known *known = know(id);
  if (known == nullptr) return 0;
  ++known->flows;
  return static_cast<std::uint16_t>(known->place + 1);
}

void Meters::release(std::uint32_t id) {
  --known_.at(id).flows;
  forget_unused(id);
}

}  // namespace programmer::dataplane
