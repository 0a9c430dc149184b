// The database's metrics: connections, writes, notifications, round trips. Loop's thread.
#pragma once

namespace host::mom {

class Hub;

void register_metrics(Hub &hub);

}  // namespace host::mom
