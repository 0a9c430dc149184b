// The operator's views of the database: through the control socket of a process (views "mom" and "congestion", feed "mom"), or
// through kelimctl's own connection to the server. Loop's thread.
//
// A query by its argument "op":
//   stats                     per database and type: objects, bytes, subscribers
//   client                    this process: databases connected, notifications delivered, writes refused, values skipped
//   ls {type, db?, limit?}    canonical keys
//   scan {type, db?, limit?}  keys with decoded records
//   get {key, db?}            one decoded record; for a list of up to 100 keys, the records that exist
// The feed sends a line for each change {type?, db?}. Without "db" it covers all databases, without "type" all types of the
// schema.
#pragma once

#include <functional>
#include <memory>
#include <nlohmann/json_fwd.hpp>

#include "host/control/control.h"

namespace host::mom {

class Hub;

// The views last until the runtime is released.
void register_views(Hub &hub);

// Throws host::control::Refusal for an invalid request, std::runtime_error when the database does not answer.
nlohmann::ordered_json query(Hub &hub, const nlohmann::json &args);

// Feeds `push` with changes until the result is released: first {"live": N} once N types are watched, then {"at_us", "db",
// "type", "change", "packed"} for each, with "key" if the store knows it. The record stays packed because its reader has more
// time to decode it than the loop.
std::shared_ptr<void> watch(Hub &hub, const nlohmann::json &args, control::Push push);

// A change of the feed in readable form: {"at", "db", "change", "key", "record"}; "record" says so if the bytes are not a record.
nlohmann::ordered_json decode_change(const nlohmann::json &change);

}  // namespace host::mom
