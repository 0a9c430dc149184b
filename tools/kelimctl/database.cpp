#include "kelimctl/database.h"

#include <array>
#include <chrono>
#include <csignal>
#include <filesystem>

#include "host/base/loop.h"
#include "host/config/config.h"
#include "host/mom/hub.h"
#include "host/mom/redis/sync.h"
#include "host/mom/views.h"
#include "qx_mom.h"

namespace kelimctl {
namespace {

using namespace std::chrono_literals;

constexpr auto kConnectLimit = 10s;

class InDaemon final : public Database {
 public:
  explicit InDaemon(Link &link) : link_(link) {}
  Json query(const Json &args) override { return link_.view("mom", args); }
  Json client() override { return query({{"op", "client"}}); }
  void watch(const Json &args, const Each &each) override { link_.watch("mom", args, each); }

 private:
  Link &link_;
};

// Runs the host's own database client in a private runtime, so that the same code makes the views as in the daemon.
class InServer final : public Database {
 public:
  explicit InServer(Link &link) : daemon_(link) {
    const std::string &url = host::config().mom.url;
    must_answer(url);
    const std::pair<const char *, std::string> settings[] = {
        {"run_dir", std::filesystem::temp_directory_path()},  // nothing is written there
        {"control.enabled", "false"},
        {"metrics.listen", ""},
        {"programmer.embedded", "false"},
        {"log.target", "stderr"},
        {"log.level", "warning"},
    };
    for (const auto &[key, value] : settings) check(host::config_set(key, value));
    global_ = qx_global_init("kelimctl", nullptr);
    if (!global_) throw Problem(kFailed, "cannot work with " + url);
    std::signal(SIGHUP, SIG_DFL);  // nothing to reload here: it ends with its terminal
  }
  ~InServer() override { qx_global_finish(global_); }
  InServer(const InServer &) = delete;
  InServer &operator=(const InServer &) = delete;

  Json query(const Json &args) override {
    try {
      return host::mom::query(*host::mom::hub(), args);
    } catch (const host::control::Refusal &error) {
      throw Problem(kUsage, error.what());
    }
  }

  Json client() override {
    try {
      return daemon_.client();
    } catch (const Problem &) {
      return nullptr;
    }
  }

  void watch(const Json &args, const Each &each) override {
    static unsigned connected;
    connected = 0;
    const auto count = [](void *, const char *) {
      ++connected;
      return 0;
    };
    constexpr std::array kDatabases = {QX_MOM_ASIC_DB, QX_MOM_APP_DB, QX_MOM_UDP_DB};
    for (const std::int32_t db : kDatabases) qx_mom_client_connect(global_, db, count, nullptr);
    if (!host::run_until([&] { return connected == kDatabases.size(); }, kConnectLimit))
      throw Problem(kNoProcess, "cannot listen for changes on the server");
    const auto push = [&each](const auto &line) {
      if (!each(line())) host::stop_loop();
    };
    const auto changes = begin(args, push);
    qx_global_run(global_);
  }

 private:
  static void check(const std::string &why) {
    if (!why.empty()) throw Problem(kUsage, why);
  }

  // Fails at once, whereas a process that starts beside the server would wait for it.
  static void must_answer(const std::string &url) {
    host::mom::RedisEndpoint endpoint;
    check(host::mom::configured_endpoint(host::config().mom, &endpoint));
    endpoint.client = "kelimctl";
    const std::chrono::milliseconds limit(host::config().mom.sync_timeout_ms);
    host::mom::SyncConnection connection(endpoint, QX_MOM_UDP_DB, limit);
    connection.set_deadline(std::chrono::steady_clock::now() + limit);
    std::string why = host::mom::resolve(&endpoint);
    if (why.empty()) why = connection.open();
    if (!why.empty()) throw Problem(kNoProcess, "mom.url " + url + ": " + why);
  }

  static std::shared_ptr<void> begin(const Json &args, host::control::Push push) {
    try {
      return host::mom::watch(*host::mom::hub(), args, std::move(push));
    } catch (const host::control::Refusal &error) {
      throw Problem(kUsage, error.what());
    }
  }

  InDaemon daemon_;
  qx_global *global_ = nullptr;
};

}  // namespace

std::unique_ptr<Database> open_database(Link &link) {
  if (host::config().mom.url == "embedded:") return std::make_unique<InDaemon>(link);
  return std::make_unique<InServer>(link);
}

}  // namespace kelimctl
