// The ports: has the program on the ingress of each, in promiscuous mode, and follows them while interfaces come, go and are
// renamed.
//
// A port keeps its place for as long as this object lives, so flows that name it need no change when its interface comes back.
// A thread of its own listens to the kernel; what other threads ask for never changes.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "programmer/context.h"
#include "programmer/linux/plane.h"

namespace programmer::dataplane {

struct PortName {
  std::uint32_t number;  // OpenFlow's
  std::string interface;
};

class Ports {
 public:
  static constexpr std::uint32_t kNone = ~std::uint32_t{0};

  // Null with one line when a port that is there cannot be taken; those that are not there are waited for.
  static std::unique_ptr<Ports> open(const Context &context, Plane &plane, std::vector<PortName> names, std::string &why);
  ~Ports();
  Ports(const Ports &) = delete;
  Ports &operator=(const Ports &) = delete;

  // The place of the port with that number.
  std::uint32_t place_of(std::uint32_t number) const;
  std::uint32_t present() const;

 private:
  Ports(const Context &context, Plane &plane, std::vector<PortName> names);
  bool claim(std::string &why);
  bool listen(std::string &why);
  void run();
  void follow();
  bool follow(std::uint32_t place, std::string &why);
  bool take(std::uint32_t interface, std::uint32_t place, std::string &why);
  void leave(std::uint32_t interface, std::uint32_t place);

  const Context &context_;  // its log
  Plane &plane_;
  const std::vector<PortName> names_;
  std::vector<int> claims_;  // what keeps others from these interfaces
  int notices_ = -1;
  int end_ = -1;
  std::thread thread_;
};

}  // namespace programmer::dataplane
