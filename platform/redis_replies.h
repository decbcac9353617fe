// Replies that use their memory again. What is pushed comes a million times a second at best: hiredis' own replies, eight
// allocations a push, would cost as much as all the rest. No lock: one connection's owner.
#ifndef TQ_PLATFORM_REDIS_REPLIES_H
#define TQ_PLATFORM_REDIS_REPLIES_H

#include <hiredis.h>

#include <deque>
#include <string>
#include <vector>

namespace tq {

class RedisReplies {
public:
    // From now on the reader's replies are these: each is good until the next one is begun.
    void serve(redisReader &reader);
    void begin_next() { used_ = 0; }

private:
    struct Kept {
        redisReply reply;
        std::string text;
        std::vector<redisReply *> elements;
    };
    static void *make_string(const redisReadTask *task, char *text, size_t size);
    static void *make_array(const redisReadTask *task, int size);
    static void *make_integer(const redisReadTask *task, long long value);
    static void *make_nil(const redisReadTask *task);
    template <class Fill> static void *make(const redisReadTask &task, Fill fill);

    std::deque<Kept> kept_;  // they do not move
    size_t used_ = 0;
};

}  // namespace tq

#endif
