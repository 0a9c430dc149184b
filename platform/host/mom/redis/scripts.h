// What the server must decide itself. Each script works on one type in one database; KEYS[1] is the type's index, a set of the
// keys' variable parts ("17:0"); stored values are the tag (8 bytes, little-endian) and the packed record. A deletion is
// published as a notification of kind "D"; redis_store.h has the layout.
#pragma once

#include <string>
#include <string_view>

namespace mom {

struct Script {
  std::string_view text;
  std::string sha;  // of the text, in hexadecimal; how the server names it
};

namespace scripts {

// KEYS: index. ARGV: prefix of object keys, channel, channel of deletions, then in turn notifications to pass on as they are and
// the member to delete behind them, and notifications at the end. One message on each channel; how many objects there were.
const Script &del();
// KEYS: index, object. ARGV: member, channel, stored value, notification's end. For hash-class types: "C" or "R" begins the
// notification.
const Script &put();
// The same and ARGV[5], what begins the notification. 0, or 1 when the object exists: nothing is written then.
const Script &put_if_absent();
// The next three go over the index in parts, so that the server is free for others in between. KEYS: index. ARGV: cursor ("0" at
// first), state of the pass ("" at first), prefix of object keys, and more. They give cursor and state for the next part; the
// cursor "0" ends the pass.
//
// More: milliseconds, channel, channel of deletions, microseconds added for each object. Puts every object under expiry.
const Script &expire_part();
// Takes every object out of expiry.
const Script &persist_part();
// Has the server notice, and tell, what is past its deadline.
const Script &notice_part();
// KEYS: index. ARGV: prefix, members. Takes out of the index what has no object any more.
const Script &forget();

}  // namespace scripts

// Every script, for loading.
std::string_view script_text(size_t number);  // empty after the last

}  // namespace mom
