// The interface settings that turn an interface into a port, and back. Like the program, they outlive this process. Any thread.
#pragma once

#include <string>

namespace programmer::dataplane {

// Sets whether the interface accepts frames for any address. False with errno.
bool make_promiscuous(const std::string &name, bool promiscuous = true);
// Turns off large receive offload, which merges received frames into packets that cannot be sent on.
void keep_whole(const std::string &name);
// Disables the machine's own IPv6 on the interface. False on failure.
bool silence(const std::string &name);
// Turns the port back into an ordinary interface: not promiscuous, and IPv6 as the default for new interfaces.
void give_back(const std::string &name);
// True if the interface has an address of the machine; addresses that every interface has do not count.
bool has_address(const std::string &name);

}  // namespace programmer::dataplane
