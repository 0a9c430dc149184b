// What kelimctl sees of the database: views "mom" and "congestion" of the control service. Loop's thread.
//
// "mom" by its argument "op":
//   stats                     per database and type: objects, bytes, subscribers; deliveries; what was skipped
//   ls {type, db?, limit?}    canonical keys
//   scan {type, db?, limit?}  keys with decoded records
//   get {key, db?}            one decoded record
// Without "db" every database that the type is found in.
#pragma once

namespace mom {

class Hub;

// Until the runtime is released.
void register_views(Hub &hub);

}  // namespace mom
