// What a message of the store carries: the one place that looks into a store_msg's value. Takes no lock.
#pragma once

#include "base/log.h"
#include "tq_dm_cache/tq_platform.h"

namespace dm {

// A set or a delete carries the object itself.
inline bool is_push(int32_t cmd) {
    return cmd == TQ_MOM_CMD_SET || cmd == TQ_MOM_CMD_DELETE;
}

// What a scan brings carries a record of the object.
inline bool is_scanned(int32_t cmd) {
    return cmd == TQ_MOM_CMD_REPLY || cmd == TQ_MOM_CMD_REPLY_HASH;
}
inline bool carries_record(int32_t cmd) {
    return is_scanned(cmd) || cmd == TQ_MOM_CMD_REPLY_GET;
}

// The message sets or deletes an object; the end mark of a scan does not, and what is read by request is not for the cache.
inline bool brings_change(const store_msg &msg) {
    return (is_push(msg.cmd) || is_scanned(msg.cmd)) && (msg.value || msg.flag != 1);
}

// The object that a message carries, for whoever only names it; null when there is none or it is not to be looked at.
const ProtobufCMessage *named_object(const store_msg &msg);

// The object that a message carries, itself or in a record; null, logged in the caller's name, when it carries none that can
// be used.
ProtobufCMessage *carried_object(const store_msg &msg, bool in_record, const LogTag &log_tag, Caller caller = Caller{});

}  // namespace dm
