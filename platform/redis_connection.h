// One connection to a Redis server: commands out, replies in. Its owner says who may touch it. mutex_ guards the life of the
// descriptor, for shut() and received() come from any thread.
#pragma once

#include <hiredis.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "platform/redis_replies.h"
#include "platform/redis_url.h"

namespace tq {

// One that its connection keeps is not freed.
struct FreeReply {
    bool kept = false;
    void operator()(redisReply *reply) const {
        if (!kept) freeReplyObject(reply);
    }
};
using Reply = std::unique_ptr<redisReply, FreeReply>;

inline std::string_view text_of(const redisReply &reply) {
    return reply.str ? std::string_view(reply.str, reply.len) : std::string_view();
}
inline bool is_error(const redisReply &reply) {
    return reply.type == REDIS_REPLY_ERROR;
}
// A server that takes no more clients says so before it reads anything: this is no answer to the credentials.
inline bool is_full(const redisReply &reply) {
    return is_error(reply) && text_of(reply).starts_with("ERR max number of clients");
}

using Words = std::vector<std::string_view>;

std::string formatted(const Words &command);
// What presents the credentials; empty when there are none.
std::string auth_command(const Credentials &credentials);

// What a server's list of clients calls the connections of one client. Any thread.
class ConnectionName {
public:
    ConnectionName();  // the program's
    void set(std::string_view name);
    std::string text() const;
    std::string command() const;  // tells the server; one that refuses it has nameless clients

private:
    mutable std::mutex mutex_;
    std::string name_;
};

// One thread at a time, but for shut(), by which another ends a wait. After a failure nothing that follows is believed:
// whoever owns the connection closes it.
class RedisConnection {
public:
    // What was wrong is told by fault(), here and below. A connection that does not block may still be on its way; one that
    // does waits for at most the limit for anything to be read or sent, and not beyond its deadline: the limit from here on,
    // until another one is set.
    bool open(const Address &server, std::chrono::milliseconds limit, bool is_blocking);
    void set_deadline(std::chrono::milliseconds from_now) { deadline_ = std::chrono::steady_clock::now() + from_now; }
    bool is_open() const { return context_ != nullptr; }
    void close();
    void shut();  // every read ends, and every read to come; the descriptor stays

    int fd() const { return context_->fd; }
    const std::string &fault() const { return fault_; }

    void add(const std::string &command) { out_ += command; }
    bool send();  // as much as goes
    bool all_sent() const { return out_.empty(); }

    uint64_t received() const { return received_; }       // bytes, ever
    enum class Received { failed, nothing, some, much };  // much: there may be more
    Received receive();
    // Null: none is complete, or, with a fault, what came is not the server's language. A connection that does not block
    // keeps its replies: each is good until the next one is asked for.
    Reply next();

private:
    struct FreeContext {
        void operator()(redisContext *context) const { redisFree(context); }
    };
    bool fail(const std::string &why);
    bool may_wait();

    bool blocking() const { return context_->flags & REDIS_BLOCK; }

    RedisReplies replies_;
    bool begun_ = false;  // a reply is half read
    std::mutex mutex_;
    std::unique_ptr<redisContext, FreeContext> context_;
    std::chrono::milliseconds limit_{}, may_wait_{};
    std::chrono::steady_clock::time_point deadline_;
    std::atomic<uint64_t> received_ = 0;
    std::string out_;
    std::string fault_;
};

}  // namespace tq
