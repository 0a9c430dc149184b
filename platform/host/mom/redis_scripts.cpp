#include "host/mom/redis_scripts.h"

#include <openssl/sha.h>

#include <array>

namespace mom {

namespace {

// Somebody else's value of another kind under one of our keys goes too, without a last record.
constexpr std::string_view kDel = R"(
local value = redis.pcall('GETDEL', KEYS[2])
redis.call('SREM', KEYS[1], ARGV[1])
if not value then return 0 end
if type(value) == 'table' then
  redis.call('DEL', KEYS[2])
  value = ''
end
redis.call('PUBLISH', ARGV[2], 'D' .. ARGV[1] .. '\0' .. string.sub(value, 9))
return 1)";

constexpr std::string_view kPut = R"(
local kind = redis.call('EXISTS', KEYS[2]) == 1 and 'R' or 'C'
redis.call('SET', KEYS[2], ARGV[3])
redis.call('SADD', KEYS[1], ARGV[1])
redis.call('PUBLISH', ARGV[2], kind .. ARGV[4])
return 0)";

constexpr std::string_view kPutIfAbsent = R"(
if redis.call('EXISTS', KEYS[2]) == 1 then return 1 end
redis.call('SET', KEYS[2], ARGV[3])
redis.call('SADD', KEYS[1], ARGV[1])
redis.call('PUBLISH', ARGV[2], ARGV[5] .. ARGV[4])
return 0)";

// The server's clock stands while a script runs, for about a microsecond an object and more when it is busy: 5 microseconds each
// are added so that nothing is past its deadline before the writes behind this script are looked at.
constexpr std::string_view kExpireAll = R"(
local members = redis.call('SMEMBERS', KEYS[1])
local ms = math.floor(ARGV[2] + #members / 200)
for i = 1, #members do redis.call('PEXPIRE', ARGV[1] .. members[i], ms) end
return #members)";

constexpr std::string_view kPersistAll = R"(
local members = redis.call('SMEMBERS', KEYS[1])
for i = 1, #members do redis.call('PERSIST', ARGV[1] .. members[i]) end
return #members)";

// What is none of our values has no tag.
constexpr std::string_view kDelTagged = R"(
local members = redis.call('SMEMBERS', KEYS[1])
local deleted = 0
for i = 1, #members do
  local key = ARGV[1] .. members[i]
  if redis.call('PTTL', key) >= 0 and redis.pcall('GETRANGE', key, 0, 7) == ARGV[3] then
    local value = redis.call('GETDEL', key)
    redis.call('SREM', KEYS[1], members[i])
    redis.call('PUBLISH', ARGV[2], 'D' .. members[i] .. '\0' .. string.sub(value, 9))
    deleted = deleted + 1
  end
end
return deleted)";

constexpr std::string_view kForget = R"(
for i = 2, #ARGV do
  if redis.call('EXISTS', ARGV[1] .. ARGV[i]) == 0 then redis.call('SREM', KEYS[1], ARGV[i]) end
end
return 0)";

constexpr std::array kAll = {kDel, kPut, kPutIfAbsent, kExpireAll, kPersistAll, kDelTagged, kForget};

Script make(std::string_view text) {
  std::array<unsigned char, SHA_DIGEST_LENGTH> digest;
  SHA1(reinterpret_cast<const unsigned char *>(text.data()), text.size(), digest.data());
  std::string sha;
  for (const unsigned char byte : digest) {
    constexpr std::string_view kDigits = "0123456789abcdef";
    sha += {kDigits[byte >> 4], kDigits[byte & 15]};
  }
  return {text, sha};
}

}  // namespace

namespace scripts {

const Script &del() {
  static const Script script = make(kDel);
  return script;
}
const Script &put() {
  static const Script script = make(kPut);
  return script;
}
const Script &put_if_absent() {
  static const Script script = make(kPutIfAbsent);
  return script;
}
const Script &expire_all() {
  static const Script script = make(kExpireAll);
  return script;
}
const Script &persist_all() {
  static const Script script = make(kPersistAll);
  return script;
}
const Script &del_tagged() {
  static const Script script = make(kDelTagged);
  return script;
}
const Script &forget() {
  static const Script script = make(kForget);
  return script;
}

}  // namespace scripts

std::string_view script_text(size_t number) {
  return number < kAll.size() ? kAll[number] : std::string_view();
}

}  // namespace mom
