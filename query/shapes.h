// The shapes that queries share: a cached read, a walk, an owned copy, a text for a caller's buffer. A query reads cached
// objects through these and through the indexes of port_index/lookups.h only. What is borrowed must not leave the scope of
// its SharedCacheLock. A query that asks several things holds the lock over all of them, so that its answer was true at one
// moment; what it calls takes the shared side again, which it may.
//   cached_object(), walked_list(), cached(), all()      The caller holds the cache lock, for reading at least.
//   read_cached(), cached_field(), put_cached_field()    Takes the cache lock, its shared side.
//   all else                                             Takes no lock.
#pragma once

#include <array>
#include <cstdio>
#include <cstring>
#include <optional>
#include <span>
#include <utility>

#include "base/list.h"
#include "base/lock.h"
#include "base/log.h"
#include "base/rows.h"
#include "query/identifiers.h"

namespace dm {

// The key of a kind with one object.
struct NoKey {};

inline const ProtobufCMessage *key_message(NoKey) {
    return nullptr;
}
template <class Key> const ProtobufCMessage *key_message(const Key &key) {
    return &key.base;
}

// Where every query reads the cache by key, and by a walk: the object or null, the list or null.
const ProtobufCMessage *cached_object(int32_t row, const ProtobufCMessage *key) DM_REQUIRES_SHARED;
dm_cache_list *walked_list(int32_t row) DM_REQUIRES_SHARED;

// The cached object with this key, borrowed; null when there is none. Allocates nothing.
template <class T, class Key = NoKey> const T *cached(const Key &key = {}) DM_REQUIRES_SHARED;
template <class T, class Key> const T *cached(const Key &key) {
    return as<T>(cached_object(row_of<T>, key_message(key)));
}

// All cached objects of a kind, in order of insertion: `for (const T &object : all<T>())`.
template <class T> class All {
public:
    class Iterator {
    public:
        explicit Iterator(Elements::Iterator at) : at_(at) {}
        const T &operator*() const { return *as<T>((*at_).obj); }
        Iterator &operator++() {
            ++at_;
            return *this;
        }
        bool operator!=(const Iterator &other) const { return at_ != other.at_; }

    private:
        Elements::Iterator at_;
    };

    explicit All(dm_cache_list *list) : list_(list), elements_(list) {}

    Iterator begin() const { return Iterator(elements_.begin()); }
    Iterator end() const { return Iterator(elements_.end()); }
    int32_t size() const { return list_ ? list_->count : 0; }

private:
    dm_cache_list *list_;
    Elements elements_;
};
template <class T> All<T> all() DM_REQUIRES_SHARED;
template <class T> All<T> all() {
    return All<T>(walked_list(row_of<T>));
}

// Lets `read` look at the cached object with this key, under the lock; false when there is none.
template <class T, class Key, class Read> bool read_cached(const Key &key, const Read &read) {
    SharedCacheLock lock;
    const T *object = cached<T>(key);
    if (!object) return false;
    read(*object);
    return true;
}

// One field of the cached object with this key, an enumeration as a number; nothing when there is none.
template <class T, class Field, class Key = NoKey> auto cached_field(Field T::*field, const Key &key = {}) {
    std::optional<decltype(number(std::declval<Field>()))> value;
    read_cached<T>(key, [&](const T &object) { value = number(object.*field); });
    return value;
}

// The same through an out-value: 0, or -1 and nothing written.
template <class T, class Field, class Key = NoKey>
int32_t put_cached_field(Field T::*field, Field *out, const Key &key = {}) {
    if (!out) return -1;
    const auto value = cached_field(field, key);
    if (!value) return -1;
    *out = *value;
    return 0;
}

// Answers as plain numbers: yes or no.
template <class Field> int32_t yes(std::optional<Field> value) {
    return value && *value ? 1 : 0;
}

// A message handed out by a look-up, of one's own.
template <class T> struct FreeTyped {
    void operator()(T *message) const { protobuf_c_message_free_unpacked(&message->base, nullptr); }
};
template <class T> using owned = std::unique_ptr<T, FreeTyped<T>>;

// Copies a message for the caller: the code of the copy, null in `out` when it fails.
template <class T> int32_t hand_out(const T &message, void *out) {
    return dm_cache_copy_obj(&message, message.base.descriptor, out);
}

// The entries of a repeated field.
template <class T> std::span<T *const> entries(T *const *first, size_t n) {
    return {first, n};
}
inline std::span<const int32_t> numbers(const int32_t *first, size_t n) {
    return {first, n};
}

// Calls `visit` for every port of a card type's chips, in order, until it answers true.
template <class Visit> void for_ports_of(const PDev__DmCardStattrT &card, const Visit &visit) {
    for (const PDev__DmChipAttrT *chip : entries(card.chip_attr_array, card.n_chip_attr_array))
        for (const PDev__DmPortAttrT *port : entries(chip->port_attr, chip->n_port_attr))
            if (visit(*port)) return;
}

// Entry i of a table; -1, which no table holds for a slot that is there, when the table is shorter than that.
inline int32_t entry_or_none(std::span<const int32_t> table, int32_t i) {
    return i >= 0 && static_cast<size_t>(i) < table.size() ? table[static_cast<size_t>(i)] : -1;
}

// Writes a text into a caller's buffer, cut to len - 1 characters; the length of the whole text.
inline int32_t put_text(char *buf, int32_t len, const char *text) {
    return std::snprintf(buf, static_cast<size_t>(len), "%s", text);
}

// The same into a buffer that is cleared first. len is 1 or more.
inline int32_t fill_text(char *buf, int32_t len, const char *text) {
    std::memset(buf, 0, static_cast<size_t>(len));
    return put_text(buf, len, text);
}

}  // namespace dm
