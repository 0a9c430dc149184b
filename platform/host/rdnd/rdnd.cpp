// A host is its own and only supervisor: every process begins its work in the first turn of its loop. Another process of the same
// name on the same databases waits until the first has ended.
#include "host/base/loop.h"
#include "host/base/services.h"
#include "host/fault/fault.h"
#include "host/mom/hub.h"
#include "rdnd_lib.h"

int rdnd_lib_mom_reg(const rdnd_lib_reg *reg) {
  if (!reg || !reg->name || !reg->role_cb || !reg->state_cb) return QX_INVALID;
  if (const int rv = host::fault::check(host::fault::Point::rdnd_reg)) return rv;
  for (std::size_t n = 0; n < reg->db_count; ++n)
    if (host::mom::Database *db = host::mom::hub() ? host::mom::hub()->database(reg->dbs[n]) : nullptr) db->exclusive = true;
  host::post([name = std::string(reg->name), take_up = reg->role_cb] {
    if (const int rv = take_up(nullptr, nullptr); rv != 0)
      host::give_up(name + " did not take up its work (" + std::to_string(rv) + ")");
  });
  return 0;
}
