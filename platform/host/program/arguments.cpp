// The daemon's command line, read before main, which takes no arguments: everything else is configuration.
#include <unistd.h>

#include <cstdio>
#include <string_view>

#include "kelim_version.h"

namespace {

constexpr int kUsage = 2;

constexpr const char *kHelp =
    R"(Programs the flows and meters of OpenFlow 1.3 controllers into the object database, in the foreground.

usage: ssc_kelim [--help | --version]

Settings come from /etc/kelim/host.toml, or the file that KELIM_CONF names, and from the environment, which wins:
"kelimctl config" shows every key with its variable, default and allowed values.

examples:
  KELIM_RUN_DIR=/tmp/kelim ssc_kelim
      embedded database, simulated target, controllers on port 6653
  KELIM_MOM_URL=redis://127.0.0.1 KELIM_OPENFLOW_CONNECT=tcp:192.0.2.7:6653 ssc_kelim
      with a Redis server, for a kelim-programmer beside it, and a controller to connect to
  kelimctl --run-dir /tmp/kelim flows
      looks into the daemon of the first example

SIGHUP has it reload what can change while it runs, SIGTERM ends it. Exit status: 0 ended, 77 the database came back as another
one (start again), 2 wrong usage, others failed.
)";

[[noreturn]] void end(FILE *to, int status) {
  std::fflush(to);
  _exit(status);
}

// glibc passes main's arguments to constructors.
[[gnu::constructor]] void read_arguments(int argc, char **argv, char **) {
  if (argc < 2) return;
  const std::string_view argument = argv[1];
  if (argc == 2 && (argument == "--help" || argument == "-h")) {
    std::fputs(kHelp, stdout);
    end(stdout, 0);
  }
  if (argc == 2 && argument == "--version") {
    std::puts("ssc_kelim " KELIM_VERSION);
    end(stdout, 0);
  }
  std::fprintf(stderr, "ssc_kelim: argument \"%s\" is not known; allowed: --help, --version (settings: kelimctl config)\n",
               argc == 2 ? argv[1] : argv[argument == "--help" || argument == "--version" ? 2 : 1]);
  end(stderr, kUsage);
}

}  // namespace
