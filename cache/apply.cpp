// Sets and deletes of the store, applied. What is refused is logged, counted and dropped: the machine goes on.
#include "cache/apply.h"

#include "base/log.h"
#include "base/rows.h"
#include "cache/callbacks.h"
#include "cache/pending.h"
#include "cache/row_update.h"
#include "cache/status.h"

static constexpr char log_tag[] = "dm_cache";

namespace dm {
namespace {

// The row of a message that can be applied; -1, logged for the caller, otherwise.
int32_t checked_row(const store_msg *msg, void *privdata, Caller caller = Caller{}) {
    const auto row = reinterpret_cast<intptr_t>(privdata);
    if (!msg || row < 0 || row > 256) {
        DM_LOG_AS(caller, failure, "param err: msg[%p] privdata[%p].\n", static_cast<const void *>(msg), privdata);
        return -1;
    }
    if (row >= obj_sub_list_max) {
        DM_LOG_AS(caller, failure, "obj_list_idx err obj_list_idx[%d].\n", static_cast<int32_t>(row));
        return -1;
    }
    DM_LOG_AS(caller, notice, "<==== cmd[%d] flag[%d].\n", msg->cmd, msg->flag);
    return static_cast<int32_t>(row);
}

bool is_push(int32_t cmd) {
    return cmd == TQ_MOM_CMD_SET || cmd == TQ_MOM_CMD_DELETE;
}
bool is_applied_reply(int32_t cmd) {
    return cmd == TQ_MOM_CMD_REPLY || cmd == TQ_MOM_CMD_REPLY_HASH;
}
bool is_applied(int32_t cmd) {
    return is_push(cmd) || is_applied_reply(cmd);
}

// The object of a set or a delete; null, logged for the caller, when it is missing.
ProtobufCMessage *object_of_push(const store_msg *msg, Caller caller = Caller{}) {
    if (!msg->value) DM_LOG_AS(caller, failure, "msg value is NULL\r\n");
    return static_cast<ProtobufCMessage *>(msg->value);
}

// The object of a reply; null, logged for the caller, when there is none that can be used.
ProtobufCMessage *object_of_reply(const store_msg *msg, Caller caller = Caller{}) {
    if (msg->value) return object_of_record(static_cast<const result_rec *>(msg->value), caller);
    DM_LOG_AS(caller, failure, "invalid value[%p].\n", msg->value);
    return nullptr;
}

bool stores_nothing(int32_t row) {
    return (obj_sub_list[row].flag & DM_CACHE_NO_STORE) != 0;
}

void apply(tq_mom_handle *handle, int32_t row, int32_t cmd, ProtobufCMessage *obj, StoredMessage stored = {}) {
    if (cmd == TQ_MOM_CMD_DELETE)
        dm_cache_handle_delmsg(handle, row, obj);
    else if (cmd == TQ_MOM_CMD_SET || is_applied_reply(cmd))
        dm_cache_handle_setmsg(handle, row, obj, std::move(stored));
}

}  // namespace

bool brings_change(const store_msg &msg) {
    return is_applied(msg.cmd) && (msg.value || msg.flag != 1);
}

int32_t dm_cache_handle_setmsg(tq_mom_handle *handle, int32_t row, ProtobufCMessage *obj, StoredMessage stored) {
    int32_t result = -1;
    {
        CacheLock lock;
        if (!stores_nothing(row)) result = stored ? store_shared(row, std::move(stored)) : store_object(row, obj);
    }
    if (result < 0) {
        status_refused(row);
        DM_LOG(failure, "dm_cache_list_add error[%d]\r\n", result);
        return result;
    }
    status_count(row, Count::sets);
    dm_cache_user_cb_call(handle, row, result, obj);
    return 0;
}

int32_t dm_cache_handle_delmsg(tq_mom_handle *handle, int32_t row, ProtobufCMessage *obj) {
    OwnedNode removed;
    {
        CacheLock lock;
        if (stores_nothing(row)) DM_LOG(notice, "this is no cache obj.\r\n");
        removed = remove_object(row, obj);
        if (!removed)
            DM_LOG(failure, "can't find obj in cache to delete ret[%d] get[%p].\r\n", -1, static_cast<void *>(nullptr));
    }
    if (!removed) {
        status_refused(row);
        return -1;
    }
    status_count(row, Count::deletes);
    dm_cache_user_cb_call(handle, row, DM_CACHE_DELETED, removed->obj);
    return 0;
}

int32_t dm_cache_process_msg(tq_mom_handle *handle, int32_t row, int32_t cmd, StoredMessage obj) {
    store_msg message{};
    message.cmd = cmd;
    message.value = obj.get();
    if (checked_row(&message, row_word(row)) < 0 || !object_of_push(&message)) return -1;
    apply(handle, row, cmd, obj.get(), share(obj.get()));
    return 0;
}

int32_t dm_cache_update_obj(tq_mom_handle *handle, store_msg *msg, void *privdata) {
    const int32_t row = checked_row(msg, privdata);
    if (row < 0) return -1;
    if (msg->flag == 1) {
        DM_LOG(notice, "scan[%d] \n", msg->cmd);
        DM_LOG(trace, "scan[%d] done.\n", row);
    }
    if (msg->cmd == TQ_MOM_CMD_SUBSCRIBED) {
        const obj_sub_entry &entry = obj_sub_list[row];
        const int32_t ret = tq_mom_scan(handle, entry.db_id, entry.obj_tmpl, 0, dm_cache_update_obj, row_word(row));
        DM_LOG(trace, "subscribe[%d] ready, start scan[%d].\n", row, ret);
        return 0;
    }
    if (!is_applied(msg->cmd)) return 0;
    ProtobufCMessage *obj = is_push(msg->cmd) ? object_of_push(msg) : object_of_reply(msg);
    if (!obj) {
        if (brings_change(*msg)) status_refused(row);
        return -1;
    }
    apply(handle, row, msg->cmd, obj);
    return 0;
}

}  // namespace dm
