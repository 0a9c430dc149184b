#include "programmer/announcement.h"

#include "s_target.pb-c.h"

namespace programmer {

bool Announcement::write() {
  STarget__CapabilitiesKey key = S_TARGET__CAPABILITIES_KEY__INIT;
  key.unit = 1;
  STarget__Capabilities record = S_TARGET__CAPABILITIES__INIT;
  record.index = &key;
  const auto can = target_.capabilities();
  if (!can) {
    const int rv = qx_mom_del(context_.global, kFlowDb, &record.base, 0, 0);
    return rv == 0 || rv == QX_NOT_FOUND;
  }
  record.name = const_cast<char *>(can->name);
  record.flows = can->flows;
  record.meters = can->meters;
  record.bands = can->bands;
  record.queues = can->queues;
  record.match_fields = can->match_fields;
  record.set_fields = can->set_fields;
  record.actions = can->actions;
  record.several_outputs = can->several_outputs;
  record.tag_presence = can->tag_presence;
  record.forwards_packets = can->forwards_packets;
  return qx_mom_set(context_.global, kFlowDb, &record.base, 0, 0) == 0;
}

}  // namespace programmer
