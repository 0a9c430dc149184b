// The ports: has the program on the ingress of each, in promiscuous mode, and follows them while interfaces come, go and are
// renamed.
//
// A port keeps its place for as long as this object lives, so flows that name it need no change when its interface comes back.
// A thread of its own listens to the kernel; what other threads ask for never changes. When this object goes, programs and
// interfaces stay as they are.
//
// Where another plane's program is on an interface, it stays there, forwarding, until take_over(); a program of the same maps
// gives way at once, and the very same one stays.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

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

  // Whether there can be that many; if not, `why` says so in one line.
  static bool possible(const std::vector<PortName> &names, std::string &why);
  // Null with one line when a port that is there cannot be taken; those that are not there are waited for.
  static std::unique_ptr<Ports> open(const Context &context, Plane &plane, std::vector<PortName> names, std::string &why);
  ~Ports();
  Ports(const Ports &) = delete;
  Ports &operator=(const Ports &) = delete;

  // The place of the port with that number.
  std::uint32_t place_of(std::uint32_t number) const;
  std::uint32_t present() const;

  // The programs of an earlier plane give way, each in one step, and interfaces that were its ports alone are given back.
  void take_over();
  std::vector<PlaneState::Port> state() const;

  // For a process without ports: takes the program off these interfaces, named and by index, and makes them ordinary ones again.
  // Says which, a line each; false, and why, when another process has one as a port.
  static bool release(const std::vector<PortName> &names, std::vector<std::uint32_t> interfaces, std::string &said);

 private:
  Ports(const Context &context, Plane &plane, std::vector<PortName> names);
  static bool claim(const PortName &port, std::vector<Descriptor> &claims, std::string &why);
  bool listen(std::string &why);
  void run();
  void follow();
  bool follow(std::uint32_t place, std::string &why);
  bool begin(std::uint32_t place, std::string &why);
  int put_program(std::uint32_t interface) const;
  void name_others(const std::string &name, std::uint32_t interface) const;
  bool take(std::uint32_t interface, std::uint32_t place, std::string &why);
  static bool release(std::uint32_t interface);
  void leave(std::uint32_t interface, std::uint32_t place);

  const Context &context_;  // its log
  Plane &plane_;
  const std::vector<PortName> names_;
  std::mutex following_;
  bool replaces_;                   // earlier programs, with other maps
  std::vector<Descriptor> claims_;  // what keeps others from these interfaces
  int notices_ = -1;
  int end_ = -1;
  std::thread thread_;
};

}  // namespace programmer::dataplane
