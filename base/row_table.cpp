// The hash tables of the rows. A slot carries the key itself in one word, where it fits, so that a look-up reads one place
// in the table and then the element that it answers with. The caller holds the cache lock.
#include "base/row_table.h"

#include <iterator>

namespace dm {

// 16 bytes on 64-bit machines: four to a cache line.
struct Slot {
    uint64_t tag;
    dm_cache_list_node *node;  // null: free
};

// Linear probing, nothing but elements in the way: what leaves has the rest of its run moved up, so that elements of one
// place keep the order in which they came.
struct RowTable {
    Slot *slots;  // null: the row walks
    unsigned bits;
    unsigned owners;  // the kind's key_owners; 0: the whole key counts as the place
    const Kind *kind;
};

namespace {

// A key in one word: the place in the low bits, the owner above it. Where a part does not fit into its bits it is cut or
// hashed, with a mark, and the keys themselves are compared after the words.
constexpr unsigned place_bits = 54, owner_bits = 8;
constexpr uint64_t place_mask = (uint64_t{1} << place_bits) - 1;
constexpr uint64_t owner_cut = uint64_t{1} << 62, place_hashed = uint64_t{1} << 63;

// Of each word of a place, by the number of its words.
constexpr unsigned bits_of_word[] = {0, 32, 27, 18, 13, 10, 9};
static_assert(std::size(bits_of_word) == max_key_words + 1 && 6 * 9 == place_bits);

// Fewer elements than this are walked as fast.
constexpr int32_t fewest = 9;
constexpr unsigned fewest_bits = 4, most_bits = 20;

// As many owners at one place make the table one of whole keys, so that no look-up walks past all of them; who asks for all
// elements at a place then walks the row.
constexpr unsigned most_at_place = 256;

dm_cache_list lists[DM_ROW_COUNT];
RowTable tables[DM_ROW_COUNT];

// A key as look-ups compare it: first the tag, then, where that is cut or hashed, the words.
struct Key {
    uint64_t tag;
    int32_t words[max_key_words];
};

constexpr uint64_t mixed(uint64_t word) {
    return word * 0x9E3779B97F4A7C15u;
}

uint64_t place_tag(const int32_t *place, unsigned words) {
    const unsigned each = bits_of_word[words];
    uint64_t packed = 0, hash = 0;
    bool fits = true;
    for (unsigned i = 0; i < words; ++i) {
        const auto word = static_cast<uint32_t>(place[i]);
        fits &= word >> (each - 1) <= 1;
        packed = packed << each | word;
        hash = mixed(hash ^ word) ^ hash >> 29;
    }
    return fits ? packed : (hash & place_mask) | place_hashed;
}

Key make_key(const RowTable &table, const ProtobufCMessage *message) {
    Key key;
    table.kind->read_key(message, key.words);
    key.tag = place_tag(key.words + table.owners, table.kind->key_words - table.owners);
    if (table.owners == 0) return key;
    const auto owner = static_cast<uint32_t>(key.words[0]);
    key.tag |= static_cast<uint64_t>(owner & ((1u << owner_bits) - 1)) << place_bits;
    if (owner >> owner_bits != 0) key.tag |= owner_cut;
    return key;
}

size_t room(const RowTable &table) {
    return size_t{1} << table.bits;
}
size_t next_slot(const RowTable &table, size_t at) {
    return (at + 1) & (room(table) - 1);
}

// Where the run of a place begins: whoever the owner is.
size_t home(const RowTable &table, uint64_t tag) {
    return static_cast<size_t>(mixed(tag & (place_mask | place_hashed)) >> (64 - table.bits));
}

const ProtobufCMessage *key_in(const Kind &kind, const dm_cache_list_node *node) {
    return node->obj ? key_of(node->obj, kind.index_offset) : nullptr;
}

bool same_words(const Kind &kind, const dm_cache_list_node *node, const int32_t *words, unsigned from) {
    int32_t own[max_key_words];
    kind.read_key(key_in(kind, node), own);
    return std::memcmp(own + from, words + from, (kind.key_words - from) * sizeof *words) == 0;
}

bool linked(const dm_cache_list_node *node) {
    return !list_empty(&node->link);
}

int32_t row_of_list(const dm_cache_list *list) {
    const auto at = reinterpret_cast<uintptr_t>(list) - reinterpret_cast<uintptr_t>(lists);
    return at < sizeof lists ? static_cast<int32_t>(at / sizeof *lists) : -1;
}

void drop(RowTable &table) {
    free(table.slots);
    table.slots = nullptr;
}

// There is room: a quarter of the slots is always free. False when the place has too many owners for a table of places.
bool enter(RowTable &table, dm_cache_list_node *node) {
    const ProtobufCMessage *const message = key_in(*table.kind, node);
    if (!message) return true;
    const uint64_t tag = make_key(table, message).tag;
    unsigned at_place = 0;
    size_t at = home(table, tag);
    for (; table.slots[at].node; at = next_slot(table, at))
        if (((table.slots[at].tag ^ tag) & (place_mask | place_hashed)) == 0) ++at_place;
    table.slots[at] = {tag, node};
    return table.owners == 0 || at_place < most_at_place;
}

bool enter_all(RowTable &table, int32_t row) {
    for (dm_cache_list_node &node : Elements(&lists[row])) {
        node.row = static_cast<uint8_t>(row);
        if (!enter(table, &node)) return false;
    }
    return true;
}

bool fits(unsigned bits, int32_t count) {
    return static_cast<size_t>(count) * 4 <= (size_t{3} << bits);
}

// The table anew, in the order of the list.
void make(RowTable &table, int32_t row) {
    drop(table);
    dm_cache_list &list = lists[row];
    table.bits = fewest_bits;
    while (!fits(table.bits, list.count)) ++table.bits;
    if (list.count < fewest || table.bits > most_bits) return;
    table.slots = static_cast<Slot *>(calloc(room(table), sizeof(Slot)));
    if (!table.slots) return;
    table.owners = table.kind->key_owners;
    if (enter_all(table, row)) return;
    table.owners = 0;
    std::memset(table.slots, 0, room(table) * sizeof(Slot));
    enter_all(table, row);
}

// Moves up what follows a slot that has become free and is met behind it.
void close_gap(const RowTable &table, size_t gap) {
    for (size_t at = next_slot(table, gap); table.slots[at].node; at = next_slot(table, at)) {
        const size_t way = (at - home(table, table.slots[at].tag)) & (room(table) - 1);
        if (way < ((at - gap) & (room(table) - 1))) continue;
        table.slots[gap] = table.slots[at];
        gap = at;
    }
    table.slots[gap].node = nullptr;
}

}  // namespace

const RowTable *table_for(const dm_cache_list *list, dm_cache_cmp_func cmp) {
    const int32_t row = row_of_list(list);
    if (row < 0) return nullptr;
    const RowTable &table = tables[row];
    return table.slots && cmp == table.kind->cmp ? &table : nullptr;
}

dm_cache_list_node *find_in(const RowTable &table, const ProtobufCMessage *message) {
    const Key key = make_key(table, message);
    for (size_t at = home(table, key.tag);; at = next_slot(table, at)) {
        const Slot &slot = table.slots[at];
        if (!slot.node) return nullptr;
        if (slot.tag != key.tag) continue;
        if ((key.tag & (owner_cut | place_hashed)) != 0 && !same_words(*table.kind, slot.node, key.words, 0)) continue;
        if (linked(slot.node)) return slot.node;
    }
}

dm_cache_list_node *find_same(const RowTable &table, const ProtobufCMessage *object) {
    const ProtobufCMessage *const key = key_of(object, table.kind->index_offset);
    return key ? find_in(table, key) : nullptr;
}

void for_elements_at(int32_t row, const int32_t *place, VisitElement visit, void *word) {
    const Kind &kind = *kind_of_row(row);
    const unsigned owners = kind.key_owners;
    int32_t words[max_key_words] = {};
    std::memcpy(words + owners, place, (kind.key_words - owners) * sizeof *place);

    const obj_sub_entry &entry = obj_sub_list[row];
    const RowTable *const table = table_for(entry.obj_list, entry.cmp_func);
    if (!table || table->owners != owners) {
        for (dm_cache_list_node &node : Elements(entry.obj_list))
            if (key_in(kind, &node) && same_words(kind, &node, words, owners)) visit(&node, word);
        return;
    }
    const uint64_t tag = place_tag(place, kind.key_words - owners);
    for (size_t at = home(*table, tag); table->slots[at].node; at = next_slot(*table, at)) {
        const Slot &slot = table->slots[at];
        if ((slot.tag & (place_mask | place_hashed)) != tag || !linked(slot.node)) continue;
        if ((tag & place_hashed) != 0 && !same_words(kind, slot.node, words, owners)) continue;
        visit(slot.node, word);
    }
}

void table_take_in(dm_cache_list *list, dm_cache_list_node *node) {
    const int32_t row = row_of_list(list);
    if (row < 0) return;
    RowTable &table = tables[row];
    if (!table.kind || table.kind->key_words == 0) return;
    if (!table.slots || !fits(table.bits, list->count)) return make(table, row);
    node->row = static_cast<uint8_t>(row);
    if (!enter(table, node)) make(table, row);
}

void table_let_go(dm_cache_list_node *node) {
    if (node->row == 0) return;
    RowTable &table = tables[node->row];
    node->row = 0;
    if (!table.slots) return;
    const ProtobufCMessage *const message = key_in(*table.kind, node);
    if (!message) return;
    size_t at = home(table, make_key(table, message).tag);
    while (table.slots[at].node && table.slots[at].node != node) at = next_slot(table, at);
    if (table.slots[at].node) close_gap(table, at);
}

void links_changed(const int32_t *count) {
    const auto at = reinterpret_cast<uintptr_t>(count) - reinterpret_cast<uintptr_t>(lists);
    if (at < sizeof lists) drop(tables[at / sizeof *lists]);
}

dm_cache_list *emptied_list(int32_t row) {
    tables[row].kind = kind_of_row(row);
    drop(tables[row]);
    list_init(&lists[row].head);
    lists[row].count = 0;
    return &lists[row];
}

}  // namespace dm
