// Keeps those who print from waiting for those who read.
#pragma once

namespace host {

// From now on descriptor 1 leads into a bounded buffer that a thread writes to where it led before, unless that is a file or
// /dev/null. What does not fit, because nobody reads, is dropped; the number of bytes is told in their place once somebody does,
// and the log tells that it began. exit() waits a second at most for what is left. Without effect the second time. Loop's thread.
void guard_stdout();

}  // namespace host
