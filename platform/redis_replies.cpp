// Replies that use their memory again, filled by hiredis' reader. No exception passes through it: null tells it that memory
// ran out.
#include "platform/redis_replies.h"

#include <new>

namespace tq {

void RedisReplies::serve(redisReader &reader) {
    static redisReplyObjectFunctions functions = {make_string, make_array, make_integer, make_nil, [](void *) {}};
    reader.fn = &functions;
    reader.privdata = this;
}

template <class Fill> void *RedisReplies::make(const redisReadTask &task, Fill fill) {
    try {
        auto &replies = *static_cast<RedisReplies *>(task.privdata);
        if (replies.used_ == replies.kept_.size()) replies.kept_.emplace_back();
        Kept &kept = replies.kept_[replies.used_++];
        kept.reply = {};
        kept.reply.type = task.type;
        fill(kept);
        if (task.parent) static_cast<redisReply *>(task.parent->obj)->element[task.idx] = &kept.reply;
        return &kept.reply;
    } catch (const std::bad_alloc &) {
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

void *RedisReplies::make_array(const redisReadTask *task, int size) {
    return make(*task, [&](Kept &kept) {
        kept.elements.assign(static_cast<size_t>(size), nullptr);
        kept.reply.element = kept.elements.data();
        kept.reply.elements = kept.elements.size();
    });
}

void *RedisReplies::make_integer(const redisReadTask *task, long long value) {
    return make(*task, [&](Kept &kept) { kept.reply.integer = value; });
}

void *RedisReplies::make_nil(const redisReadTask *task) {
    return make(*task, [](Kept &) {});
}

}  // namespace tq
