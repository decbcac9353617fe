// Sets and deletes of the store, applied. What is refused is logged, counted and dropped: the machine goes on.
// Takes the cache lock for each change; callbacks run without it.
//
// ChangeCallbacks stands before the lock in each function: it must be there before the change is, so that another thread, which
// may deliver at once, tells no follower before the callbacks have run; and it ends last, since it delivers by itself.
#include "cache/apply.h"

#include "base/log.h"
#include "base/rows.h"
#include "base/store_message.h"
#include "cache/callbacks.h"
#include "cache/events.h"
#include "cache/row_update.h"
#include "cache/status.h"

static constexpr dm::LogTag log_tag{"dm_cache"};

namespace dm {
namespace {

bool stores_nothing(int32_t row) {
    return (obj_sub_list[row].flag & DM_CACHE_NO_STORE) != 0;
}

void apply(tq_mom_handle *handle, int32_t row, int32_t cmd, ProtobufCMessage *obj, StoredMessage stored = {}) {
    if (cmd == TQ_MOM_CMD_DELETE)
        apply_delete(handle, row, obj);
    else if (cmd == TQ_MOM_CMD_SET || is_scanned(cmd))
        apply_set(handle, row, obj, std::move(stored));
}

}  // namespace

int32_t apply_set(tq_mom_handle *handle, int32_t row, ProtobufCMessage *obj, StoredMessage stored) {
    const Caller caller{"dm_cache_handle_setmsg"};
    const ChangeCallbacks callbacks;
    int32_t result = -1;
    {
        CacheLock lock;
        if (!stores_nothing(row)) result = stored ? store_shared(row, std::move(stored)) : store_object(row, obj);
    }
    if (result < 0) {
        DM_LOG_AS(caller, failure, "dm_cache_list_add error[%d]\r\n", result);
        status_refused(row, obj);
        return result;
    }
    status_count(row, Count::sets);
    call_callbacks(handle, row, result, obj);
    return 0;
}

int32_t apply_delete(tq_mom_handle *handle, int32_t row, ProtobufCMessage *obj) {
    const Caller caller{"dm_cache_handle_delmsg"};
    const ChangeCallbacks callbacks;
    Removed removed;
    {
        CacheLock lock;
        if (stores_nothing(row)) DM_LOG_AS(caller, notice, "this is no cache obj.\r\n");
        removed = remove_object(row, obj);
        if (!removed.message)
            DM_LOG_AS(caller, failure, "can't find obj in cache to delete ret[%d] get[%p].\r\n", -1,
                      static_cast<void *>(nullptr));
    }
    if (!removed.message) {
        status_refused(row, obj);
        return -1;
    }
    status_count(row, Count::deletes);
    call_callbacks(handle, row, DM_CACHE_DELETED, removed.message);
    return 0;
}

// The queue's share lives until the callbacks have run, whatever they do to the cached object.
void apply_queued(tq_mom_handle *handle, int32_t row, int32_t cmd, StoredMessage obj) {
    DM_LOG_AS(Caller{"dm_cache_process_msg"}, notice, "<==== cmd[%d] flag[%d].\n", cmd, 0);
    apply(handle, row, cmd, obj.get(), share(obj.get()));
}

int32_t apply_live(tq_mom_handle *handle, store_msg *msg, void *privdata) {
    const Caller caller{"dm_cache_update_obj"};
    const auto word = reinterpret_cast<intptr_t>(privdata);
    if (!msg || word < 0 || word > 256) {
        DM_LOG_AS(caller, failure, "param err: msg[%p] privdata[%p].\n", static_cast<const void *>(msg), privdata);
        return -1;
    }
    const auto row = static_cast<int32_t>(word);
    if (row >= obj_sub_list_max) {
        DM_LOG_AS(caller, failure, "obj_list_idx err obj_list_idx[%d].\n", row);
        return -1;
    }
    DM_LOG_AS(caller, notice, "<==== cmd[%d] flag[%d].\n", msg->cmd, msg->flag);
    if (msg->flag == 1) {
        DM_LOG_AS(caller, notice, "scan[%d] \n", msg->cmd);
        DM_LOG_AS(caller, trace, "scan[%d] done.\n", row);
    }
    if (msg->cmd == TQ_MOM_CMD_SUBSCRIBED) {
        const obj_sub_entry &entry = obj_sub_list[row];
        const int32_t ret = tq_mom_scan(handle, entry.db_id, entry.obj_tmpl, 0, apply_live, row_word(row));
        DM_LOG_AS(caller, trace, "subscribe[%d] ready, start scan[%d].\n", row, ret);
        return 0;
    }
    if (!is_push(msg->cmd) && !is_scanned(msg->cmd)) return 0;
    ProtobufCMessage *obj = carried_object(*msg, is_scanned(msg->cmd), log_tag, caller);
    if (!obj) {
        if (brings_change(*msg)) status_refused(row, named_object(*msg));
        return -1;
    }
    apply(handle, row, msg->cmd, obj);
    return 0;
}

}  // namespace dm
