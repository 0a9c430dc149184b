// Shared by all parts of the service: the platform handle, the log category, and the counts of unreadable records. Loop's thread.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "qx_mom.h"
#include "qx_zlog.h"
#include "record_reader.h"

// Logs one line of the service; the format must be a literal.
#define PROGRAMMER_LOG(context, level, ...) \
  qxdf_zlog((context).log, __FILE__, sizeof(__FILE__) - 1, __func__, sizeof(__func__) - 1, __LINE__, (level), __VA_ARGS__)

namespace programmer {

using records::Bytes;

inline constexpr std::int32_t kFlowDb = QX_MOM_UDP_DB;
inline constexpr std::int32_t kChainDb = QX_MOM_APP_DB;

struct Context {
  qx_global *global = nullptr;
  qx_zlog_category *log = nullptr;
  std::map<std::string, std::uint64_t> faults;  // count by kind
};

// Counts a malformed record or notification; the first of its kind is logged with its first bytes, which hold the key.
void report_fault(Context &context, const char *kind, Bytes record);

// The bytes of a notification of a packed subscription.
inline Bytes packed(const qx_obj &msg) {
  return {msg.packed, msg.packed_len};
}

// Calls `visit` with every object of the type of `any`, whose key is all zeros. False when the database cannot be read.
template <typename Record, typename Visit>
bool scan(const Context &context, std::int32_t db, const Record &any, Visit visit) {
  const auto call = [](const qx_obj *object, void *self) {
    (*static_cast<Visit *>(self))(*object);
    return 0;
  };
  return qx_mom_scan_sync(context.global, db, &any.base, 0, call, &visit) == 0;
}

}  // namespace programmer
