// The value of a store message, checked. Takes no lock.
#include "base/store_message.h"

namespace dm {

const ProtobufCMessage *named_object(const store_msg &msg) {
    if (msg.result != 0 || !msg.value) return nullptr;
    if (is_push(msg.cmd)) return static_cast<const ProtobufCMessage *>(msg.value);
    const auto *record = carries_record(msg.cmd) ? static_cast<const result_rec *>(msg.value) : nullptr;
    return record && record->error == 0 ? record->obj : nullptr;
}

ProtobufCMessage *carried_object(const store_msg &msg, bool in_record, const LogTag &log_tag, Caller caller) {
    if (!in_record) {
        if (!msg.value) DM_LOG_AS(caller, failure, "msg value is NULL\r\n");
        return static_cast<ProtobufCMessage *>(msg.value);
    }
    const auto *record = static_cast<const result_rec *>(msg.value);
    if (!record) {
        DM_LOG_AS(caller, failure, "invalid value[%p].\n", msg.value);
        return nullptr;
    }
    if (record->error == 0 && record->obj) return record->obj;
    DM_LOG_AS(caller, failure, "invalid value[%p, %d, %p].\n", msg.value, record->error,
              static_cast<void *>(record->obj));
    return nullptr;
}

}  // namespace dm
