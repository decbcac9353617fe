// The objects of chance, and what must hold.
#include "tests/support/world.h"

#include <algorithm>
#include <cstdarg>

#include "tq_dm_cache/dm_cache_sync.h"
#include "tq_dm_cache/dm_port_index.h"

namespace {

World *world = nullptr;

// Each field of the key takes one bit of `key`, the last one the rest; one that tells no objects apart stays the same.
void set_key(Message &message, int32_t row, int32_t key) {
    const auto fields = dmq::fields_of(*dmq::sub_type(*dmq::key_field(*kind_of(row))));
    for (const auto &field : fields) {
        const std::string_view name = field.name;
        const bool fixed = dmq::is_never_compared(name) || (row == DM_ROW_LOCAL_CARD_INFO && name == "devid");
        const bool last = &field == &fields.back();
        std::move(message).set("index." + std::string(name), 1 + (fixed ? 0 : last ? key : key % 2));
        if (!fixed) key /= 2;
    }
}

// Still changing from time to time, but never what another object has.
void keep_index_keys_apart(Random &chance, Message &message, int32_t row, int32_t key) {
    const auto set_own = [&](const char *field) { std::move(message).set(field, key * 4 + chance.below(4)); };
    if (row == DM_ROW_PORT_STATIC || row == DM_ROW_UNIT_CPORT_INFO)
        for (const char *field : {"static_info.port", "static_info.lport", "static_info.user_port"}) set_own(field);
    if (row == DM_ROW_VSD_PORT || row == DM_ROW_VSD_PORT_ATTR)
        for (const char *field : {"ifx", "dev", "slot"}) set_own(field);
}

using Elements = std::vector<dm_cache_list_node *>;

Elements elements(int32_t row) {
    Elements found;
    const dm_list_head &head = obj_sub_list[row].obj_list->head;
    for (dm_list_head *link = head.next; link != &head; link = link->next) {
        if (link->next->prev != link) fail("row %d: broken links", row);
        found.push_back(reinterpret_cast<dm_cache_list_node *>(link));
    }
    return found;
}

size_t count_nodes(const rbtree_node *node) {
    return node ? 1 + count_nodes(node->left) + count_nodes(node->right) : 0;
}

// A key finds an indexed element that has it. Objects that claim each other's keys may leave one of them without.
void check_tree(int32_t row, size_t tree, const Elements &indexed, bool own_keys) {
    rbtree_root **root = &obj_sub_list[row].port_tree->root[tree];
    std::set<const void *> found;
    for (const dm_cache_list_node *element : indexed) {
        const auto has_the_key = [&](const auto *other) { return other->key->key[tree] == element->key->key[tree]; };
        const void *value = dm_rbtree_find_node(root, element->key->key[tree]);
        if (!value && own_keys) fail("row %d: tree %zu does not find an object", row, tree);
        if (!value) continue;
        const auto at = std::find(indexed.begin(), indexed.end(), value);
        if (at == indexed.end() || !has_the_key(*at)) fail("row %d: tree %zu finds a wrong object", row, tree);
        found.insert(value);
    }
    if (count_nodes((*root)->node) != found.size()) fail("row %d: tree %zu holds an old key", row, tree);
}

void check_list(int32_t row, const Elements &all) {
    if (dm_cache_get_obj_index_list_len(row) != static_cast<int32_t>(all.size()))
        fail("row %d: counts %d objects, holds %zu", row, obj_sub_list[row].obj_list->count, all.size());
    std::set<std::string> keys;
    for (const auto *element : all)
        if (!keys.insert(key_bytes(element->obj)).second) fail("row %d: a key is cached twice", row);
}

// Key records say what they would say if they were made now.
void check_index(int32_t row, const Elements &all, bool own_keys) {
    const ndm_cache_tree *set = obj_sub_list[row].port_tree;
    if (!set) return;
    Elements indexed;
    for (dm_cache_list_node *element : all) {
        dm_cache_list_node fresh{};
        fresh.obj = element->obj;
        const bool can_be_indexed = set->gen_key(&fresh) == 0;
        if (can_be_indexed != (element->key != nullptr)) fail("row %d: indexed when it should not be, or not", row);
        if (!can_be_indexed) continue;
        indexed.push_back(element);
        const bool same = std::equal(fresh.key->key, fresh.key->key + set->tree_num, element->key->key);
        if (!same || fresh.key->static_port != element->key->static_port) fail("row %d: a key record is stale", row);
        std::free(fresh.key);
    }
    for (int32_t tree = 0; tree < set->tree_num; ++tree) check_tree(row, static_cast<size_t>(tree), indexed, own_keys);
}

}  // namespace

