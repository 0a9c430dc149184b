#include "programmer/linux/meters.h"

#include <algorithm>
#include <atomic>
#include <span>

#include "programmer/linux/memory.h"

namespace programmer::dataplane {
namespace {

constexpr std::uint64_t kNs = 1'000'000'000;
constexpr std::uint64_t kBytesAKilobit = 125;
// The burst of a band that gives none: a quarter second, because a sender may wait 200 ms before it retransmits, but no less than
// a few frames.
constexpr std::uint64_t kBurstNs = kNs / 4;
constexpr std::uint64_t kBurstFrames = 4, kFrameBytes = 1518;

dp_band schedule_of(const Band &band, bool packets) {
  dp_band out{};
  out.type = band.type == BandType::drop ? DP_BAND_DROP : DP_BAND_REMARK;
  out.precedence = band.precedence;
  const std::uint64_t units = packets ? 1 : kBytesAKilobit;  // packets or bytes in one unit of the rate
  out.cost = ((kNs << DP_COST_SHIFT) / units + band.rate / 2) / band.rate;
  const std::uint64_t frames = kBurstFrames * (packets ? 1 : kFrameBytes);
  out.burst = band.burst != 0 ? std::uint64_t{band.burst} * kNs / band.rate
                              : std::max<std::uint64_t>(kBurstNs, (frames * out.cost) >> DP_COST_SHIFT);
  return out;
}

// True if the meter already has these bands.
bool is(const dp_meter &meter, const Bands &bands) {
  const auto same = [&](const dp_band &now, const Band &wanted) {
    const dp_band other = schedule_of(wanted, bands.packets);
    return now.type == other.type && now.precedence == other.precedence && now.cost == other.cost && now.burst == other.burst;
  };
  return meter.counts_packets == (bands.packets ? 1 : 0) &&
         std::ranges::equal(std::span(meter.band, meter.bands), bands.bands, same);
}

}  // namespace

Meters::Meters(dp_meter *meters) : meters_(meters) {
  for (std::uint16_t place = DP_MAX_METERS; place-- > 0;) {
    const std::uint32_t id = meters[place].id;
    const bool inherited = id != 0 && known_.try_emplace(id, Known{place, false, 0, true}).second;
    if (!inherited) free_.push_back(place);
  }
}

Meters::Known *Meters::know(std::uint32_t id) {
  if (const auto found = known_.find(id); found != known_.end()) return &found->second;
  if (free_.empty()) return nullptr;
  Known &known = known_[id];
  known.place = free_.back();
  free_.pop_back();
  meters_[known.place] = {};
  meters_[known.place].id = id;
  return &known;
}

void Meters::forget_unused(std::uint32_t id) {
  const auto found = known_.find(id);
  if (found->second.set || found->second.inherited || found->second.flows != 0) return;
  meters_[found->second.place].id = 0;
  free_.push_back(found->second.place);
  known_.erase(found);
}

// The meter has no bands while they are written, so that everything passes for some hundred nanoseconds.
bool Meters::set(std::uint32_t id, const Bands &bands) {
  if (bands.bands.size() > DP_MAX_BANDS) return false;
  Known *known = know(id);
  if (!known) return false;
  if (!known->set) ++set_;
  known->set = true;
  known->inherited = false;
  dp_meter &meter = meters_[known->place];
  if (is(meter, bands)) return true;
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
  silence(found->second.place);
  forget_unused(id);
}

void Meters::silence(std::uint16_t place) {
  std::atomic_ref(meters_[place].bands).store(0, std::memory_order_release);
}

void Meters::drop_inherited() {
  std::vector<std::uint32_t> ids;
  for (const auto &[id, known] : known_)
    if (known.inherited) ids.push_back(id);
  for (const std::uint32_t id : ids) {
    known_[id].inherited = false;
    silence(known_[id].place);
    forget_unused(id);
  }
}

void Meters::tell(std::vector<ss_pkt_statistic> &statistics) const {
  for (const auto &[id, known] : known_) {
    if (!known.set) continue;
    dp_meter &meter = meters_[known.place];
    const auto add = [&, number = id](std::uint32_t kind, std::uint32_t part, auto &counted) {
      statistics.push_back({kind, number, part, 0, dp_counted(counted.packets), dp_counted(counted.bytes), 0});
    };
    add(SS_PKT_METER, 0, meter);
    for (std::uint32_t band = 0; band < meter.bands; ++band) add(SS_PKT_BAND, band, meter.band[band]);
  }
}

std::uint16_t Meters::use(std::uint32_t id) {
  Known *known = know(id);
  if (!known) return 0;
  ++known->flows;
  return static_cast<std::uint16_t>(known->place + 1);
}

void Meters::release(std::uint32_t id) {
  --known_.at(id).flows;
  forget_unused(id);
}

}  // namespace programmer::dataplane
