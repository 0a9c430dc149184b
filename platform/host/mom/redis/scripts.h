// The scripts for decisions that only the server can make. Each works on one type in one database; KEYS[1] is the type's index. A
// deletion is published as a notification of kind "D". The layout of index, values and notifications is in redis_store.h.
#pragma once

#include <string>
#include <string_view>

namespace host::mom {

struct RedisScript {
  std::string_view text;
  std::string sha;  // SHA-1 of the text in hexadecimal, the script's name on the server
};

namespace scripts {

// Deletes objects. KEYS: index. ARGV: prefix of object keys, channel, channel of deletions, then alternately notifications to
// pass on unchanged and the member to delete after them, and finally notifications. Publishes one message on each channel;
// returns the number of objects that existed.
const RedisScript &del();
// Writes an object of a hash-class type; "C" or "R" begins its notification. KEYS: index, object. ARGV: member, channel, stored
// value, end of the notification.
const RedisScript &put();
// Writes an object of any type unless it exists: returns 0, or 1 when it exists. The same arguments, and ARGV[5], which begins
// the notification.
const RedisScript &put_if_absent();
// The next three walk the index in parts, so that the server can serve other clients in between. KEYS: index. ARGV: cursor ("0"
// at first), state of the pass ("" at first), prefix of object keys, and more. They return cursor and state for the next part;
// the cursor "0" ends the pass.
//
// Puts every object under expiry. More: milliseconds, channel, channel of deletions, microseconds added for each object.
const RedisScript &expire_part();
// Cancels the expiry of every object.
const RedisScript &persist_part();
// Has the server delete and announce the objects that are past their deadline.
const RedisScript &notice_part();
// Removes members without an object from the index. KEYS: index. ARGV: prefix, members.
const RedisScript &forget();

}  // namespace scripts

// The text of each script, for loading.
std::string_view script_text(std::size_t number);  // empty after the last

}  // namespace host::mom
