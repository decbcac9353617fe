// One connection to a Redis server: commands out, replies in. Takes no lock: its owner says who may touch it.
#ifndef TQ_PLATFORM_REDIS_CONNECTION_H
#define TQ_PLATFORM_REDIS_CONNECTION_H

#include <hiredis.h>

#include <memory>
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
std::string auth_command(const RedisUrl &url);

class RedisConnection {
public:
    // What was wrong is told by fault(), here and below. A connection that does not block may still be on its way.
    bool open(const RedisUrl &url, bool is_blocking);
    bool is_open() const { return context_ != nullptr; }
    void close() { context_.reset(); }
    void shut();  // every read ends; the descriptor stays

    int fd() const { return context_->fd; }
    const std::string &fault() const { return fault_; }

    void add(const std::string &command) { out_ += command; }
    bool send();  // as much as goes
    bool all_sent() const { return out_.empty(); }

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

    bool blocking() const { return context_->flags & REDIS_BLOCK; }

    RedisReplies replies_;
    bool begun_ = false;  // a reply is half read
    std::unique_ptr<redisContext, FreeContext> context_;
    std::string out_;
    std::string fault_;
};

}  // namespace tq

#endif
