// The pending queue: what scans and pushes bring while objects are being gathered, in order of arrival, until the whole
// picture is applied. Takes the cache lock to look for an equal object and to apply one; the queue itself has no lock. Only the
// store client's callback thread touches it, and dm_cache_stop() on its caller's, when no callback is inside any more.
#pragma once

#include "base/list.h"
#include "base/log.h"

namespace dm {

// What one message has brought. The queue owns it until it is applied or dropped; then whoever has taken it out does.
struct pending_item {
    dm_list_head link;
    int32_t row;
    int32_t cmd;
    int32_t flag;
    ProtobufCMessage *obj;  // a stored message, owned; shared with the cache when it holds an equal one
};

extern dm_list_head g_cache_pending_list;
extern uint32_t g_cache_pending_num;

// Applies the items of one class and frees them; then all that is left, in order of arrival.
void apply_class(tq_mom_handle *handle, int32_t proc_order);
void apply_rest(tq_mom_handle *handle);

// Frees what waits for a row.
void drop_pending(int32_t row);

}  // namespace dm
