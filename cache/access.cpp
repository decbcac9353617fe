// Reading and storing cached objects by row number. Reads hand out the cached messages and take no lock: their callers
// hold it. dm_cache_set_obj takes it.
#include "cache/access.h"
#include "base/log.h"
#include "base/row_table.h"
#include "cache/events.h"
#include "cache/row_update.h"
#include "cache/startup.h"
#include "cache/status.h"

static constexpr dm::LogTag log_tag{"dm_cache"};

namespace dm {
namespace {

dm_cache_list_node *find_keyed(int32_t type, const ProtobufCMessage *key) {
    const obj_sub_entry &row = obj_sub_list[type];
    if (const RowTable *table = table_for(row.obj_list, row.cmp_func)) return find_in(*table, key);
    const Kind *const kind = kind_of_row(type);
    if (!kind) return nullptr;
    KeyedMessage probe(*kind, key);
    return dm_cache_list_find(row.obj_list, row.cmp_func, probe.message());
}

}  // namespace

int32_t cache_object(int32_t type, const ProtobufCMessage *obj, uint64_t since) {
    int32_t result;
    {
        CacheLock lock;
        result = offer_object(type, obj, since);
    }
    deliver_soon();
    if (result >= 0) return 0;
    DM_LOG_AS((Caller{"dm_cache_set_obj"}), failure, "dm_cache_list_add error[%d]\r\n", result);
    status_refused(type, obj);
    return result;
}

}  // namespace dm

using namespace dm;

int32_t dm_cache_get_obj(int32_t type, const void *key, void *out) {
    if (!row_in_range(type) || !out || (obj_sub_list[type].index_offset > 0 && !key)) {
        DM_LOG(failure, "param err[%d][%p][%p].\n", type, key, out);
        return -1;
    }
    const dm_cache_list_node *node = find_keyed(type, static_cast<const ProtobufCMessage *>(key));
    put(out, node ? node->obj : nullptr);
    return node ? 0 : -1;
}

int32_t dm_cache_set_obj(int32_t type, const void *obj) {
    if (!row_in_range(type) || !obj) {
        DM_LOG(failure, "invalid param.\r\n");
        return -1;
    }
    return cache_object(type, static_cast<const ProtobufCMessage *>(obj), never_overtaken);
}

int32_t dm_cache_foreach_obj(int32_t type, int32_t (*func)(ProtobufCMessage *obj, uintptr_t *word), uintptr_t arg) {
    if (!row_in_range(type) || !func) {
        DM_LOG(failure, "param err[%d][%p].\n", type, reinterpret_cast<void *>(func));
        return -1;
    }
    struct Visit {
        int32_t (*func)(ProtobufCMessage *obj, uintptr_t *word);
        uintptr_t word;
    } visit{func, arg};
    dm_cache_list_walk(
        obj_sub_list[type].obj_list,
        [](ProtobufCMessage *obj, void *to) {
            return static_cast<Visit *>(to)->func(obj, &static_cast<Visit *>(to)->word);
        },
        &visit);
    return 0;
}

int32_t dm_cache_get_obj_index_list_len(int32_t type) {
    if (!row_in_range(type)) {
        DM_LOG(failure, "param err[%d].\n", type);
        return -1;
    }
    if (!started()) {
        DM_LOG(failure, "not init.\n");
        return -2;
    }
    const dm_cache_list *list = obj_sub_list[type].obj_list;
    if (!list) {
        DM_LOG(failure, "list null.\n");
        return -1;
    }
    DM_LOG(notice, "type[%d] len[%d].\n", type, list->count);
    return list->count;
}

int32_t dm_cache_get_obj_index_list(int32_t type, void *buf, int32_t capacity, int32_t *count) {
    if (!row_in_range(type) || !buf || !count || capacity <= 0) {
        DM_LOG(failure, "param err[%d][%p][%d][%p].\n", type, buf, capacity, static_cast<void *>(count));
        return -1;
    }
    const obj_sub_entry &row = obj_sub_list[type];
    if (row.index_offset == 0) return 0;

    auto **keys = static_cast<ProtobufCMessage **>(buf);
    int32_t written = 0;
    for (const dm_cache_list_node &node : Elements(row.obj_list)) {
        if (written == capacity) break;
        keys[written++] = key_of(node.obj, row.index_offset);
    }
    *count = written;
    DM_LOG(notice, "type[%d] get_len[%d].\n", type, written);
    return 0;
}
