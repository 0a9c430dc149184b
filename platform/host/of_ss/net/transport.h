// What connections and endpoints ask of a socket and its TLS. Openflow thread.
#pragma once

#include <event2/bufferevent.h>

#include <cstdint>
#include <memory>
#include <string>

namespace host::of_ss {

struct FreeBufferevent {
  void operator()(bufferevent *bev) const { bufferevent_free(bev); }
};
using BuffereventOwner = std::unique_ptr<bufferevent, FreeBufferevent>;

// Why the last operation of a connection failed, in words; of TLS with what was wrong with the certificate.
std::string failure_text(bufferevent *bev);

// The machine's interface that the connection runs over; 0 when that is not known.
std::uint32_t local_interface(evutil_socket_t fd);

}  // namespace host::of_ss
