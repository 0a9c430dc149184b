// Metrics of the process as a whole: resources, log lines, drains, timings. Loop's thread.
#pragma once

namespace host::metrics {

void add_process_source();

}  // namespace host::metrics
