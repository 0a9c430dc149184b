#include "programmer/targets.h"

#include <stdexcept>

#include "programmer/sim_target.h"
#ifdef KELIM_LINUX_TARGET
#include "libddm.h"
#include "programmer/linux/linux_target.h"
#endif

namespace programmer {
namespace {

constexpr std::uint32_t kLinuxFlows = 1'000'000, kMostPackets = 1'000'000;
constexpr char kNoPins[] = "none";

#ifdef KELIM_LINUX_TARGET
static_assert(kLinuxFlows == dataplane::Plane::kMaxFlows);

dataplane::LinuxTarget::Settings settings_of(const Options &options) {
  std::vector<dataplane::PortName> ports;
  const auto add = [](void *list, std::uint32_t ifx, const char *name) {
    static_cast<std::vector<dataplane::PortName> *>(list)->push_back({ifx, name});
  };
  libddm_for_each_port(add, &ports);
  return {options.size,
          std::move(ports),
          {options.packet_in_rate, options.packet_in_burst},
          options.pin_dir == kNoPins ? "" : options.pin_dir};
}

std::unique_ptr<Target> make_linux(const Context &context, const Options &options, FlowSink &sink, std::string &why) {
  return dataplane::LinuxTarget::open(context, settings_of(options), sink, why);
}
#else
std::unique_ptr<Target> make_linux(const Context &, const Options &, FlowSink &, std::string &why) {
  why = "this build lacks it, because clang or libbpf was missing when it was configured";
  return nullptr;
}
#endif

}  // namespace

std::string check_target(const Options &options) {
  if (options.target != "sim" && options.target != "linux") {
    return "\"" + options.target + "\" is not a target; allowed are sim and linux";
  }
  if (options.target == "linux" && (options.size == 0 || options.size > kLinuxFlows)) {
    return "the target linux holds 1 to " + std::to_string(kLinuxFlows) + " flows, not " + std::to_string(options.size);
  }
  const auto allowed = [](std::uint32_t value) { return value >= 1 && value <= kMostPackets; };
  if (!allowed(options.packet_in_rate) || !allowed(options.packet_in_burst)) {
    return "rate and burst of packets to controllers must be 1 to " + std::to_string(kMostPackets);
  }
  if (options.pin_dir != kNoPins && !options.pin_dir.starts_with('/')) {
    return "\"" + options.pin_dir + "\" is no directory for pins; allowed are a path that begins with /, and none";
  }
  return "";
}

bool release_targets([[maybe_unused]] const Context &context, [[maybe_unused]] const Options &options, std::string &said) {
#ifdef KELIM_LINUX_TARGET
  return dataplane::LinuxTarget::release(context, settings_of(options), said);
#else
  said = "this build is without the target linux";
  return false;
#endif
}

std::unique_ptr<Target> make_target(const Context &context, const Options &options, FlowSink &sink) {
  if (options.target != "linux") return std::make_unique<SimTarget>(context.global->master, options, sink);
  std::string why;
  auto target = make_linux(context, options, sink, why);
  if (!target) throw std::runtime_error("programmer.target linux is not possible here: " + why);
  return target;
}

}  // namespace programmer
