// The pending queue. What it gathers is stored messages, which the cache keeps as they are when the queue is applied. An
// object that the cache holds already is not copied at all. Takes the cache lock, its shared side, to look for it, and by
// cache/apply.cpp for each object that is applied; the queue itself has no lock (pending.h).
#include "cache/pending.h"

#include <utility>

#include "base/lock.h"
#include "base/rows.h"
#include "base/store_message.h"
#include "cache/apply.h"
#include "cache/row_sync.h"
#include "cache/row_update.h"
#include "cache/status.h"
#include "tq_dm_cache/dm_cache_sync.h"

static constexpr dm::LogTag log_tag{"dm_cache"};

namespace dm {

dm_list_head g_cache_pending_list = {&g_cache_pending_list, &g_cache_pending_list};
uint32_t g_cache_pending_num = 0;

namespace {

struct FreeItem {
    void operator()(pending_item *item) const {
        if (item->obj) ReleaseStored{}(item->obj);
        free(item);
    }
};
using OwnedItem = std::unique_ptr<pending_item, FreeItem>;

// Where a walk of the queue goes on. What it calls may bring another message, which walks the queue itself and frees items:
// so a walk is told of every item that leaves.
struct Walk {
    dm_list_head *next;
    Walk *outer;
};
Walk *walks = nullptr;

void leave_queue(pending_item *item) {
    for (Walk *walk = walks; walk; walk = walk->outer)
        if (walk->next == &item->link) walk->next = item->link.next;
    list_unlink(&item->link);
    --g_cache_pending_num;
    __atomic_sub_fetch(&row_sync[item->row].queued, 1u, __ATOMIC_RELAXED);
}

void append(pending_item *item) {
    dm_list_add_tail_no_limit(&item->link, &g_cache_pending_list, &g_cache_pending_num);
    __atomic_add_fetch(&row_sync[item->row].queued, 1u, __ATOMIC_RELAXED);
}

// Takes every item that is wanted out of the queue and hands it to `take`.
template <class Wanted, class Take> void take_items(const Wanted &wanted, const Take &take) {
    Walk walk{g_cache_pending_list.next, walks};
    walks = &walk;
    while (walk.next != &g_cache_pending_list) {
        auto *item = reinterpret_cast<pending_item *>(walk.next);
        walk.next = walk.next->next;
        if (!wanted(*item)) continue;
        leave_queue(item);
        take(OwnedItem(item));
    }
    walks = walk.outer;
}

void apply_item(tq_mom_handle *handle, const OwnedItem &item) {
    apply_queued(handle, item->row, item->cmd, StoredMessage(std::exchange(item->obj, nullptr)));
}

// A copy of an object to gather, or a share of the cached one that is equal to it.
int32_t keep(int32_t row, const ProtobufCMessage *obj, StoredMessage &kept) {
    {
        SharedCacheLock lock;
        kept = cached_equal(row, obj);
    }
    if (kept) return 0;
    return store_copy(obj, obj->descriptor, kept);
}

int32_t queue_object(const store_msg *msg, int32_t row, Caller caller) {
    OwnedItem item(static_cast<pending_item *>(calloc(1, sizeof(pending_item))));
    if (!item) return -1;
    item->row = row;
    item->cmd = msg->cmd;
    const ProtobufCMessage *obj = carried_object(*msg, carries_record(msg->cmd), log_tag, caller);
    if (!obj) return -1;
    StoredMessage kept;
    if (const int32_t ret = keep(row, obj, kept); ret != 0) {
        DM_LOG_AS(caller, failure, "dm_cache_copy_obj failed ! ret %d\r\n", ret);
        return -2;
    }
    item->obj = kept.release();
    append(item.release());
    return 0;
}

}  // namespace

void apply_class(tq_mom_handle *handle, int32_t proc_order) {
    take_items(
        [=](const pending_item &item) {
            return item.row != DM_ROW_DP_LIB_COMPLETE && obj_sub_list[item.row].proc_order == proc_order;
        },
        [=](const OwnedItem &item) { apply_item(handle, item); });
}

void apply_rest(tq_mom_handle *handle) {
    take_items([](const pending_item &) { return true; }, [=](const OwnedItem &item) { apply_item(handle, item); });
}

void drop_pending(int32_t row) {
    take_items([=](const pending_item &item) { return item.row == row; }, [](const OwnedItem &) {});
}

}  // namespace dm

using namespace dm;

int32_t dm_cache_mom_cache(store_msg *msg, int32_t row) {
    if (!msg) return -1;
    if (!msg->value) {
        DM_LOG(trace, "====>ignore null pkg!");
        return 0;
    }
    if (!row_in_range(row)) return -1;
    const int32_t ret = queue_object(msg, row, Caller{});
    if (ret != 0) status_refused(row, named_object(*msg));
    return ret;
}

int32_t dm_cache_resort_over(void) {
    dm_list_head *link = g_cache_pending_list.next;
    // By count: what is moved to the tail is not met again.
    for (uint32_t left = g_cache_pending_num; left > 0; --left) {
        auto *item = reinterpret_cast<pending_item *>(link);
        link = link->next;
        if (item->row != DM_ROW_DP_LIB_COMPLETE) continue;
        leave_queue(item);
        append(item);
    }
    return 0;
}
