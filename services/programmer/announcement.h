// Writes the target's capabilities into the database (proto/s_target.proto), or deletes those of an earlier target if it
// announces none. Loop's thread.
#pragma once

#include "programmer/catch_up.h"
#include "programmer/context.h"
#include "programmer/target.h"

namespace programmer {

class Announcement {
 public:
  Announcement(const Context &context, const Target &target)
      : context_(context),
        target_(target),
        catch_up_(
            context.global->master, [](void *self) { return static_cast<Announcement *>(self)->write(); }, this,
            "programmer announcement") {}

  // To be called when the database is connected, before the flows are subscribed to, so that the announcement precedes the first
  // answer.
  void announce() { catch_up_.now(); }
  // A notification of the record's type: announces again once the database has come back.
  void notified(const qx_obj &msg) {
    if (msg.cmd == QX_MOM_CMD_DATA_FETCH) announce();
  }

 private:
  // False when the database did not accept it.
  bool write();

  const Context &context_;
  const Target &target_;
  CatchUp catch_up_;
};

}  // namespace programmer
