// Helpers for sockets and TLS, used by connections and endpoints. Openflow thread.
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

// Describes why the last operation of a connection failed; for TLS including any fault of the certificate.
std::string failure_text(bufferevent *bev);

// The index of the machine's interface that the connection uses; 0 if unknown.
std::uint32_t local_interface(evutil_socket_t fd);

}  // namespace host::of_ss
