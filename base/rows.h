// The object type table: which kind each row holds, as one table of constants, and the exported rows made from it.
// Takes no lock: rows are set up at start-up; whoever changes their lists holds the cache lock.
#pragma once

#include <cstddef>

#include "base/message.h"
#include "tq_dm_cache/dm_cache.hpp"

namespace dm {

using dm_cache::row_of;

// Which index a row has. `none`: the row is not port_index/'s to set up; static ports and logical ports have no trees.
enum class Index : uint8_t { none, static_port, lport, local_port, global_port, vsd_port, card_type, chip_type };

// The compared fields of a key, in the order of its row's table: at most this many.
inline constexpr size_t max_key_words = 6;

// What a kind's row is made from.
struct Kind {
    int32_t row;
    const ProtobufCMessageDescriptor *descriptor;
    const ProtobufCMessageDescriptor *key_descriptor;  // null: a kind without key
    ProtobufCMessage *tmpl;
    ProtobufCMessage *key;
    dm_cache_cmp_func cmp;
    void (*read_key)(const ProtobufCMessage *key, int32_t *words);  // the compared fields
    uint8_t key_words;                                              // how many; 0: a kind without key
    uint8_t key_owners;  // 1: the first of them says whose it is, the others which place
    uint32_t size;
    uint32_t index_offset;
    uint32_t db;
    int32_t proc_order;
    uint8_t mark;
    Index index;
};

// Room for a message of any kind.
inline constexpr size_t largest_object = sizeof(PDev__DmPortAttrT);

// Null for a row that holds no kind.
const Kind *kind_of_row(int32_t row);

// A message of a kind that carries only a key: to ask for, or to compare with.
class KeyedMessage {
public:
    KeyedMessage(const Kind &kind, const ProtobufCMessage *key) {
        kind.descriptor->message_init(message());
        if (kind.index_offset > 0) put(bytes_ + kind.index_offset, key);
    }
    ProtobufCMessage *message() { return reinterpret_cast<ProtobufCMessage *>(bytes_); }

private:
    alignas(std::max_align_t) char bytes_[largest_object];
};

// Writes a row up to its index set; `proc_order` is the caller's last step.
void fill_row(obj_sub_entry *entry, const Kind &kind);

// A row is usable by number.
inline bool row_in_range(int32_t type) {
    return type >= 0 && type < obj_sub_list_max;
}

// Enabled, and there is a kind to ask the store for. Any thread: a row may be enabled after the start.
inline bool row_followed(const obj_sub_entry &row) {
    return __atomic_load_n(&row.enable, __ATOMIC_ACQUIRE) != 0 && row.obj_tmpl;
}

// A message is of this kind: of this very descriptor, or of another library's own one of the same name and size.
bool same_kind(const ProtobufCMessageDescriptor *own, const ProtobufCMessageDescriptor &kind);
inline bool is_kind(const ProtobufCMessage *message, const ProtobufCMessageDescriptor *kind) {
    return message->descriptor == kind || same_kind(message->descriptor, *kind);
}

// A message lacks the key that its kind needs.
inline bool key_missing(const obj_sub_entry &row, const ProtobufCMessage *message) {
    return row.index_offset > 0 && !key_of(message, row.index_offset);
}

}  // namespace dm
