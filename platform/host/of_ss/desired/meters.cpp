#include "host/of_ss/desired/meters.h"

#include <algorithm>
#include <utility>

#include "host/of_ss/desired/results.h"

namespace host::of_ss {
namespace {

namespace sb = southbound;

// Offsets of the wire message; those of a band are the same in both layouts.
constexpr std::size_t kCommand = 8, kFlags = 10, kId = 12, kBands = 16;
constexpr std::size_t kBandType = 0, kBandLength = 2, kBandRate = 4, kBandBurst = 8, kBandPrecedence = 12;
enum Command : std::uint16_t { kAdd = 0, kModify = 1, kDelete = 2 };
constexpr std::uint8_t kDscpMax = 63;
constexpr std::size_t kRequestKept = 64;
constexpr std::int64_t kChangeLimit = 10'000'000'000;  // a later failure does not concern the change
// The daemon's result codes of a meter.
constexpr std::uint32_t kResultNoRoom = 0;

bool is_meter_number(std::uint32_t id) {
  return id != 0 && id <= kMeterMax;
}

Verdict check_flags(std::uint16_t flags) {
  if (flags & ~all_bits(kMeterFlags)) return refuse(err::kMeterBadFlags, "flags", "unknown flag");
  if ((flags & kMeterKbps) && (flags & kMeterPktps))
    return refuse(err::kMeterBadFlags, "flags", "rates are in kb/s or packets/s, not both");
  return {};
}

Verdict check_band(Bytes band) {
  const std::uint16_t type = be16(band, kBandType);
  if (std::ranges::find(kMeterBands, type, &Named::number) == std::end(kMeterBands))
    return refuse(err::kMeterBadBand, "band", "allowed are drop (1) and DSCP remark (2)");
  if (be32(band, kBandRate) == 0) return refuse(err::kMeterBadRate, "band", "a rate of 0");
  if (type == kBandDscpRemark && be8(band, kBandPrecedence) > kDscpMax)
    return refuse(err::kMeterBadBandValue, "band", "the precedence level is above 63");
  return {};
}

Verdict check_bands(Bytes bands, std::size_t most) {
  if (bands.size() / kBandLen > most)
    return refuse(err::kOutOfBands, "band", "more bands than a meter may have; kelimctl capabilities says how many");
  for (; !bands.empty(); bands = bands.subspan(kBandLen)) {
    if (bands.size() < kBandLen || be16(bands, kBandLength) != kBandLen)
      return refuse(err::kBadLen, "band", "the length of a band is not 16");
    if (const Verdict verdict = check_band(bands); verdict.refused()) return verdict;
  }
  return {};
}

std::vector<std::byte> southbound_meter(std::uint16_t command, Bytes request) {
  std::vector<std::byte> message(request.size());
  std::byte *at = message.data();
  sb::put_header(at, sb::kMeterMod, kVersion, static_cast<std::uint16_t>(message.size()), 0);
  sb::put(at, sb::kMeterCommand, command);
  sb::put(at, sb::kMeterFlags, be16(request, kFlags));
  sb::put(at, sb::kMeterId, be32(request, kId));
  for (std::size_t band = kBands; band + kBandLen <= request.size(); band += kBandLen) {
    sb::put(at, band + kBandType, be16(request, band + kBandType));
    sb::put(at, band + kBandLength, kBandLen);
    sb::put(at, band + kBandRate, be32(request, band + kBandRate));
    sb::put(at, band + kBandBurst, be32(request, band + kBandBurst));
    at[band + kBandPrecedence] = request[band + kBandPrecedence];
  }
  return message;
}

}  // namespace

Verdict Meters::apply(Bytes request, const Origin &origin, std::int64_t now) {
  const std::uint16_t command = be16(request, kCommand);
  const std::uint32_t id = be32(request, kId);
  if (command > kDelete) return refuse(err::kMeterBadCommand, "command", "unknown command");
  if (!is_meter_number(id) && !(command == kDelete && id == kMeterAll))
    return refuse(err::kInvalidMeter, "meter", "not the number of a meter, allowed are 1 to 0xffff0000");
  if (command == kDelete) {
    remove(id);
    return {};
  }
  if (const Verdict verdict = check_flags(be16(request, kFlags)); verdict.refused()) return verdict;
  if (const Verdict verdict = check_bands(request.subspan(kBands), target_.bands); verdict.refused()) return verdict;
  return command == kAdd ? add(id, request, origin, now) : modify(id, request, origin, now);
}

Verdict Meters::add(std::uint32_t id, Bytes request, const Origin &origin, std::int64_t now) {
  if (knows(id)) return refuse(err::kMeterExists, "meter", "there is a meter with this number");
  if (meters_.size() >= target_.meters) return refuse(err::kOutOfMeters, "meter", "there is no room for another meter");
  Meter &meter = meters_[id];
  meter.created_ns = now;
  hand_over(meter, request, origin);
  return {};
}

Verdict Meters::modify(std::uint32_t id, Bytes request, const Origin &origin, std::int64_t now) {
  const auto meter = meters_.find(id);
  if (meter == meters_.end()) return refuse(err::kUnknownMeter, "meter", "there is no meter with this number");
  meter->second.before = std::move(meter->second.message);
  meter->second.changed_ns = now;
  hand_over(meter->second, request, origin);
  return {};
}

// An add under an existing number rewrites the meter.
void Meters::hand_over(Meter &meter, Bytes request, const Origin &origin) {
  meter.message = southbound_meter(sb::kMeterAdd, request);
  meter.origin = origin;
  const Bytes kept = request.first(std::min(request.size(), kRequestKept));
  meter.request.assign(kept.begin(), kept.end());
  tell(meter.message);
  meter.handed = flows_.in_flight().handed();
}

void Meters::tell(std::vector<std::byte> &message) {
  flows_.client().meter(message.data());
  flows_.note_handover();
}

void Meters::tell_deletion(Meter &meter) {
  sb::put(meter.message.data(), sb::kMeterCommand, sb::kMeterDelete);
  tell(meter.message);
}

// Deliberate: deleting a missing meter is not an error.
void Meters::remove(std::uint32_t id) {
  const auto first = id == kMeterAll ? meters_.begin() : meters_.find(id);
  const auto last = id == kMeterAll || first == meters_.end() ? meters_.end() : std::next(first);
  if (first == last) return;
  flows_.remove_users_of_meter(id);
  for (auto at = first; at != last; at = meters_.erase(at)) tell_deletion(at->second);
}

// "No room" means that the database did not accept the record. After any other failure the record may exist, with the failure as
// its status: it is overwritten or deleted, so that neither a restart nor the next request finds it.
std::optional<Meters::Failure> Meters::result(Bytes reply, std::int64_t now) {
  const auto found = meters_.find(sb::get<std::uint32_t>(reply.data(), sb::kMeterResultId));
  if (found == meters_.end()) return std::nullopt;
  auto &[id, meter] = *found;
  const auto code = sb::get<std::uint32_t>(reply.data(), sb::kMeterResultCode);
  // A replayed meter without a requester: it stays, and the synchronisation that follows hands it over again.
  if (code & kUndecided && flows_.in_flight().decided() >= meter.handed) return std::nullopt;
  const bool no_room = (code & ~kUndecided) == kResultNoRoom;
  Failure failure{meter.origin, no_room ? &err::kOutOfMeters : &err::kMeterUnknown, std::move(meter.request)};
  meter.origin = {};
  meter.request.clear();
  if (!meter.before.empty() && now - meter.changed_ns < kChangeLimit) {
    meter.message = std::exchange(meter.before, {});
    if (!no_room) tell(meter.message);
    return failure;
  }
  flows_.fail_users_of_meter(id);
  if (!no_room) tell_deletion(meter);
  meters_.erase(found);
  return failure;
}

void Meters::replay() {
  for (auto &[id, meter] : meters_) tell(meter.message);
}

void Meters::delete_stray(std::uint32_t id) {
  if (knows(id)) return;
  std::vector<std::byte> message(sb::kMeterBands);
  sb::put_header(message.data(), sb::kMeterMod, kVersion, sb::kMeterBands, 0);
  sb::put(message.data(), sb::kMeterCommand, sb::kMeterDelete);
  sb::put(message.data(), sb::kMeterId, id);
  tell(message);
}

bool Meters::restore(Bytes message, std::int64_t now) {
  if (message.size() < sb::kMeterBands || message.size() > sb::kMeterBands + std::size_t{kMaxBands} * kBandLen ||
      (message.size() - sb::kMeterBands) % kBandLen)
    return false;
  if (sb::get<std::uint16_t>(message.data(), sb::kType) != sb::kMeterMod ||
      sb::get<std::uint16_t>(message.data(), sb::kLen) != message.size())
    return false;
  const auto id = sb::get<std::uint32_t>(message.data(), sb::kMeterId);
  if (!is_meter_number(id)) return false;
  Meter &meter = meters_[id];
  meter.message.assign(message.begin(), message.end());
  meter.created_ns = now;
  return true;
}

}  // namespace host::of_ss
