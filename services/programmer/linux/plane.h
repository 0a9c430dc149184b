// The program and its maps: loads them or takes over pinned ones, and maps their shared contents into memory. The kernel keeps
// them as long as this object, a port with the program attached, or a pin exists.
//
// Threads: any; the port index may be changed by one thread at a time.
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

  // True if this machine can have a plane; otherwise `why` is one line that names what is missing.
  static bool possible(std::string &why);

  // Pinned maps are taken over if they have this layout, the same size and the same ports; otherwise new ones are created. Null,
  // with one line in `why`, if loading fails. `pins` is null without pins, otherwise it must outlive the plane.
  static std::unique_ptr<Plane> load(const Wanted &wanted, Pins *pins, std::string &why);
  ~Plane();
  Plane(const Plane &) = delete;
  Plane &operator=(const Plane &) = delete;

  const dp_tables &tables() const { return tables_; }
  dp_meter *meters() const { return meters_; }  // DP_MAX_METERS
  dp_port *ports() const { return ports_; }     // DP_MAX_PORTS
  dp_punt *punts() const { return punts_; }     // DP_MAX_PORTS
  dp_tally tally() const;                       // the sum of all processors and the service
  dp_tally &own_tally() const { return tallies_[tables_.rows - 1]; }
  int punted() const { return punted_; }          // descriptor of the ring
  int program() const { return program_.get(); }  // descriptor of the program
  std::uint32_t program_id() const { return program_id_; }

  // True if the maps were taken over from an earlier service. If there is an earlier plane whose maps were not, it keeps
  // forwarding until this one is filled and settle() is called.
  bool inherited() const { return inherited_; }
  void settle();
  // The interfaces (indexes) of an earlier plane whose maps were not taken over.
  const std::vector<std::uint32_t> &earlier_ports() const { return earlier_ports_; }
  // The interfaces (indexes) of all pinned planes.
  static std::vector<std::uint32_t> ports_in(const Pins &pins);

  // Assigns a place to an interface; packets of interfaces without a place are left alone. False with errno.
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
  bool settled_ = false;  // this is the plane in force
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
