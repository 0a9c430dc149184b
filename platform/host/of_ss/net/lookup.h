// Looks up the addresses of a host's name in the same sources as the machine's other programs (/etc/hosts, name servers, ...).
// Openflow thread.
//
// The C library's look-up does that, but blocks for as long as a name server is silent. So it runs on a separate thread, which is
// abandoned when the answer is no longer wanted: it ends within the limits of /etc/resolv.conf, or with the process.
#pragma once

#include <netdb.h>

#include <functional>
#include <memory>
#include <string>

#include "host/base/event_owner.h"

namespace host::of_ss {

struct FreeAddresses {
  void operator()(addrinfo *list) const { freeaddrinfo(list); }
};
using Addresses = std::unique_ptr<addrinfo, FreeAddresses>;

// Asks the C library for addresses to connect or listen to; `flags` are AI_*. Returns "" or why there is none.
std::string find_addresses(const std::string &host, const std::string &port, int flags, Addresses &found);

class Lookup {
 public:
  // Calls `done` in a later turn of `base`'s loop, unless the look-up is destroyed first; `done` may destroy it.
  Lookup(event_base *base, const std::string &host, const std::string &port, std::function<void()> done);
  ~Lookup();
  Lookup(const Lookup &) = delete;
  Lookup &operator=(const Lookup &) = delete;

  // ---- after `done`

  const std::string &error() const;   // why no address was found; otherwise empty
  const addrinfo *addresses() const;  // at least one if there was no error; valid as long as the look-up

 private:
  struct Shared;

  void start();
  void answered();
  void fail(const std::string &why);

  std::shared_ptr<Shared> shared_;
  std::function<void()> done_;
  EventOwner event_;
};

}  // namespace host::of_ss
