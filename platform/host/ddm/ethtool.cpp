#include "host/ddm/ethtool.h"

#include <linux/ethtool.h>
#include <linux/if.h>
#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <initializer_list>
#include <span>

namespace host::ddm {
namespace {

enum Feature : std::uint32_t {
  k10Half = 1 << 0,
  k10Full = 1 << 1,
  k100Half = 1 << 2,
  k100Full = 1 << 3,
  k1000Half = 1 << 4,
  k1000Full = 1 << 5,
  k10000Full = 1 << 6,
  k40000Full = 1 << 7,
  k100000Full = 1 << 8,
  k1000000Full = 1 << 9,
  kOther = 1 << 10,
  kCopper = 1 << 11,
  kFiber = 1 << 12,
  kAutonegotiation = 1 << 13,
  kPause = 1 << 14,
  kAsymmetricPause = 1 << 15,
};

struct Speed {
  std::uint32_t mbps, half, full;
};
constexpr Speed kSpeeds[] = {{10, k10Half, k10Full},         {100, k100Half, k100Full},   {1000, k1000Half, k1000Full},
                             {10000, kOther, k10000Full},    {40000, kOther, k40000Full}, {100000, kOther, k100000Full},
                             {1000000, kOther, k1000000Full}};

// The meaning of ethtool's link modes; missing bits are speeds without a name in OpenFlow.
struct Mode {
  std::uint32_t feature;
  std::initializer_list<unsigned> bits;
};
#define MODE(name) ETHTOOL_LINK_MODE_##name##_BIT
constexpr Mode kModes[] = {
    {k10Half, {MODE(10baseT_Half)}},
    {k10Full, {MODE(10baseT_Full)}},
    {k100Half, {MODE(100baseT_Half), MODE(100baseFX_Half)}},
    {k100Full, {MODE(100baseT_Full), MODE(100baseT1_Full), MODE(100baseFX_Full)}},
    {k1000Half, {MODE(1000baseT_Half)}},
    {k1000Full, {MODE(1000baseT_Full), MODE(1000baseKX_Full), MODE(1000baseX_Full), MODE(1000baseT1_Full)}},
    {k10000Full,
     {MODE(10000baseT_Full), MODE(10000baseKX4_Full), MODE(10000baseKR_Full), MODE(10000baseR_FEC), MODE(10000baseCR_Full),
      MODE(10000baseSR_Full), MODE(10000baseLR_Full), MODE(10000baseLRM_Full), MODE(10000baseER_Full)}},
    {k40000Full, {MODE(40000baseKR4_Full), MODE(40000baseCR4_Full), MODE(40000baseSR4_Full), MODE(40000baseLR4_Full)}},
    {k100000Full,
     {MODE(100000baseKR4_Full), MODE(100000baseSR4_Full), MODE(100000baseCR4_Full), MODE(100000baseLR4_ER4_Full),
      MODE(100000baseKR2_Full), MODE(100000baseSR2_Full), MODE(100000baseCR2_Full), MODE(100000baseLR2_ER2_FR2_Full),
      MODE(100000baseDR2_Full), MODE(100000baseKR_Full), MODE(100000baseSR_Full), MODE(100000baseLR_ER_FR_Full),
      MODE(100000baseCR_Full), MODE(100000baseDR_Full)}},
    {kCopper, {MODE(TP)}},
    {kFiber, {MODE(FIBRE)}},
    {kAutonegotiation, {MODE(Autoneg)}},
    {kPause, {MODE(Pause)}},
    {kAsymmetricPause, {MODE(Asym_Pause)}},
    {0, {MODE(AUI), MODE(MII), MODE(BNC), MODE(Backplane), MODE(FEC_NONE), MODE(FEC_RS), MODE(FEC_BASER), MODE(FEC_LLRS)}},
};
#undef MODE

std::uint32_t feature_of(unsigned bit) {
  const auto *mode =
      std::ranges::find_if(kModes, [bit](const Mode &m) { return std::ranges::find(m.bits, bit) != m.bits.end(); });
  return mode == std::end(kModes) ? std::uint32_t{kOther} : mode->feature;
}

std::uint32_t features_of(std::span<const std::uint32_t> words) {
  std::uint32_t features = 0;
  for (unsigned bit = 0; bit < 32 * words.size(); ++bit)
    if (words[bit / 32] >> bit % 32 & 1) features |= feature_of(bit);
  return features;
}

// The kernel's answer: a fixed part and three masks of link modes: supported, advertised, the peer's.
class Settings {
 public:
  ethtool_link_settings fixed() const {
    ethtool_link_settings fixed;
    std::memcpy(&fixed, bytes_, sizeof fixed);
    return fixed;
  }
  std::uint32_t features(std::size_t mask) const {
    const auto words = static_cast<std::size_t>(fixed().link_mode_masks_nwords);
    std::uint32_t all[kMostWords];
    std::memcpy(all, bytes_ + sizeof(ethtool_link_settings) + mask * words * sizeof *all, words * sizeof *all);
    return features_of(std::span(all).first(words));
  }
  // A request with 0 words makes the kernel return the number it needs, negated.
  bool read(int fd, const std::string &interface) {
    if (!call(fd, interface, 0)) return false;
    const int words = -fixed().link_mode_masks_nwords;
    return words > 0 && call(fd, interface, static_cast<std::int8_t>(words)) && fixed().link_mode_masks_nwords == words;
  }

