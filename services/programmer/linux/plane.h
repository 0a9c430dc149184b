// The program and its maps: loads them, or takes over those that are pinned, and maps what they share with it into memory. What
// is loaded lives as long as this object, as a port that the program is attached to, or as its pins.
//
// Threads: any; the port index is one thread's at a time.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "programmer/linux/descriptor.h"
#include "programmer/linux/memory.h"
#include "programmer/linux/pins.h"

struct bpf_map;
struct bpf_object;

namespace programmer::dataplane {

class Plane {
 public:
  static constexpr std::uint32_t kMaxFlows = 1'000'000;

  struct Wanted {
    std::uint32_t flows;
    std::vector<std::uint32_t> ports;  // OpenFlow's numbers, by place
  };

  // Whether this machine can have one; if not, `why` is one line that names what is missing.
  static bool possible(std::string &why);

  // Pinned maps are taken over when they are of this layout, of the same size and for the same ports. Null with one line when
  // that fails. `pins` is null where there are none, otherwise it outlives the plane.
  static std::unique_ptr<Plane> load(const Wanted &wanted, Pins *pins, std::string &why);
  ~Plane();
  Plane(const Plane &) = delete;
  Plane &operator=(const Plane &) = delete;

  const dp_tables &tables() const { return tables_; }
  dp_meter *meters() const { return meters_; }  // DP_MAX_METERS
  dp_port *ports() const { return ports_; }     // DP_MAX_PORTS
  dp_punt *punts() const { return punts_; }     // DP_MAX_PORTS
  dp_tally tally() const;                       // of all processors, and the service's own
  dp_tally &own_tally() const { return tallies_[tables_.rows - 1]; }
  int punted() const { return punted_; }          // descriptor of the ring
  int program() const { return program_.get(); }  // its descriptor
  std::uint32_t program_id() const { return program_id_; }

  // Whether the maps are those of an earlier life. When they are not and there is an earlier plane, that one forwards until this
  // one is filled, which settle() says.
  bool inherited() const { return inherited_; }
  void settle();
  // The interfaces (their indexes) that an earlier plane had, where its maps were not taken over.
  const std::vector<std::uint32_t> &earlier_ports() const { return earlier_ports_; }
  // Those of all planes that are pinned.
  static std::vector<std::uint32_t> ports_in(const Pins &pins);

  // Which place among the ports an interface has; packets of any other one are left alone. False with errno.
  bool set_port(std::uint32_t interface, std::uint32_t place);
  void forget_port(std::uint32_t interface);

 private:
  struct Free {
    void operator()(bpf_object *object) const;
  };

  Plane() = default;
  void set_sizes(std::uint32_t flows);
  bool inherit(const std::vector<std::uint32_t> &ports);
  bool choose_program(std::string &why);
  bool pin(std::string &why);
  template <typename T>
  bool map(const char *name, T *&memory, std::string &why);
  bool map_all(std::string &why);

  Pins *pins_ = nullptr;
  bool inherited_ = false;
  std::vector<std::uint32_t> earlier_ports_;
  std::unique_ptr<bpf_object, Free> object_;
  std::vector<std::pair<void *, std::size_t>> mappings_;
  dp_tables tables_{};
  dp_meter *meters_ = nullptr;
  dp_port *ports_ = nullptr;
  dp_tally *tallies_ = nullptr;
  dp_punt *punts_ = nullptr;
  Descriptor program_;
  std::uint32_t program_id_ = 0;
  int port_of_ = -1;
  int punted_ = -1;
};

}  // namespace programmer::dataplane
