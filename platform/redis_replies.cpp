// Replies in bounds, filled by hiredis' reader, whose versions differ in the functions that they take. No exception passes
// through it: null tells it that a reply cannot be made.
#include "platform/redis_replies.h"

#include <exception>

namespace tq {

namespace {

constexpr size_t most_pushed = 64, most_asked_for = 4'000'000;  // elements; the whole of a kind of 2,000,000 objects

}  // namespace

void RedisReplies::serve(redisReader &reader, bool kept) {
    static redisReplyObjectFunctions hiredis = *reader.fn;
    static redisReplyObjectFunctions bounded = [] {
        redisReplyObjectFunctions functions = hiredis;
        functions.createArray = [](const redisReadTask *task, auto size) -> void * {
            return of(task).within_bounds(static_cast<size_t>(size)) ? hiredis.createArray(task, size) : nullptr;
        };
        return functions;
    }();
    static redisReplyObjectFunctions reused = [] {
        redisReplyObjectFunctions functions = hiredis;  // a server asked in its old protocol sends nothing else
        functions.createString = make_string;
        functions.createArray = [](const redisReadTask *task, auto size) -> void * {
            return make_array(task, static_cast<size_t>(size));
        };
        functions.createInteger = make_integer;
        functions.createNil = make_nil;
        functions.freeObject = [](void *) {};
        return functions;
    }();
    reader.fn = kept ? &reused : &bounded;
    reader.privdata = this;
    most_elements_ = kept ? most_pushed : most_asked_for;
    begin_next();
}

void RedisReplies::begin_next() {
    used_ = 0;
    elements_ = 0;
    exceeded_ = false;
}

bool RedisReplies::within_bounds(size_t more_elements) {
    exceeded_ = more_elements > most_elements_ - elements_;
    if (!exceeded_) elements_ += more_elements;
    return !exceeded_;
}

template <class Fill> void *RedisReplies::make(const redisReadTask &task, Fill fill) {
    try {
        RedisReplies &replies = of(&task);
        if (replies.used_ == replies.kept_.size()) replies.kept_.emplace_back();
        Kept &kept = replies.kept_[replies.used_++];
        kept.reply = {};
        kept.reply.type = task.type;
        fill(kept);
        if (task.parent) static_cast<redisReply *>(task.parent->obj)->element[task.idx] = &kept.reply;
        return &kept.reply;
    } catch (const std::exception &) {
        return nullptr;
    }
}

void *RedisReplies::make_string(const redisReadTask *task, char *text, size_t size) {
    return make(*task, [&](Kept &kept) {
        kept.text.assign(text, size);
        kept.reply.str = kept.text.data();
        kept.reply.len = size;
    });
}

void *RedisReplies::make_array(const redisReadTask *task, size_t size) {
    if (!of(task).within_bounds(size)) return nullptr;
    return make(*task, [&](Kept &kept) {
        kept.elements.assign(size, nullptr);
        kept.reply.element = kept.elements.data();
        kept.reply.elements = kept.elements.size();
    });
}

void *RedisReplies::make_integer(const redisReadTask *task, long long value) {
    return make(*task, [&](Kept &kept) { kept.reply.integer = value; });
}

void *RedisReplies::make_nil(const redisReadTask *task) {
    return make(*task, [](Kept &kept) { kept.reply.type = REDIS_REPLY_NIL; });  // an array may be nil, too
}

}  // namespace tq
