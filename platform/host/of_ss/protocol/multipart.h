// OFPT_MULTIPART_REQUEST (OpenFlow 1.3.5, 7.3.5): one table of its types. Openflow thread.
#pragma once

#include "host/of_ss/switch/switch.h"

namespace host::of_ss {

// Carries out a request, or says why not.
Verdict handle_multipart(Switch &sw, Connection &connection, Bytes request);

// Whether the request waits while the daemon is behind.
bool multipart_is_for_daemon(Bytes request);

// Goes on with a reply that waited for the peer to read, or for counters.
void continue_dump(Switch &sw, Connection &connection);

}  // namespace host::of_ss
