// Any text as the configuration file: it is taken or refused with one line, and a configuration that is taken is read again as
// the same.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <string>

#include "host/config/config.h"
#include "support/require.h"

namespace {

// The file, in memory only; the host reads it by its name.
int file() {
  static const int fd = [] {
    const int made = memfd_create("host.toml", MFD_CLOEXEC);
    setenv("KELIM_CONF", ("/proc/self/fd/" + std::to_string(made)).c_str(), 1);
    return made;
  }();
  return fd;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  require(ftruncate(file(), 0) == 0 && pwrite(file(), data, size, 0) == static_cast<ssize_t>(size));
  host::Config config, again;
  const std::string error = host::config_reread(config);
  require(error.find('\n') == std::string::npos);
  require(host::config_reread(again) == error);
  require(!error.empty() || (config.ports == again.ports && config.openflow.listen == again.openflow.listen));
  return 0;
}
