// Handles OFPT_MULTIPART_REQUEST (OpenFlow 1.3.5, 7.3.5) by a table of its types. Openflow thread.
#pragma once

#include "host/of_ss/switch/switch.h"

namespace host::of_ss {

// Carries out a request, or returns why not.
Verdict handle_multipart(Switch &sw, Connection &connection, Bytes request);

// True if the request must wait while the daemon is behind.
bool multipart_is_for_daemon(Bytes request);

// Continues a reply that waited for the peer to read, or for counters.
void continue_dump(Switch &sw, Connection &connection);

}  // namespace host::of_ss
