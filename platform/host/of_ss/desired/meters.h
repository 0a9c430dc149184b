// The desired meters, and the decoding of OFPT_METER_MOD into the southbound meter-mod. Openflow thread only.
//
// Wire layout: OpenFlow 1.3.5, 7.3.4.4; southbound layout: southbound.h.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <vector>

#include "host/of_ss/desired/flows.h"
#include "host/of_ss/wire/wire.h"

namespace host::of_ss {

inline constexpr std::uint16_t kBandLen = 16;
enum MeterBand : std::uint16_t { kBandDrop = 1, kBandDscpRemark = 2 };
inline constexpr Named kMeterBands[] = {{kBandDrop, "drop"}, {kBandDscpRemark, "dscp_remark"}};
enum MeterFlag : std::uint16_t { kMeterKbps = 1, kMeterPktps = 2, kMeterBurst = 4, kMeterStats = 8 };
inline constexpr Named kMeterFlags[] = {
    {kMeterKbps, "kbps"}, {kMeterPktps, "pktps"}, {kMeterBurst, "burst"}, {kMeterStats, "stats"}};

struct Meter {
  std::vector<std::byte> message;  // the southbound meter-mod that adds it
  std::vector<std::byte> before;   // the one in force before the latest change; empty if there was none
  std::int64_t created_ns = 0, changed_ns = 0;
  Origin origin;                   // of the latest request, until its failure is reported
  std::vector<std::byte> request;  // its first bytes, for the error
  std::uint64_t handed = 0;        // number of that request's hand-over

  std::uint16_t flags() const { return southbound::get<std::uint16_t>(message.data(), southbound::kMeterFlags); }
  Bytes bands() const { return Bytes(message).subspan(southbound::kMeterBands); }
};

class Meters {
 public:
  // `target` bounds the meters and their bands.
  Meters(Flows &flows, const TargetCapabilities &target) : flows_(flows), target_(target) {}

  // Carries out a meter-mod; deleting a meter also deletes the flows that use it.
  Verdict apply(Bytes request, const Origin &origin, std::int64_t now);
  // Processes a failure reply of the daemon; returns the failed request and its error if its controller can still be told. A
  // failed change restores the meter; any other failure removes it with the flows that use it.
  struct Failure {
    Origin origin;
    const Error *error;
    std::vector<std::byte> request;
  };
  std::optional<Failure> result(Bytes reply, std::int64_t now);
  // Hands every meter to the daemon again.
  void replay();
  // Deletes what is stored under this number, unless a meter of this number is desired.
  void delete_stray(std::uint32_t id);
  // Adopts a stored meter of an earlier run.
  bool restore(Bytes message, std::int64_t now);
  // Drops every meter without telling the daemon.
  void forget() { meters_.clear(); }

  bool knows(std::uint32_t id) const { return meters_.contains(id); }
  const std::map<std::uint32_t, Meter> &all() const { return meters_; }

 private:
  Verdict add(std::uint32_t id, Bytes request, const Origin &origin, std::int64_t now);
  Verdict modify(std::uint32_t id, Bytes request, const Origin &origin, std::int64_t now);
  void remove(std::uint32_t id);
  void hand_over(Meter &meter, Bytes request, const Origin &origin);
  void tell(std::vector<std::byte> &message);
  void tell_deletion(Meter &meter);

  Flows &flows_;
  const TargetCapabilities &target_;
  std::map<std::uint32_t, Meter> meters_;
};

}  // namespace host::of_ss