const ProtobufCMessageDescriptor *kind_of(int32_t row) {
    return obj_sub_list[row].obj_tmpl->descriptor;
}

World::World(uint64_t seed, bool trace, bool own_index_keys)
    : random{std::mt19937_64(seed)}, trace_(trace), own_index_keys_(own_index_keys) {
    world = this;
    dm_cache_init_obj(obj_sub_list);
    ndm_cache_init_port_obj(obj_sub_list);
    for (int32_t row = 0; row < DM_ROW_COUNT; ++row)
        if (obj_sub_list[row].obj_tmpl) rows.push_back(row);
}

void World::write(Random &chance) {
    const int32_t row = rows[static_cast<size_t>(chance.below(rows.size()))];
    if (row == DM_ROW_DP_LIB_COMPLETE && !chance.percent(20)) return;  // each one is a resynchronisation
    int32_t key = chance.below(keys_of_a_row);
    // Ports of two VSDs at one place share their index keys.
    if (row == DM_ROW_VSD_PORT) key = 2 * key + (own_index_keys_ ? 0 : chance.below(2));
    const Message object = random_object(chance, row, key);
    if (chance.percent(25)) return remove(row, object);
    set(row, object);
}

Message World::random_object(Random &chance, int32_t row, int32_t key) const {
    const Choose some = [&](const ProtobufCFieldDescriptor &field, int32_t) -> std::optional<int32_t> {
        const bool repeated = field.label == PROTOBUF_C_LABEL_REPEATED, inner = field.type == PROTOBUF_C_TYPE_MESSAGE;
        if (!chance.percent(repeated ? 20 : inner ? 80 : 50)) return {};
        return chance.below(4);
    };
    Message object = filled(*kind_of(row), 0, some);
    if (own_index_keys_) keep_index_keys_apart(chance, object, row, key);
    if (obj_sub_list[row].index_offset > 0) set_key(object, row, key);
    return object;
}

void World::follow(int32_t row, int32_t flag) {
    const auto on_change = [](tq_mom_handle *, int32_t type, int32_t operation, ProtobufCMessage *message) {
        world->told(type, operation, message);
        return 0;
    };
    dm_cache_sub_obj(row, on_change, flag);
}

void World::follower_comes_or_goes(Random &chance) {
    if (!followers.empty() && chance.percent(40)) {
        followers.erase(std::next(followers.begin(), chance.below(followers.size())));
        return;
    }
    const int32_t row = rows[static_cast<size_t>(chance.below(rows.size()))];
    const bool is_late = !obj_sub_list[row].enable;
    say("client   follows row %d%s", row, is_late ? ", the first to do so" : "");
    count("followers");
    followers.emplace_back(row, static_cast<uint32_t>(chance.below(4)));
    if (!is_late) return;
    late_rows.insert(row);
    listener.begins_with(row, cached_picture(row));
    follow(row);
}

bool World::follows(int32_t row) {
    return obj_sub_list[row].enable && !(obj_sub_list[row].flag & DM_CACHE_NO_STORE);
}

void World::told(int32_t row, int32_t operation, const ProtobufCMessage *message) {
    listener.told(row, operation, message);
}

std::string World::difference_of(int32_t row) {
    Picture cache = cached_picture(row), store;
    if (std::string found = listener.difference(row, cache); !found.empty()) return found;
    for (const Follower &each : followers)
        if (std::string found = each.row() == row ? each.difference(cache) : ""; !found.empty()) return found;
    if (!read_store(row, store, cache)) return "the store cannot be read";
    return ::difference(cache, follows(row) ? store : Picture());
}

std::string World::difference() {
    if (!__atomic_load_n(&g_cache_proc_done, __ATOMIC_ACQUIRE) || dm_cache_wait_synced(0) != 0)
        return "the cache is not synchronised";
    for (const int32_t row : rows) {
        dm_cache_lock();
        check_list(row, elements(row));
        check_index(row, elements(row), own_index_keys_);
        dm_cache_unlock();
        const std::string found = obj_sub_list[row].enable ? difference_of(row) : "";
        if (!found.empty()) return "row " + std::to_string(row) + ": " + found;
    }
    return "";
}

void World::say(const char *format, ...) const {
    if (!trace_) return;
    std::printf("%5lld  ", static_cast<long long>(now));
    va_list arguments;
    va_start(arguments, format);
    std::vprintf(format, arguments);
    va_end(arguments);
    std::printf("\n");
}
