// The ports: keeps the program attached to the ingress of each port's interface, in promiscuous mode, while interfaces appear,
// disappear and are renamed.
//
// A port keeps its place for the life of this object, so flows that name it need no change when its interface comes back.
// Programs and interfaces stay as they are when this object is destroyed. A program of another plane stays on its interface,
// forwarding, until take_over(); another program of the same maps is replaced at once, and the same program is left alone.
//
// Threads: a separate thread follows the kernel's notices. Numbers and places never change, so any thread may ask for them.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "libss_pkt.h"
#include "programmer/context.h"
#include "programmer/linux/plane.h"
#include "programmer/programmer.h"

namespace programmer::dataplane {

struct PortName {
  std::uint32_t number;  // OpenFlow's
  std::string interface;
};

class Ports {
 public:
  static constexpr std::uint32_t kNone = ~std::uint32_t{0};

  // True if there may be that many ports; otherwise `why` is one line that says how many are allowed.
  static bool possible(const std::vector<PortName> &names, std::string &why);
  // Null, with one line in `why`, if an existing interface cannot become a port; missing interfaces are waited for.
  static std::unique_ptr<Ports> open(const Context &context, Plane &plane, std::vector<PortName> names, std::string &why);
  ~Ports();
  Ports(const Ports &) = delete;
  Ports &operator=(const Ports &) = delete;

  // The place of the port with that number; kNone if it is not configured.
  std::uint32_t place_of(std::uint32_t number) const;
  std::uint32_t present() const;

  // Replaces the programs of an earlier plane, each atomically, and turns interfaces that are no longer ports into ordinary ones.
  void take_over();
  std::vector<PlaneState::Port> state() const;
  // The counts of the ports' queues, at most a second old.
  std::vector<ss_pkt_statistic> queues() const;

  // For a process without ports: detaches the program from these interfaces, given by name and by index, and turns them into
  // ordinary ones again. `said` lists them, one line each. False, with the reason in `said`, if one is another process's port.
  static bool release(const std::vector<PortName> &names, std::vector<std::uint32_t> interfaces, std::string &said);

 private:
  Ports(const Context &context, Plane &plane, std::vector<PortName> names);
  static bool claim(const PortName &port, std::vector<Descriptor> &claims, std::string &why);
  bool listen(std::string &why);
  void run();
  void follow();
  void look_at_queues();
  void abandon_lost();
  bool follow(std::uint32_t place, std::string &why);
  bool begin(std::uint32_t place, std::string &why);
  int put_program(std::uint32_t interface) const;
  void name_others(const std::string &name, std::uint32_t interface) const;
  bool take(std::uint32_t interface, std::uint32_t place, std::string &why);
  static bool release(std::uint32_t interface);
  void leave(std::uint32_t interface, std::uint32_t place);

  const Context &context_;  // used for its log only
  Plane &plane_;
  const std::vector<PortName> names_;
  std::mutex following_;
  bool replaces_;                   // whether earlier programs are replaced at once
  std::vector<Descriptor> claims_;  // keep other processes from using these interfaces as ports
  mutable std::mutex looking_;
  std::vector<ss_pkt_statistic> queues_;  // guarded by looking_
  int notices_ = -1;
  int end_ = -1;
  std::thread thread_;
};

}  // namespace programmer::dataplane
