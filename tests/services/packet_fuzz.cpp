// Any bytes as a packet of the plane, and as a controller's with its actions: {about, actions length u16, actions, frame}.
#include <memory>

#include "programmer/linux/executor.h"
#include "support/fuzz_runtime.h"

namespace {

using namespace programmer;
using namespace programmer::dataplane;

struct Memory {
  Memory() { ports[0].number = 1, ports[1].number = 2; }
  dp_control control{};
  dp_mask masks[2 * DP_MAX_MASKS]{};
  dp_bucket buckets[2]{};
  dp_hint hints[1]{};
  dp_flow flows[1]{};
  dp_count counts[1]{}, before[1]{};
  dp_port ports[DP_MAX_PORTS]{};
  dp_meter meters[DP_MAX_METERS]{};
  dp_tally tally{};
};

// The frames together hold what the packet held, and what is whole stays as it is.
void check_unfolding(const dp_punted &about, Bytes frame) {
  std::size_t frames = 0, longest = 0;
  Frame room, again;
  unfold(about, frame, room, [&](Bytes one) {
    ++frames;
    longest = std::max(longest, one.size());
    dp_punted whole{};
    whole.verified = about.verified;
    unfold(whole, one, again, [&](Bytes same) { require(std::ranges::equal(same, one)); });
  });
  require(frames >= 1 && longest <= frame.size() + (about.tag_type != 0 ? 4 : 0));
  if (frames > 1) require(about.segment != 0 && frames <= frame.size() / about.segment + 1);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  dp_punted about{};
  if (size < sizeof about + 2) return 0;
  std::memcpy(&about, data, sizeof about);
  Bytes rest(data + sizeof about, size - sizeof about);
  const std::size_t said = rest[0] | rest[1] << 8;
  rest = rest.subspan(2);
  const Bytes list = rest.first(std::min(said, rest.size()));
  // In memory of exactly their size.
  const std::vector<std::uint8_t> actions(list.begin(), list.end()),
      frame(rest.begin() + static_cast<std::ptrdiff_t>(list.size()), rest.end());
  check_unfolding(about, frame);

  static const auto memory = std::make_unique<Memory>();
  static Grace grace;
  Sender sender(memory->ports);
  const dp_tables tables{
      &memory->control, memory->masks, memory->buckets, memory->hints, memory->flows, memory->counts, memory->before, 2, 1, 1};
  Executor executor({tables, memory->ports, memory->meters, &memory->tally}, grace, sender,
                    [&](const ss_pkt_in &, Bytes out) { require(out.size() % 4 == frame.size() % 4); });
  executor.run({.in_port = about.in_port,
                .actions_len = static_cast<std::uint32_t>(actions.size()),
                .actions = actions.data(),
                .frame = frame.data(),
                .frame_len = static_cast<std::uint32_t>(frame.size())});
  return 0;
}
