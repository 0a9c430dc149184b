// Frames in user space: what makes whole frames of a packet that the program has handed over, and the plane's rewrites. Pure
// functions over bytes, any thread.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "programmer/linux/memory.h"
#include "record_reader.h"

namespace programmer::dataplane {

using records::Bytes;
using Frame = std::vector<std::uint8_t>;
inline constexpr std::uint32_t kEthLen = DP_ETH_LEN;

// Calls `give` with each frame that the packet is on the wire: cut into its segments, its tag in its place, and with its checksum
// whole where the kernel left that to a network card. `bytes` are those that the program has copied. What contradicts itself
// comes as it is. `room` is the memory of one frame, used again and again.
void unfold(const dp_punted &about, Bytes bytes, Frame &room, const std::function<void(Bytes)> &give);

// The rewrites of `actions`. False when the frame lacks what is to be set; it is then half rewritten.
bool rewrite(Frame &frame, const dp_actions &actions);

// What is known of the frame, as the program knows it. `in_port` is OpenFlow's number.
dp_key key_of(Bytes frame, std::uint32_t in_port, dp_headers &headers);

}  // namespace programmer::dataplane
