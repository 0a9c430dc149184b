// The tc filters of an interface: the plane's program on its ingress, and those of other people. Any thread.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace programmer::dataplane::filters {

inline constexpr char kProgram[] = "kelim_plane";  // a plane's, as the kernel names it

struct Filter {
  bool ingress = true;
  std::uint32_t preference = 0;
  std::string name;           // a program's, otherwise the kind, such as flower
  std::uint32_t program = 0;  // the kernel's number of it; 0: no program

  bool ours() const;
};

std::vector<Filter> list(std::uint32_t interface);

// The number of the program that is on the interface as a plane's; 0: none.
std::uint32_t program_of(std::uint32_t interface);

// Puts the program on the ingress, in one step where another plane's is. 0, or a negative errno.
int attach(std::uint32_t interface, int program);

// Takes a plane's program off, and the qdisc where nobody else has a filter there.
void detach(std::uint32_t interface);

}  // namespace programmer::dataplane::filters
