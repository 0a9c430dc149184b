// The program and its maps: loads them, maps what they share with it into memory. What is loaded lives as long as this object or
// as a port that the program is attached to.
//
// Threads: any; the port index is one thread's at a time.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "programmer/linux/memory.h"

struct bpf_object;

namespace programmer::dataplane {

class Plane {
 public:
  static constexpr std::uint32_t kMaxFlows = 1'000'000;

  // Null when this machine cannot: `why` is one line that names what is missing.
  static std::unique_ptr<Plane> load(std::uint32_t flows, std::string &why);
  ~Plane();
  Plane(const Plane &) = delete;
  Plane &operator=(const Plane &) = delete;

  const dp_tables &tables() const { return tables_; }
  dp_meter *meters() const { return meters_; }  // DP_MAX_METERS
  dp_port *ports() const { return ports_; }     // DP_MAX_PORTS
  dp_punt *punts() const { return punts_; }     // DP_MAX_PORTS
  dp_tally tally() const;                       // of all processors, and the service's own
  dp_tally &own_tally() const { return tallies_[tables_.rows - 1]; }
  int punted() const { return punted_; }    // descriptor of the ring
  int program() const { return program_; }  // its descriptor

  // Which place among the ports an interface has; packets of any other one are left alone. False with errno.
  bool set_port(std::uint32_t interface, std::uint32_t place);
  void forget_port(std::uint32_t interface);

 private:
  struct Free {
    void operator()(bpf_object *object) const;
  };

  Plane() = default;
  template <typename T>
  bool map(const char *name, T *&memory, std::string &why);
  bool map_all(std::string &why);

  std::unique_ptr<bpf_object, Free> object_;
  std::vector<std::pair<void *, std::size_t>> mappings_;
  dp_tables tables_{};
  dp_meter *meters_ = nullptr;
  dp_port *ports_ = nullptr;
  dp_tally *tallies_ = nullptr;
  dp_punt *punts_ = nullptr;
  int program_ = -1;
  int port_of_ = -1;
  int punted_ = -1;
};

}  // namespace programmer::dataplane
