// What makes a port of an interface. All of it stays with the interface when this process ends, as the program does. Any thread.
#pragma once

#include <string>

namespace programmer::dataplane {

// Whether the interface takes frames for everybody. False with errno.
bool make_promiscuous(const std::string &name, bool promiscuous = true);
// It gives received frames on as they were on the wire, not several as one that cannot be sent (large receive offload).
void keep_whole(const std::string &name);
// The machine does not speak IPv6 there by itself.
bool silence(const std::string &name);
// No port any more: not promiscuous, and with IPv6 as the machine's new interfaces have it.
void give_back(const std::string &name);
// Whether the machine itself is reached by the interface; addresses that every interface has do not count.
bool has_address(const std::string &name);

}  // namespace programmer::dataplane
