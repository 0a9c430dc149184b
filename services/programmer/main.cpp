// kelim-programmer: the programming service as a separate process, for an object database that several processes share.
//
// It may be started, ended and killed at any time: at every start it reconciles target and database. The database, logging and
// the run directory come from the platform's configuration.
#include <errno.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <iterator>

#include "kelim_version.h"
#include "libss_fp_com.h"
#include "programmer/programmer.h"
#include "qx_mom.h"
#include "qx_runtime.h"
#include "qx_zlog.h"
#include "rdnd_lib.h"

namespace {

using programmer::kProcess;

constexpr char kExamples[] = R"(
Examples:
  KELIM_MOM_URL=redis://127.0.0.1:6379 kelim-programmer --size 10000
  kelim-programmer --script "fail=3,17-19;delay=7:200"
  kelim-programmer --target linux --size 100000
  kelim-programmer --release
  kelimctl --process kelim-programmer cmd programmer show

Exit status: 0 ended, 2 wrong usage, 78 the configuration has to change before it can run, others failed.
)";

// A missing option is taken from the environment variable that configures the service within the daemon.
void add_options(CLI::App &app, programmer::Options &options) {
  const auto add = [&app](const char *name, auto &value, const char *variable, const char *help) {
    app.add_option(name, value, help)->envname(variable)->capture_default_str();
  };
  add("--target", options.target, "KELIM_PROGRAMMER_TARGET", "the target to program: sim or linux");
  add("--size", options.size, "KELIM_PROGRAMMER_SIZE", "flows that the target holds; 1 to 1000000 for linux");
  add("--delay", options.delay_ms, "KELIM_PROGRAMMER_DELAY_MS", "sim: delay of answers in milliseconds");
  add("--script", options.script, "KELIM_PROGRAMMER_SCRIPT",
      "sim: scripted answers, such as fail=3,17-19;resource=5;delay=7:200;silent=9");
  add("--seed", options.seed, "KELIM_PROGRAMMER_SEED", "sim: seed of the script's random choices");
  add("--counter-interval", options.counter_interval_ms, "KELIM_PROGRAMMER_COUNTER_INTERVAL_MS",
      "milliseconds between counter reports; 0 for none, and no flow becomes idle");
  add("--counter-rate", options.counter_rate, "KELIM_PROGRAMMER_COUNTER_RATE", "sim: packets per second that every flow counts");
  add("--packet-in-rate", options.packet_in_rate, "KELIM_PROGRAMMER_PACKET_IN_RATE",
      "linux: packets per second that each port may send to controllers");
  add("--packet-in-burst", options.packet_in_burst, "KELIM_PROGRAMMER_PACKET_IN_BURST",
      "linux: packets that each port may send at once");
  add("--pin-dir", options.pin_dir, "KELIM_PROGRAMMER_PIN_DIR",
      "linux: directory in a BPF file system that keeps its tables while no service runs, or none");
  app.add_flag("--service-chain,!--no-service-chain", options.service_chain, "translate service-chain flows")
      ->envname("KELIM_PROGRAMMER_SERVICE_CHAIN")
      ->capture_default_str();
}

int fail(const char *why, int status = 1) {
  std::fprintf(stderr, "%s: %s\n", kProcess, why);
  return status;
}

// The service works in every role; the platform must know its databases, because no other service may work on them.
constexpr std::int32_t kDatabases[] = {QX_MOM_UDP_DB, QX_MOM_APP_DB};
int any_role(void *, void *) {
  return 0;
}

// Exit statuses after which a restart does not help.
constexpr int kWrongUsage = 2;
constexpr int kBadConfiguration = 78;  // EX_CONFIG of sysexits.h

// Runs the process once its options are known; returns the exit status.
int serve(const programmer::Options &options) {
  if (const int taken = libss_fp_com_check_run("/var/run/kelim-programmer.pid"); taken != 0) return taken;
  qx_global *global = qx_global_init(kProcess, nullptr);
  if (!global) return errno == EINVAL ? kBadConfiguration : 1;
  libss_fp_com_ham_init("/var/tmp/kelim-programmer_no_ham", qx_zlog_init(kProcess));
  const rdnd_lib_reg registration = {
      .master = global->master,
      .name = kProcess,
      .global = global,
      .role_cb = any_role,
      .state_cb = any_role,
      .reserved_ptr = nullptr,
      .reserved = 0,
      .dbs = kDatabases,
      .db_count = std::size(kDatabases),
  };
  rdnd_lib_mom_reg(&registration);
  std::string why;
  const int started = programmer::start_embedded(global, options, &why);
  int status = 0;
  if (!why.empty()) {
    status = fail(why.c_str());
  } else if (started == QX_FAILED) {
    status = fail("the database cannot be reached");
  } else if (started != 0) {
    status = fail("the options were refused");
  } else if (qx_global_run(global) != 0) {
    status = fail("the event loop failed");
  }
  programmer::stop_embedded();
  qx_global_finish(global);
  return status;
}

// Removes what the target linux has left in the kernel.
int release(const programmer::Options &options) {
  qx_global *global = qx_global_init(programmer::kReleasing, nullptr);
  if (global == nullptr) return errno == EINVAL ? kBadConfiguration : 1;
  std::string said;
  const int rv = programmer::release(global, options, said);
  qx_global_finish(global);
  if (rv != 0) return fail(said.c_str());
  std::fputs(said.empty() ? "there is nothing to remove\n" : said.c_str(), stdout);
  return 0;
}

int run(int argc, char **argv) {
  programmer::Options options;
  bool releases = false;
  CLI::App app(
      "Installs the flows, meters and controller addresses of the object database in a target and writes the results "
      "back.");
  app.footer(kExamples);
  app.set_version_flag("--version", "kelim-programmer " KELIM_VERSION);
  add_options(app, options);
  app.add_flag("--release", releases, "linux: remove what an earlier service has left in the kernel, and end");
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError &error) {
    return app.exit(error) == 0 ? 0 : kWrongUsage;
  }
  if (const std::string error = programmer::check(options); !error.empty()) return fail(error.c_str(), kWrongUsage);
  return releases ? release(options) : serve(options);
}

}  // namespace

int main(int argc, char **argv) {
  try {
    return run(argc, argv);
  } catch (const std::exception &error) {
    return fail(error.what());
  } catch (...) {
    return fail("ended by an exception that is not a std::exception");
  }
}
