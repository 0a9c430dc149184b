// What the system knows of the process, and what belongs to no single service: log lines, drains, timings. Loop's thread.
#pragma once

namespace host::metrics {

void add_process_source();

}  // namespace host::metrics
