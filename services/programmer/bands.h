// Reads the bands of a meter from the meter-mod in a meter record (platform/include/southbound.h). Pure functions, any thread.
#pragma once

#include <cstdint>
#include <vector>

#include "record_reader.h"

namespace programmer {

using records::Bytes;

enum class BandType : std::uint16_t { drop = 1, remark = 2 };  // OpenFlow 1.3.5, 7.3.4.4

struct Band {
  BandType type = BandType::drop;
  std::uint32_t rate = 0;       // kilobits or packets a second
  std::uint32_t burst = 0;      // kilobits or packets; 0: not given
  std::uint8_t precedence = 0;  // of a remark: the increase of the drop precedence
};

struct Bands {
  bool packets = false;     // rates and bursts count packets
  std::vector<Band> bands;  // in descending order of rate
};

// False for bytes that are not a meter-mod, or that contain a band or a rate that no target supports.
bool read_bands(Bytes meter_data, Bands &out);

}  // namespace programmer
