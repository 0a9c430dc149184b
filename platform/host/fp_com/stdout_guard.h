// Keeps printing on standard output from blocking on slow readers.
#pragma once

namespace host {

// Redirects descriptor 1 into a bounded buffer, which a thread writes to the former target, unless that is a file or /dev/null.
// Output that does not fit, because nobody reads, is dropped; its place shows the number of bytes once somebody reads, and the
// log records the first drop. exit() waits at most a second for the rest. A second call has no effect. Loop's thread.
void guard_stdout();

}  // namespace host
