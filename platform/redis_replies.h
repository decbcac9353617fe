// Replies in bounds. A reply that announces more elements than anything asked for can have is refused before memory is taken
// for it. What is pushed comes a million times a second at best: hiredis' own replies, eight allocations a push, would cost
// as much as all the rest, so a subscriber's replies use their memory again. No lock: one connection's owner.
#pragma once

#include <hiredis.h>

#include <deque>
#include <string>
#include <vector>

namespace tq {

// Hooks of one connection's reader. `kept_` only grows: a reply of the usual shape allocates nothing.
class RedisReplies {
public:
    // From now on the reader's replies are in bounds; with `kept` they are these: each is good until the next one is begun.
    void serve(redisReader &reader, bool kept);
    void begin_next();
    bool exceeded() const { return exceeded_; }

private:
    // One reply and the memory that it points into, which a later reply uses again: so it must not move.
    struct Kept {
        redisReply reply;
        std::string text;
        std::vector<redisReply *> elements;
    };
    static RedisReplies &of(const redisReadTask *task) { return *static_cast<RedisReplies *>(task->privdata); }
    static void *make_string(const redisReadTask *task, char *text, size_t size);
    static void *make_array(const redisReadTask *task, size_t size);
    static void *make_integer(const redisReadTask *task, long long value);
    static void *make_nil(const redisReadTask *task);
    template <class Fill> static void *make(const redisReadTask &task, Fill fill);
    bool within_bounds(size_t more_elements);

    std::deque<Kept> kept_;  // they do not move
    size_t used_ = 0;
    size_t elements_ = 0, most_elements_ = 0;  // announced by the reply that is being read, arrays within it too
    bool exceeded_ = false;
};

}  // namespace tq
