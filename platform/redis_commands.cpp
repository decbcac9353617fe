// The calls of a store on a Redis server that wait for an answer: reads, writes, and what is told of those that are refused.
// Any thread; mutex_ is held for a moment before and after, never while an answer is waited for, which is the link's lock.
#include "platform/redis_store.h"
#include "tq_dm_cache/tq_platform_bundled.h"

namespace tq {

namespace {

// Their answers wait at the server until all of them are sent, and other callers until all of these are there.
constexpr size_t commands_at_a_time = 256, bytes_at_a_time = 256 << 10;

bool hash_is_refused(const redisReply &error) {
    return text_of(error).starts_with("NOSCRIPT") || text_of(error).starts_with("NOPERM");
}

// What the whole server refuses, whatever it is asked to write.
bool is_of_server(std::string_view word) {
    return word == "OOM" || word == "MISCONF" || word == "READONLY" || word == "NOREPLICAS" || word == "MASTERDOWN";
}

bool is_nil(const redisReply &reply) {
    return reply.type == REDIS_REPLY_NIL;
}
bool is_number(const redisReply &reply) {
    return reply.type == REDIS_REPLY_INTEGER;
}

}  // namespace

int32_t RedisStore::call(const Words &words, Reply &reply, uint64_t &connection) {
    {
        const std::lock_guard lock(mutex_);
        if (!up_) return TQ_MOM_E_UNREACHABLE;
        connection = connection_;
    }
    reply = link_.call(words);
    if (reply) return 0;
    lose(connection, nullptr);
    return TQ_MOM_E_UNREACHABLE;
}

int32_t RedisStore::carry_out(const Command &command, Reply &reply) {
    uint64_t connection = 0;
    if (const int32_t error = call(command.words, reply, connection)) return error;
    return judge(command, *reply, connection);
}

// A script by its hash. A server that does not know it yet, or a user who may not name it so, has the text sent.
int32_t RedisStore::run(const Script &script, const std::string &hash, Words words, IsAnswer is_answer, Reply &reply) {
    words.insert(words.begin(), {"EVALSHA", script.hash, "1", hash});
    Command command = {/*is_write=*/true, hash, std::move(words), is_answer};
    uint64_t connection = 0;
    if (const int32_t error = call(command.words, reply, connection)) return error;
    if (!is_error(*reply) || !hash_is_refused(*reply)) return judge(command, *reply, connection);
    command.words[0] = "EVAL";
    command.words[1] = script.text;
    return carry_out(command, reply);
}

// An answer of another type than the request can have is no answer: the server is not what it should be.
int32_t RedisStore::judge(const Command &command, const redisReply &reply, uint64_t connection) {
    if (is_error(reply)) return refused(command, text_of(reply), connection);
    if (!command.is_answer(reply)) {
        lose(connection, other_answer);
        return TQ_MOM_E_UNREACHABLE;
    }
    const std::lock_guard lock(mutex_);
    for (auto &[about, trouble] : call_troubles_) {
        if (about.second == command.is_write && (about.first == command.hash || is_of_server(about.first)))
            trouble.end();
    }
    return 0;
}

int32_t RedisStore::refused(const Command &command, std::string_view error, uint64_t connection) {
    const std::string word(error.substr(0, error.find(' ')));
    const std::string text(error.substr(0, error.find(" script: ")));  // which one it was is nobody's business
    {
        const std::lock_guard lock(mutex_);
        const auto about = std::pair(is_of_server(word) ? word : command.hash, command.is_write);
        Trouble &trouble = call_troubles_.try_emplace(about, url_.shown).first->second;
        trouble.say((is_of_server(word) ? "refused: " : command.hash + ": refused: ") + text);
    }
    if (word == "READONLY") lose(connection, no_master);
    return TQ_MOM_E_REFUSED;
}

int32_t RedisStore::read(const Place &place, const std::string &key, ObjectPtr &found) {
    const auto is_answer = [](const redisReply &reply) {
        return reply.type == REDIS_REPLY_STRING || reply.type == REDIS_REPLY_NIL;
    };
    const std::string hash = hash_of(place);
    Reply reply;
    if (const int32_t error = carry_out({false, hash, {"HGET", hash, key}, is_answer}, reply)) return error;
    if (reply->type == REDIS_REPLY_NIL) return TQ_MOM_E_NOT_FOUND;
    found = new_object(key, text_of(*reply));
    return 0;
}

int32_t RedisStore::read_all(const Place &place, std::vector<ObjectPtr> &objects) {
    const std::string hash = hash_of(place);
    Reply reply;
    if (const int32_t error = carry_out({false, hash, {"HGETALL", hash}, is_list_of_pairs}, reply)) return error;
    objects = objects_of(*reply);
    return 0;
}

int32_t RedisStore::write(const Place &place, Object object) {
    Reply reply;
    return run(write_script, hash_of(place), {object.key, object.bytes, channel_of(place, object.key)}, is_nil, reply);
}

void RedisStore::Progress::note(int32_t error) {
    if (error == 0) {
        ++taken;
    } else if (code == 0) {
        refused_at = answered;
        code = error;
    }
    ++answered;
}

// The first one makes the server know the script. Should it forget it on the way, the rest goes one by one.
int32_t RedisStore::write_many(const std::vector<Write> &writes, size_t &taken, size_t &refused_at) {
    taken = 0;
    refused_at = writes.size();
    if (writes.empty()) return 0;
    Progress progress = {taken, refused_at};
    progress.note(write(writes[0].place, writes[0].object));
    write_groups(writes, progress);
    while (progress.code == 0 && progress.answered < writes.size()) {
        const auto &[place, object] = writes[progress.answered];
        progress.note(write(place, object));
    }
    return progress.code;
}

// Until one is refused, or the server does not know the script any more. After that the rest of the group is answered, too.
void RedisStore::write_groups(const std::vector<Write> &writes, Progress &progress) {
    uint64_t connection = 0;
    {
        const std::lock_guard lock(mutex_);
        connection = connection_;
    }
    while (progress.code == 0 && progress.answered < writes.size()) {
        const size_t begin = progress.answered;
        size_t end = begin;
        std::string bytes;
        for (; end < writes.size() && end < begin + commands_at_a_time && bytes.size() < bytes_at_a_time; ++end) {
            const auto &[place, object] = writes[end];
            bytes += formatted({"EVALSHA", write_script.hash, "1", hash_of(place), object.key, object.bytes,
                                channel_of(place, object.key)});
        }
        const std::vector<Reply> replies = link_.call_many(end - begin, bytes);
        for (const Reply &reply : replies) {
            if (is_error(*reply) && hash_is_refused(*reply)) break;
            const Place &place = writes[progress.answered].place;
            progress.note(is_nil(*reply) ? 0 : judge({true, hash_of(place), {}, is_nil}, *reply, connection));
        }
        if (replies.size() < end - begin) {
            lose(connection, nullptr);
            progress.note(TQ_MOM_E_UNREACHABLE);
        }
        if (progress.answered < end) return;
    }
}

int32_t RedisStore::erase(const Place &place, const std::string &key) {
    Reply reply;
    if (const int32_t error = run(erase_script, hash_of(place), {key, channel_of(place, key)}, is_number, reply))
        return error;
    return reply->integer == 1 ? 0 : TQ_MOM_E_NOT_FOUND;
}

int32_t RedisStore::replace(const Place &place, const ObjectPtr &before, const ObjectPtr &after) {
    const std::string expected = before ? "=" + before->bytes : "";
    const std::string &key = (after ? after : before)->key;
    const std::string hash = hash_of(place), channel = channel_of(place, key);
    const auto is_answer = [](const redisReply &reply) { return is_nil(reply) || is_number(reply); };
    Reply reply;
    const int32_t error = after ? run(write_script, hash, {key, after->bytes, channel, expected}, is_answer, reply)
                                : run(erase_script, hash, {key, channel, expected}, is_answer, reply);
    if (error) return error;
    return is_number(*reply) && reply->integer == 0 ? TQ_MOM_E_CHANGED : 0;
}

}  // namespace tq
