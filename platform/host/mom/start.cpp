// Chooses the store and makes the hub when the runtime starts, and implements testing.h.
#include <algorithm>
#include <memory>

#include "host/base/loop.h"
#include "host/base/services.h"
#include "host/config/config.h"
#include "host/mom/embedded/embedded.h"
#include "host/mom/hub.h"
#include "host/mom/metrics.h"
#include "host/mom/redis/redis_store.h"
#include "host/mom/testing.h"
#include "host/mom/views.h"

namespace host::mom {

namespace {

// The number of full topics at which the pipeline refuses writes of any type.
constexpr std::uint64_t kPipelineFactor = 2;

Hub *living = nullptr;  // from qx_global_init to qx_global_finish; deliberately leaked by a process that exits inside a callback

// Returns "" or why no store could be opened.
std::string choose_store(Hub &hub, const Config::Mom &mom) {
  if (mom.url == "embedded:") {
    hub.adopt(std::make_unique<Embedded>(hub, hub.later()));
    return "";
  }
  RedisEndpoint endpoint;
  if (std::string why = configured_endpoint(mom, &endpoint); !why.empty()) return why;
  auto store = std::make_unique<RedisStore>(hub, hub.later(), std::move(endpoint), mom);
  std::string why = store->probe();
  hub.adopt(std::move(store));
  return why;
}

// Runs at qx_global_init, or earlier when another service of the host connects in its own start.
int start(qx_global *) {
  if (living) return 0;
  const auto &mom = config().mom;
  const auto whole = [](std::uint64_t topic) {
    return topic > UINT64_MAX / kPipelineFactor ? UINT64_MAX : kPipelineFactor * topic;
  };
  cgst::set_limits({mom.high_water_writes, mom.high_water_bytes}, {whole(mom.high_water_writes), whole(mom.high_water_bytes)});
  auto hub = std::make_unique<Hub>();
  if (const std::string why = choose_store(*hub, mom); !why.empty()) {
    start_error(why);
    return -1;
  }
  living = hub.release();
  register_views(*living);
  register_metrics(*living);
  at_finish([] {
    delete std::exchange(living, nullptr);
    cgst::reset();
  });
  return 0;
}

[[maybe_unused]] const bool registered = [] {
  at_start("object database", start);
  return true;
}();

}  // namespace

Hub *hub() {
  assert_loop_thread();
  if (!living && current_global()) start(current_global());
  return living;
}

namespace testing {

void provoke_reconnect(std::int32_t number, std::int32_t type) {
  Database *db = hub()->database(number);
  hub()->later().act([db, type] {
    hub()->store().provoke_reconnect(*db, type);
    hub()->reconnect(*db, type);
  });
}

bool put_raw(std::int32_t number, std::string_view text, std::span<const std::uint8_t> bytes) {
  const RecordType *type = RecordType::named(text.substr(0, text.find(':')));
  const auto key = type ? type->parse(text) : std::nullopt;
  return key && hub()->store().set(hub()->slot(*hub()->database(number), *type), *key, bytes, std::nullopt) == 0;
}

std::uint64_t skipped() {
  std::uint64_t total = 0;
  for (const auto &[kind, count] : hub()->skipped()) total += count;
  return total;
}

}  // namespace testing

}  // namespace host::mom