 private:
  static constexpr std::size_t kMostWords = 127;

  bool call(int fd, const std::string &interface, std::int8_t words) {
    ethtool_link_settings question{};
    question.cmd = ETHTOOL_GLINKSETTINGS;
    question.link_mode_masks_nwords = words;
    std::memcpy(bytes_, &question, sizeof question);
    ifreq request{};
    interface.copy(request.ifr_name, sizeof request.ifr_name - 1);
    request.ifr_data = reinterpret_cast<char *>(bytes_);
    return ::ioctl(fd, SIOCETHTOOL, &request) == 0;
  }

  alignas(std::uint32_t) std::byte bytes_[sizeof(ethtool_link_settings) + 3 * kMostWords * sizeof(std::uint32_t)] = {};
};

std::uint32_t current_features(const ethtool_link_settings &now) {
  std::uint32_t features = now.autoneg == AUTONEG_ENABLE ? std::uint32_t{kAutonegotiation} : 0;
  if (now.port == PORT_TP || now.port == PORT_DA) features |= kCopper;
  if (now.port == PORT_FIBRE) features |= kFiber;
  if (now.speed == 0 || now.speed == static_cast<std::uint32_t>(SPEED_UNKNOWN)) return features;
  const auto *speed = std::ranges::find(kSpeeds, now.speed, &Speed::mbps);
  if (speed == std::end(kSpeeds)) return features | kOther;
  return features | (now.duplex == DUPLEX_HALF ? speed->half : speed->full);
}

std::uint32_t kbps(std::uint32_t mbps) {
  return mbps == static_cast<std::uint32_t>(SPEED_UNKNOWN) ? 0 : std::min(mbps, UINT32_MAX / 1000) * 1000;
}

std::uint32_t fastest(std::uint32_t features) {
  std::uint32_t mbps = 0;
  for (const Speed &speed : kSpeeds)
    if (features & (speed.half | speed.full) & ~std::uint32_t{kOther}) mbps = speed.mbps;
  return kbps(mbps);
}

}  // namespace

Medium read_medium(const std::string &interface) {
  Settings settings;
  const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  const bool told = fd >= 0 && settings.read(fd, interface);
  if (fd >= 0) ::close(fd);
  if (!told) return {};
  enum : std::size_t { kSupported, kAdvertised, kPeer };
  const ethtool_link_settings now = settings.fixed();
  Medium medium{.current = current_features(now),
                .advertised = settings.features(kAdvertised),
                .supported = settings.features(kSupported),
                .peer = settings.features(kPeer),
                .speed_kbps = kbps(now.speed)};
  medium.max_speed_kbps = std::max(medium.speed_kbps, fastest(medium.supported));
  return medium;
}

}  // namespace host::ddm
