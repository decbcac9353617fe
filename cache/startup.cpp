// dm_cache_init: configuration, the object type table, the connections to the store. On the caller's thread; what the
// connections call back runs on the store client's. Takes the cache lock only while it sets the table up.
#include "cache/startup.h"

#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "base/lock.h"
#include "base/log.h"
#include "base/rows.h"
#include "cache/config.h"
#include "cache/events.h"
#include "cache/gate.h"
#include "cache/row_sync.h"
#include "cache/row_update.h"
#include "cache/sync.h"
#include "tq_dm_cache/dm_port_index.h"

static constexpr dm::LogTag log_tag{"dm_cache"};

int32_t self_thread = -1;
tq_mom_handle *g_dm_global = nullptr;
int32_t g_dm_db_connect_reason = 0;
int32_t dm_indep_logfile = 0;
int32_t ndm_logfile_info = 0;
char dp_lib_client_name[32];

namespace dm {
namespace {

uint8_t g_dm_cache_inited = 0;

// Databases that are connected always, and those that are connected only when an enabled row lives there.
constexpr uint32_t always_connected[] = {1, 3};
constexpr uint32_t connected_on_demand[] = {8, 4, 14};

void keep_name(const char *name) {
    const size_t length = strnlen(name, sizeof dm_cache_my_name - 1);
    std::memset(dm_cache_my_name, 0, sizeof dm_cache_my_name);
    std::memcpy(dm_cache_my_name, name, length);
}

// What every row says of itself. The store of a start that failed may still be sending: a row never says anything wrong.
void set_up_table() {
    for (int32_t row = 0; row < obj_sub_list_max; ++row) {
        obj_sub_entry &entry = obj_sub_list[row];
        const Kind *kind = kind_of_row(row);
        entry.db_id = kind ? kind->db : 1;
        entry.spare = 0;
        entry.proc_order = kind ? kind->proc_order : 0;
    }
    dm_cache_init_obj(obj_sub_list);
    ndm_cache_init_port_obj(obj_sub_list);
}

// A start that failed, or a client that set the table up by itself, has left objects and index sets behind.
void set_up_table_again() {
    if (g_dm_global) begin_again();
    CacheLock lock;
    for (int32_t row = 0; row < obj_sub_list_max; ++row) discard_row(row);
    forget_events();
    set_up_table();
}

bool table_is_set_up() {
    return std::any_of(std::begin(obj_sub_list), std::end(obj_sub_list), [](const auto &row) { return row.obj_list; });
}

int32_t dm_cache_db_conn(void *, uintptr_t db) {
    const StoreCallback callback;
    if (!callback.may_run()) return 0;
    const auto number = static_cast<uint32_t>(db);
    DM_LOG(trace, "dm_cache: conn to db %d ready.\n", static_cast<int32_t>(number));
    const int32_t ret = dm_cache_subscribe(number);
    DM_LOG(trace, "rsync %d connect[%d].\n", static_cast<int32_t>(number), ret);
    return ret;
}

int32_t dm_cache_reconnect_cb(void *, uint32_t db, int32_t reason, void *) {
    const StoreCallback callback;
    if (!callback.may_run()) return 0;
    if (reason == 1 || reason == 2) __atomic_store_n(&g_dm_db_connect_reason, reason + 1, __ATOMIC_RELAXED);
    subscribe_again(db);
    return 0;
}

// The answer of a store call, logged for the caller when it is a refusal.
int32_t checked(int32_t ret, const char *name, Caller caller = Caller{}) {
    if (ret != 0) DM_LOG_AS(caller, failure, "init [%s].\n", name);
    return ret;
}

int32_t connect_db(tq_mom_handle *handle, uint32_t db) {
    return tq_mom_client_connect(handle, db, dm_cache_db_conn, db);
}

int32_t follow_reconnects(tq_mom_handle *handle, uint32_t db) {
    return tq_mom_client_set_reconnect_cb(handle, db, dm_cache_reconnect_cb, 0);
}

bool database_wanted(uint32_t db) {
    for (const obj_sub_entry &row : obj_sub_list)
        if (row.db_id == db && row.enable) return true;
    return false;
}

int32_t dm_connect_global_db(tq_mom_handle *handle, uint32_t db, const char *name) {
    if (!database_wanted(db)) return 0;
    if (const int32_t ret = checked(connect_db(handle, db), name)) return ret;
    if (const int32_t ret = checked(follow_reconnects(handle, db), name)) return ret;
    DM_LOG(trace, "%s connect db [%d] success.\n", name, static_cast<int32_t>(db));
    return 0;
}

int32_t connect_databases(tq_mom_handle *handle, const char *name, Caller caller = Caller{}) {
    for (const uint32_t db : always_connected)
        if (const int32_t ret = checked(connect_db(handle, db), name, caller)) return ret;
    for (const uint32_t db : always_connected)
        if (const int32_t ret = checked(follow_reconnects(handle, db), name, caller)) return ret;
    for (const uint32_t db : connected_on_demand)
        if (const int32_t ret = dm_connect_global_db(handle, db, name)) return ret;
    return checked(tq_mom_client_connect_sync(handle, 1), name, caller);
}

void dm_cache_log_subobj_to_file() {
    for (int32_t row = 0; row < obj_sub_list_max; ++row)
        if (obj_sub_list[row].enable) DM_LOG(trace, "obj_sub_list [%d] is enable\n", row);
}

}  // namespace

bool started() {
    return __atomic_load_n(&g_dm_cache_inited, __ATOMIC_ACQUIRE) == 1;
}

// A database may become ready meanwhile: then both subscribe the row, rather than neither.
void enable_row(int32_t row) {
    obj_sub_entry &entry = obj_sub_list[row];
    {
        CacheLock lock;
        const bool is_late = subscribes_at_once(entry.db_id);
        if (entry.enable != 0 && !(is_late && is_left_out(row))) return;
        if (is_late) expect_late(row);
        store(entry.enable, uint8_t{1});
    }
    if (subscribes_at_once(entry.db_id)) subscribe_late(row);
}

}  // namespace dm

