// Messages: who owns a copy, where a message keeps its key. Takes no lock: who hands a cached message in
// holds the cache lock.
#pragma once

#include <cstdlib>
#include <cstring>
#include <memory>
#include <type_traits>

#include "tq_dm_cache/dm_cache.h"

namespace dm {

struct FreeMessage {
    void operator()(ProtobufCMessage *message) const { protobuf_c_message_free_unpacked(message, nullptr); }
};

// A message of one's own.
using OwnedMessage = std::unique_ptr<ProtobufCMessage, FreeMessage>;

struct FreeMemory {
    void operator()(void *memory) const { std::free(memory); }
};

// Memory of one's own, from malloc.
template <class T> using OwnedMemory = std::unique_ptr<T, FreeMemory>;

template <class T> const T *as(const ProtobufCMessage *message) {
    return reinterpret_cast<const T *>(message);
}

// Writes a result through an out-parameter that the public interface declares as void *.
template <class T> void put(void *out, T *value) {
    std::memcpy(out, &value, sizeof value);
}

// What a field holds; an enumeration as a number. A store may send any number, also one that the enumeration's type has no
// value for: such a field must not be read as what it is declared.
template <class Field> auto number(const Field &field) {
    if constexpr (std::is_enum_v<Field>) {
        int32_t stored;
        static_assert(sizeof stored == sizeof field);
        std::memcpy(&stored, &field, sizeof stored);
        return stored;
    } else {
        return field;
    }
}

// Counts down; the last owner frees the block.
struct ReleaseStored {
    void operator()(ProtobufCMessage *message) const;
};

// A message as the cache keeps it: one block of memory that holds the message and all that it points to, counted, so that
// the cache and what waits in the queue may share it. Never changed once made; owners may be on different threads.
using StoredMessage = std::unique_ptr<ProtobufCMessage, ReleaseStored>;

// The code of dm_cache_copy_obj(), with its log lines; `out` is empty on failure.
int32_t store_copy(const ProtobufCMessage *src, const ProtobufCMessageDescriptor *descriptor, StoredMessage &out);

// Another owner of a stored message.
StoredMessage share(ProtobufCMessage *stored);

// Both pack to the same bytes. Without memory for a comparison that has to pack them: no.
bool same_content(const ProtobufCMessage *a, const ProtobufCMessage *b);

// The key of a keyed message; null when it carries none.
inline ProtobufCMessage *key_of(const ProtobufCMessage *message, uint32_t index_offset) {
    ProtobufCMessage *key;
    std::memcpy(&key, reinterpret_cast<const char *>(message) + index_offset, sizeof key);
    return key;
}

}  // namespace dm
