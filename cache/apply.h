// Changes of the store applied to the cache, followed by the row's callbacks: one at a time when live, item by item when
// a queue is applied. On the store client's thread. Takes the cache lock for the change; callbacks run without it.
#pragma once

#include "base/message.h"

namespace dm {

// A row number travels through the store client as the private word of a callback.
inline void *row_word(int32_t row) {
    return reinterpret_cast<void *>(static_cast<intptr_t>(row));
}

// 0, or the code of a change that was refused: no callback runs then. `stored` is another owner of the object, if the cache
// may keep the object as it is; else the cache makes a copy.
int32_t apply_set(tq_mom_handle *handle, int32_t row, ProtobufCMessage *obj, StoredMessage stored = {});
int32_t apply_delete(tq_mom_handle *handle, int32_t row, ProtobufCMessage *obj);

// A queued message.
void apply_queued(tq_mom_handle *handle, int32_t row, int32_t cmd, StoredMessage obj);

// A message as the store sent it.
int32_t apply_live(tq_mom_handle *handle, store_msg *msg, void *privdata);

}  // namespace dm
