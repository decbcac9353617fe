// Asks the cache by its public functions only.
#include "tests/support/listener.h"

#include "tests/support/seeds.h"
#include "tq_dm_cache/dm_cache.h"

void add(Picture &picture, const ProtobufCMessage *object) {
    picture[key_bytes(object)] = packed(object);
}

Picture cached_picture(int32_t row) {
    const auto visit = [](ProtobufCMessage *object, uintptr_t *picture) {
        add(*reinterpret_cast<Picture *>(*picture), object);
        return 0;
    };
    Picture picture;
    dm_cache_lock();
    dm_cache_foreach_obj(row, visit, reinterpret_cast<uintptr_t>(&picture));
    dm_cache_unlock();
    return picture;
}

dm_cache_stats counters(int32_t row) {
    dm_cache_stats stats{};
    dm_cache_get_stats(row, &stats, sizeof stats);
    return stats;
}

bool cache_shows(int32_t row, const ProtobufCMessage *key, const ProtobufCMessage *object) {
    const ProtobufCMessage *found = nullptr;
    dm_cache_lock();
    dm_cache_get_obj(row, key, &found);
    const bool shows = object ? found && equal(found, object) : !found;
    dm_cache_unlock();
    return shows;
}

std::string difference(const Picture &cache, const Picture &wanted) {
    for (const auto &[key, bytes] : wanted) {
        const auto found = cache.find(key);
        if (found == cache.end()) return "an object of the store is not cached";
        if (found->second != bytes) return "an object is cached, but not what the store has";
    }
    return cache.size() > wanted.size() ? "objects are cached that the store does not have" : "";
}

void Listener::told(int32_t row, int32_t operation, const ProtobufCMessage *message) {
    const std::lock_guard lock(mutex_);
    Heard &heard = rows_[static_cast<size_t>(row)];
    const std::string key = key_bytes(message);
    const bool known = heard.objects.contains(key), deleted = operation == DM_CACHE_DELETED;
    if (!cache_shows(row, key_message(message), deleted ? nullptr : message))
        fail("row %d: a change is told that the cache does not show", row);
    // An object that is new though it was known has been swept meanwhile.
    heard.swept += operation == DM_CACHE_ADDED && known;
    if (operation != DM_CACHE_ADDED && !known) fail("row %d: operation %d, but it was not there", row, operation);
    if (deleted && heard.objects[key] != packed(message))
        fail("row %d: a delete tells another object than was cached", row);
    ++(deleted ? heard.deletes : heard.sets);
    heard.objects.erase(key);
    if (!deleted) add(heard.objects, message);
}

void Listener::sets_own(int32_t row, const ProtobufCMessage *object) {
    const std::lock_guard lock(mutex_);
    Heard &heard = rows_[static_cast<size_t>(row)];
    heard.swept += heard.objects.contains(key_bytes(object)) && cache_shows(row, key_message(object), nullptr);
    add(heard.objects, object);
}

void Listener::begins_with(int32_t row, Picture cached) {
    const std::lock_guard lock(mutex_);
    rows_[static_cast<size_t>(row)].objects = std::move(cached);
}

// What was swept is remembered until it comes again: nobody is told when it goes.
std::string Listener::difference(int32_t row, const Picture &cache) const {
    const std::lock_guard lock(mutex_);
    const Heard &heard = rows_[static_cast<size_t>(row)];
    Picture left = heard.objects;
    const size_t gone = std::erase_if(left, [&](const auto &entry) { return !cache.contains(entry.first); });
    if (left != cache) return "callbacks told something else than what is cached";
    const dm_cache_stats stats = counters(row);
    if (!stats.subscribed || !stats.scanned) return "not subscribed or not scanned";
    const bool counted = stats.objects == cache.size() && stats.sets == heard.sets && stats.deletes == heard.deletes &&
                         stats.swept == heard.swept + gone;
    return counted ? "" : "the counters are wrong";
}

Follower::Follower(int32_t row, uint32_t flags) : row_(row), flags_(flags) {
    dm_cache_lock();  // nothing happens between the picture and the first event
    if (flags & DM_CACHE_FOLLOW_FROM_NOW) objects_ = cached_picture(row);
    if (dm_cache_follow(row, hear, this, flags) != 0) fail("row %d cannot be followed", row);
    dm_cache_unlock();
}

Follower::~Follower() {
    dm_cache_unfollow(row_, hear, this);
}

void Follower::hear(const dm_cache_event *event, void *self) {
    static_cast<Follower *>(self)->told(*event);
}

void Follower::told(const dm_cache_event &event) {
    const std::lock_guard lock(mutex_);
    const ProtobufCMessage *const any = event.after ? event.after : event.before;
    const std::string key = key_bytes(any), before = event.before ? packed(event.before) : "";
    const auto known = objects_.find(key);
    const bool is_new = event.what == DM_CACHE_EVENT_ADDED, stays_equal = event.what == DM_CACHE_EVENT_UNCHANGED;
    const bool is_gone = event.what == DM_CACHE_EVENT_DELETED || event.what == DM_CACHE_EVENT_SWEPT;
    if (event.type != row_ || !event.before != is_new || !event.after != is_gone)
        fail("row %d: an event of another shape", row_);
    if (is_new != (known == objects_.end()))
        fail("row %d: event %d of an object that is %s", row_, event.what, is_new ? "known" : "not known");
    if (!is_new && known->second != before) fail("row %d: an object was something else before than was told", row_);
    if (!is_gone && !is_new && stays_equal != (packed(event.after) == before))
        fail("row %d: event %d, but the content says otherwise", row_, event.what);
    if (stays_equal && !(flags_ & DM_CACHE_FOLLOW_UNCHANGED)) fail("row %d: told of what is unchanged", row_);
    if (is_filled_ && event.phase == DM_CACHE_PHASE_FIRST) fail("row %d: the first picture comes again", row_);
    is_filled_ |= event.phase != DM_CACHE_PHASE_FIRST;
    objects_.erase(key);
    if (!is_gone) add(objects_, event.after);
}

std::string Follower::difference(const Picture &cache) const {
    const std::lock_guard lock(mutex_);
    return objects_ == cache ? "" : "a follower was told something else than is cached";
}
