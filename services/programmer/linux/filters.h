// Lists the tc filters of an interface, and attaches and detaches the plane's program on its ingress. Any thread.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace programmer::dataplane::filters {

inline constexpr char kProgram[] = "kelim_plane";  // the kernel's name of a plane's program

struct Filter {
  bool ingress = true;
  std::uint32_t preference = 0;
  std::string name;           // of the program; without one, the filter's kind, such as flower
  std::uint32_t program = 0;  // the program's id in the kernel; 0: no program

  bool ours() const;
};

// Of both directions; one entry for each program, and one for each preference of other kinds. Empty also if the kernel refuses.
std::vector<Filter> list(std::uint32_t interface);

// The id of the plane's program on the interface; 0: none.
std::uint32_t program_of(std::uint32_t interface);

// Attaches the program to the ingress; another plane's program is replaced atomically. 0, or a negative errno.
int attach(std::uint32_t interface, int program);

// Detaches a plane's program, and removes the qdisc unless it has other filters.
void detach(std::uint32_t interface);

}  // namespace programmer::dataplane::filters
