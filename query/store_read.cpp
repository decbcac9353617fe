// The calls of the store behind the fallback reads. Takes the cache lock for the mark before a read; the caller does not hold
// it, because a call of the store waits for a round trip.
#include "query/store_read.h"

#include "base/trace.h"
#include "cache/gate.h"
#include "cache/status.h"

static constexpr dm::LogTag log_tag{"ndm_port", dm::Threshold::library};

namespace dm {
namespace {

// A message of a kind that carries only a key: what the store is asked for.
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

}  // namespace

uint64_t change_mark_now() {
    SharedCacheLock lock;
    return change_mark();
}

StoreReply::StoreReply(int32_t row, uint32_t db, const ProtobufCMessage *key, ReadBy by, Caller caller)
    : row_(row), since_(change_mark_now()) {
    int32_t error = ask(db, key, by, caller);
    if (error == 0 && !obj_) error = -1;  // nothing came that the query could use
    tell_store_read(row, by == ReadBy::record ? DM_CACHE_READ_RECORD : DM_CACHE_READ_OBJECT, key, obj_, error);
}

int32_t StoreReply::ask(uint32_t db, const ProtobufCMessage *key, ReadBy by, Caller caller) {
    KeyedMessage request(*kind_of_row(row_), key);
    int32_t error = 0;
    const StoreCallback inside;
    if (!inside.may_run()) {
        DM_LOG_AS(caller, failure, "unexpected, error:%d!\r\n", -1);
        return -1;
    }
    if (by == ReadBy::record) {
        record_ = tq_mom_hgetall_sync(store_handle(), db, request.message());
        error = record_ ? record_->error : 0;
        obj_ = record_ ? record_->obj : nullptr;
    } else {
        obj_ = tq_mom_get_sync(store_handle(), db, request.message(), &error);
    }
    if (error == 0 && obj_ && is_kind(obj_, kind_of_row(row_)->descriptor)) return 0;
    DM_LOG_AS(caller, failure, "unexpected, error:%d!\r\n", error);
    if (obj_) status_refused(row_, obj_);
    give_back(caller);
    return error;
}

StoreReply::~StoreReply() {
    release();
}

int32_t StoreReply::give_back(Caller caller) {
    if (release() == 0) return 0;
    DM_LOG_AS(caller, failure, "free res fail.\r\n");
    return -1;
}

int32_t StoreReply::release() {
    result_rec *record = std::exchange(record_, nullptr);
    ProtobufCMessage *obj = std::exchange(obj_, nullptr);
    if (record) return tq_mom_hash_res_free(record);
    return obj ? tq_mom_tq_obj_free(obj) : 0;
}

int32_t scan_store(int32_t row, tq_mom_msg_cb callback, void *priv) {
    const obj_sub_entry &entry = obj_sub_list[row];
    const StoreCallback inside;
    const int32_t code = !entry.obj_tmpl || !inside.may_run()
                             ? -1
                             : tq_mom_scan_sync(store_handle(), entry.db_id, entry.obj_tmpl, 0, callback, priv);
    tell_store_read(row, DM_CACHE_READ_SCAN, nullptr, nullptr, code);
    return code;
}

}  // namespace dm