int32_t dm_cache_init(tq_mom_handle *handle, const char *name) {
    using namespace dm;
    if (started()) {
        DM_LOG(trace, "dm_cache_init: already inited before.\n");
        if (handle && handle != store_handle()) DM_LOG(failure, "another handle is in use: this one was not taken.\n");
        return 0;
    }
    if (!handle || !name) {
        DM_LOG(failure, "dm_cache_init param fail [%p][%p].\n", static_cast<void *>(handle),
               static_cast<const void *>(name));
        return -1;
    }
    if (self_thread == -1) self_thread = gettid();
    if (dm_get_cap_value() != 0) DM_LOG(failure, "dm_cache_init: get cap value failed.\n");
    keep_name(name);
    dm_cache_read_cfg();
    if (table_is_set_up())
        set_up_table_again();
    else
        set_up_table();
    __atomic_store_n(&g_dm_global, handle, __ATOMIC_RELEASE);
    open_gate();
    start_begins(handle);
    if (const int32_t ret = connect_databases(handle, name)) {
        subscribe_nothing_at_once();  // the client may close the handle
        return ret;
    }
    dm_cache_log_subobj_to_file();
    DM_LOG(trace, "rsync connect[%d].\n", 0);
    __atomic_store_n(&g_dm_cache_inited, uint8_t{1}, __ATOMIC_RELEASE);
    deliver_soon();
    return 0;
}

int32_t dm_cache_stop(void) {
    using namespace dm;
    if (!close_gate()) return -1;
    stop_begins();
    if (started()) forget_requests();  // the handle of a start that failed may have gone
    __atomic_store_n(&g_dm_cache_inited, uint8_t{0}, __ATOMIC_RELEASE);
    end_sync();
    __atomic_store_n(&g_dm_global, nullptr, __ATOMIC_RELEASE);
    CacheLock lock;
    for (int32_t row = 0; row < obj_sub_list_max; ++row) discard_row(row);
    forget_events();
    return 0;
}
