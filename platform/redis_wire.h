// What a store on a Redis server looks like there: names of keys and channels, the scripts that the server runs, and the
// frames that they publish. No state, no lock.
//
// A kind of a database is one hash: the packed objects by their packed keys. The channel of the same name tells every
// change, and one channel an object tells those who follow fields of it. What a client asked for itself (marks of its
// scans, echoes) comes by its private channel. A script and a transaction run alone, so what they read, write and publish
// is one moment in the one order that the server gives to all its subscribers.
//
// A page of a scan is a transaction on the command connection: a mark by the private channel, and HSCAN. The mark says
// where in the order the page belongs, which is the transaction's answer.
//
// A frame is a letter and strings, each behind its length as four bytes, highest first:
//   S key value          was set                      C key value before   was replaced, to followers of fields
//   D key                was deleted                  M scan               here a scan's next page belongs
//   E identity hashes number
//                        an echo: what the server is just now, a digit for each hash that was asked about, 1: it exists, and
//                        the number that the asker gave it
//
// Beside the kinds there is one more hash, dm:store. Under `id` it has a random identifier that the first client writes: with the
// server's own names it makes the identity of the content. Another one, and all that was read before means nothing.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "platform/redis_connection.h"
#include "platform/store.h"

namespace tq {

std::string hash_of(const Place &place);  // and its channel
std::string channel_of(const Place &place, const std::string &key);
std::string random_id();
std::string new_private_channel();

ObjectPtr new_object(std::string_view key, std::string_view bytes);
// The objects of a hash, or of a page of it: keys and values by turns.
bool is_list_of_pairs(const redisReply &reply);
std::vector<ObjectPtr> objects_of(const redisReply &list);

// What one push on a channel says.
struct Frame {
    char letter = 0;
    std::vector<std::string_view> strings;
};

std::string mark_frame(uint64_t scan);

// False: it is none, or has the wrong number of strings for its letter.
bool parse_frame(std::string_view bytes, Frame &frame);

// A script goes by its hash; a server that does not know it yet is given the text.
struct Script {
    std::string_view text;
    std::string_view hash;
};

// Nothing is changed unless everyone can be told: permissions are asked and frames are made before the change. What is
// published is not replicated: nobody hears it at a replica.

// KEYS: the hash. ARGV: key, value, the object's channel, and, if only that may be replaced, '=' and the stored value, or
// '' for none: then 0 is answered when it is another one.
inline constexpr Script write_script = {R"(
local h, k, v, c, e = KEYS[1], ARGV[1], ARGV[2], ARGV[3], ARGV[4]
local fields = redis.call('PUBSUB', 'NUMSUB', c)[2] > 0
local before = (fields or e) and redis.call('HGET', h, k)
if e and (before and '=' .. before or '') ~= e then return 0 end
local m = struct.pack('>I4c0I4c0', #k, k, #v, v)
local s, f = 'S' .. m, 'S' .. m
if before and fields then f = 'C' .. m .. struct.pack('>I4c0', #before, before) end
for _, name in ipairs(fields and {h, c} or {h}) do
    if not redis.acl_check_cmd('PUBLISH', name, '') then return redis.error_reply('NOPERM nothing is changed: no permission to publish by ' .. name) end
end
redis.call('HSET', h, k, v)
redis.set_repl(redis.REPL_NONE)
redis.call('PUBLISH', h, s)
if fields then redis.call('PUBLISH', c, f) end)",
                                        "c48852a5a101141d19fffc5b55879f4b02f26d0a"};

// KEYS: the hash. ARGV: key, the object's channel, and as above. Answers 0 when there is no such object.
inline constexpr Script erase_script = {R"(
local h, k, c, e = KEYS[1], ARGV[1], ARGV[2], ARGV[3]
if e and '=' .. (redis.call('HGET', h, k) or '') ~= e then return 0 end
local m = struct.pack('>c0I4c0', 'D', #k, k)
for _, name in ipairs({h, c}) do
    if not redis.acl_check_cmd('PUBLISH', name, '') then return redis.error_reply('NOPERM nothing is changed: no permission to publish by ' .. name) end
end
if redis.call('HDEL', h, k) == 0 then return 0 end
redis.set_repl(redis.REPL_NONE)
redis.call('PUBLISH', h, m)
redis.call('PUBLISH', c, m)
return 1)",
                                        "72e8c2e618417c68c1cfc5963704cb2f0a60e224"};

// ARGV: the private channel, the frame.
inline constexpr std::string_view mark_script =
    "redis.set_repl(redis.REPL_NONE) redis.call('PUBLISH', ARGV[1], ARGV[2])";

}  // namespace tq
