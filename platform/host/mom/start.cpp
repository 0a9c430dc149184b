// The client's place in the life of the runtime.
#include <algorithm>
#include <memory>

#include "host/mom/embedded.h"
#include "host/mom/hub.h"
#include "host/mom/testing.h"
#include "host/runtime/services.h"
#include "qx_zlog.h"

namespace mom {

namespace {

Hub *living = nullptr;  // from qx_global_init to qx_global_finish; a process that exits inside a callback keeps it

int start(qx_global *) {
  auto hub = std::make_unique<Hub>();
  hub->adopt(std::make_unique<Embedded>(*hub));
  living = hub.release();
  host::at_finish([] {
    delete std::exchange(living, nullptr);
    cgst::reset();
  });
  return 0;
}

[[maybe_unused]] const bool registered = [] {
  host::at_start("object database", start);
  return true;
}();

void log(int level, long line, const std::string &text) {
  static constexpr std::string_view kFile = "platform/host/mom";
  qxdf_zlog(qx_zlog_init("mom"), kFile.data(), kFile.size(), "mom", 3, line, level, "%s", text.c_str());
}

}  // namespace

Hub *hub() {
  return living;
}

void log_error(const std::string &text) {
  log(QX_ZLOG_ERROR, __LINE__, text);
}

void log_info(const std::string &text) {
  log(QX_ZLOG_VERBOSE, __LINE__, text);
}

namespace testing {

void provoke_reconnect(int32_t number, int32_t type) {
  Database *db = hub()->database(number);
  hub()->later().act([db, type] {
    hub()->store().provoke_reconnect(*db, type);
    hub()->reconnect(*db, type);
  });
}

bool put_raw(int32_t number, std::string_view text, std::span<const uint8_t> bytes) {
  const RecordType *type = RecordType::named(text.substr(0, text.find(':')));
  const auto key = type ? type->parse(text) : std::nullopt;
  return key && hub()->store().set(hub()->slot(*hub()->database(number), *type), *key, bytes, std::nullopt) == 0;
}

uint64_t skipped() {
  uint64_t total = 0;
  for (const auto &[kind, count] : hub()->skipped()) total += count;
  return total;
}

}  // namespace testing

}  // namespace mom
