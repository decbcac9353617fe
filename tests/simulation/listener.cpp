// Asks the cache by its public functions only.
#include "tests/simulation/listener.h"

#include "tests/support/seeds.h"
#include "tq_dm_cache/dm_cache.h"
#include "tq_dm_cache/dm_cache_status.h"

std::string key_bytes(const ProtobufCMessage *object) {
    const ProtobufCMessage *key = key_of(object);
    return key ? packed(key) : "";
}

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

std::string difference(int32_t row, const Picture &cache, const Picture &wanted) {
    const std::string name = "row " + std::to_string(row) + ": ";
    for (const auto &[key, bytes] : wanted) {
        const auto found = cache.find(key);
        if (found == cache.end()) return name + "an object of the store is not cached";
        if (found->second != bytes) return name + "an object is cached, but not what the store has";
    }
    return cache.size() > wanted.size() ? name + "objects are cached that the store does not have" : "";
}

namespace {

bool cache_shows(int32_t row, int32_t operation, const ProtobufCMessage *message) {
    const ProtobufCMessage *found = nullptr;
    dm_cache_lock();
    dm_cache_get_obj(row, key_of(message), &found);
    const bool shows = operation == DM_CACHE_DELETED ? !found : found && equal(found, message);
    dm_cache_unlock();
    return shows;
}

}  // namespace

void Listener::told(int32_t row, int32_t operation, const ProtobufCMessage *message) {
    Heard &heard = rows_[static_cast<size_t>(row)];
    const std::string key = key_bytes(message);
    const bool known = heard.objects.contains(key);
    if (!cache_shows(row, operation, message)) fail("row %d: a change is told that the cache does not show", row);
    // An object that is new though it was known has been swept meanwhile.
    if (operation == DM_CACHE_ADDED && known) ++heard.swept;
    if (operation != DM_CACHE_ADDED && !known) fail("row %d: operation %d, but it was not there", row, operation);
    if (operation != DM_CACHE_DELETED) {
        ++heard.sets;
        heard.objects[key] = packed(message);
        return;
    }
    ++heard.deletes;
    if (heard.objects[key] != packed(message)) fail("row %d: a delete tells another object than was cached", row);
    heard.objects.erase(key);
}

void Listener::sets_own(int32_t row, const ProtobufCMessage *object) {
    Heard &heard = rows_[static_cast<size_t>(row)];
    const ProtobufCMessage *found = nullptr;
    dm_cache_get_obj(row, key_of(object), &found);
    if (!found && heard.objects.contains(key_bytes(object))) ++heard.swept;
    add(heard.objects, object);
}

// What was swept is remembered until it comes again: nobody is told when it goes.
std::string Listener::difference(int32_t row) const {
    const Heard &heard = rows_[static_cast<size_t>(row)];
    const Picture now = cached_picture(row);
    Picture left = heard.objects;
    const size_t gone = std::erase_if(left, [&](const auto &entry) { return !now.contains(entry.first); });
    const std::string name = "row " + std::to_string(row) + ": ";
    if (left != now) return name + "callbacks told something else than what is cached";
    dm_cache_stats stats{};
    dm_cache_get_stats(row, &stats, sizeof stats);
    if (!stats.subscribed || !stats.scanned) return name + "not subscribed or not scanned";
    const bool counted = stats.objects == now.size() && stats.sets == heard.sets && stats.deletes == heard.deletes &&
                         stats.swept == heard.swept + gone;
    return counted ? "" : name + "the counters are wrong";
}
