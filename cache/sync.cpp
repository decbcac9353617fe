// Keeps every enabled row equal to the store.
//
// One machine for the whole cache, four states told by three flags:
//
//   subscribing   not every enabled row is confirmed (g_cache_all_sub_done 0). Confirmations are noted, all else is
//                 dropped: the scan that follows brings it. The last confirmation asks for a scan of every enabled row.
//   gathering     confirmed, but not every enabled row is scanned (g_cache_all_scan_done 0). Replies and pushes wait in the
//                 pending queue, in order of arrival; readers still see what was cached before.
//   applying      every row is scanned, the queue is not yet applied (g_cache_proc_done 0). Entered by the end of the last
//                 scan and left within that same callback: the queue is applied class by class, then what was marked
//                 dirty before the scan and did not come again is swept.
//   live          all three flags 1: each push is applied at once.
//
// Two things lead from live back to gathering: a push of row 1 (the store announces its content complete again), which
// marks every row dirty and scans all of them; and a lost connection, after which the rows of that database are subscribed
// again, and marked dirty and scanned again when each one's timer ends. Subscribing is never entered twice.
//
// A row whose subscription or scan is refused, or never confirmed, holds the machine where it is until a reconnect. One that
// the platform holds, and asks for again by itself (TQ_MOM_RESULT_HELD), holds nobody: the others go on without it, nothing
// of it is swept, and its scan, when it is granted, is applied live. The end
// of a scan that was asked for before its row was marked dirty does not count: what it brought is older. A scan that the
// store takes up on a new connection before it reports the reconnect cannot be told from one that the loss cut off: the
// application may then come before the rescan has ended, and what the rescan still brings is applied live.
//
// Everything here runs on the store client's callback thread, rescans on the timer's, which owns nothing but its timer
// record. The flags and the queue take no lock; lists are changed under the cache lock.
#include "cache/sync.h"

#include "base/lock.h"
#include "base/log.h"
#include "base/rows.h"
#include "cache/apply.h"
#include "cache/pending.h"
#include "cache/row_update.h"
#include "cache/status.h"

static constexpr char log_tag[] = "dm_cache";

uint8_t g_cache_proc_done = 0;

namespace dm {
namespace {

using RowFlags = uint8_t[DM_ROW_COUNT];

RowFlags g_cache_sub_asked;  // the store has taken the subscription that brings pushes
RowFlags g_cache_sub_done;
RowFlags g_cache_scan_done;
RowFlags g_cache_held;  // the store refuses the subscription or the scan for now
uint8_t g_cache_all_sub_done = 0;
uint8_t g_cache_all_scan_done = 0;
tq_thread_timer g_cache_scan_timer[DM_ROW_COUNT];

// Scans of a row that are asked for and have not ended, and how many of these are older than what the row gathers now: a
// row's scans end in the order in which they were asked for. Both are written by the timer's thread, too.
uint32_t g_cache_open_scans[DM_ROW_COUNT];
uint32_t g_cache_old_scans[DM_ROW_COUNT];

// A start has been made again: the callback thread is to begin from the first state.
uint8_t g_cache_restart_due = 0;

enum class State { subscribing, gathering, applying, live };

// Clients poll this flag from other threads.
bool proc_done() {
    return __atomic_load_n(&g_cache_proc_done, __ATOMIC_RELAXED) != 0;
}
void set_proc_done(uint8_t done) {
    __atomic_store_n(&g_cache_proc_done, done, __ATOMIC_RELEASE);
}

State state() {
    if (!g_cache_all_sub_done) return State::subscribing;
    if (!g_cache_all_scan_done) return State::gathering;
    return proc_done() ? State::live : State::applying;
}

// But for those that are held, unless all of them are.
bool every_followed_row(const RowFlags &flags) {
    bool any_done = false, any_held = false;
    for (int32_t row = 0; row < obj_sub_list_max; ++row) {
        if (!row_followed(obj_sub_list[row])) continue;
        if (flags[row] != 1 && !g_cache_held[row]) return false;
        any_done |= flags[row] == 1;
        any_held |= g_cache_held[row] != 0;
    }
    return any_done || !any_held;
}

// Calls `act` for each row that is followed in the store.
template <class Act> void for_followed_rows(const Act &act) {
    for (int32_t row = 0; row < obj_sub_list_max; ++row)
        if (row_followed(obj_sub_list[row])) act(row, obj_sub_list[row]);
}

void set_held(int32_t row, bool held) {
    g_cache_held[row] = held;
    status_held(row, held);
}

void set_scan_done(int32_t row, bool done) {
    g_cache_scan_done[row] = done;
    status_scanned(row, done);
}

int32_t subscribe_row(int32_t row, tq_mom_msg_cb callback, Caller caller = Caller{}) {
    const obj_sub_entry &entry = obj_sub_list[row];
    const int32_t ret = tq_mom_subscribe(g_dm_global, entry.db_id, entry.obj_tmpl, 0, callback, row_word(row));
    if (ret != 0) DM_LOG_AS(caller, failure, "tq_mom_subscribe obj[%d], fail ret=[%d].\n", row, ret);
    return ret;
}

// The subscription that brings pushes. One that was refused, or a row enabled since, is asked for at the next reconnect.
void follow_row(int32_t row, Caller caller) {
    g_cache_sub_asked[row] = subscribe_row(row, dm_cache_mom_callback_func, caller) == 0;
}

// Counts one down; false when there is none.
bool take_one(uint32_t &count) {
    uint32_t now = __atomic_load_n(&count, __ATOMIC_ACQUIRE);
    while (now > 0)
        if (__atomic_compare_exchange_n(&count, &now, now - 1, false, __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE)) return true;
    return false;
}

void scans_are_old(int32_t row) {
    __atomic_store_n(&g_cache_old_scans[row], __atomic_load_n(&g_cache_open_scans[row], __ATOMIC_ACQUIRE),
                     __ATOMIC_RELEASE);
}

// A lost connection, or a new start, has cut off every scan.
void scans_are_cut_off(int32_t row) {
    __atomic_store_n(&g_cache_open_scans[row], 0u, __ATOMIC_RELEASE);
    scans_are_old(row);
}

bool rescan_armed(int32_t row) {
    return (g_cache_scan_timer[row].state & TQ_THREAD_TIMER_ARMED) != 0;
}

// A scan has ended: true when it is of what the row gathers now, and no rescan is still to come.
bool scan_counts(int32_t row) {
    take_one(g_cache_open_scans[row]);
    return !take_one(g_cache_old_scans[row]) && !rescan_armed(row);
}

int32_t scan_row(int32_t row) {
    const obj_sub_entry &entry = obj_sub_list[row];
    status_scan_asked(row);
    __atomic_add_fetch(&g_cache_open_scans[row], 1u, __ATOMIC_ACQ_REL);  // its end may come before the call returns
    const int32_t ret =
        tq_mom_scan(g_dm_global, entry.db_id, entry.obj_tmpl, 0, dm_cache_mom_callback_func, row_word(row));
    if (ret != 0) take_one(g_cache_open_scans[row]);
    return ret;
}

void dm_cache_mom_first_scan_data() {
    for_followed_rows([caller = Caller{}](int32_t row, const obj_sub_entry &) {
        const int32_t ret = scan_row(row);
        if (ret != 0) DM_LOG_AS(caller, failure, "tq_mom_subscribe obj[%d], fail ret=[%d].\n", row, ret);
    });
    DM_LOG(notice, "all key rsync scan done. \n");
}

// Every row is to be scanned before the next application.
void forget_scans() {
    for (int32_t row = 0; row < obj_sub_list_max; ++row) {
        set_scan_done(row, false);
        scans_are_old(row);
    }
    g_cache_all_scan_done = 0;
}

// On every confirmation, so one that comes after all others starts another full scan.
void dm_cache_mom_start_scan() {
    if (!every_followed_row(g_cache_sub_done)) return;
    if (!g_cache_all_sub_done) forget_scans();  // what they brought was dropped
    g_cache_all_sub_done = 1;
    DM_LOG(notice, "all key subscribe done. \n");
    DM_LOG(trace, "dm cache rsync subscribe finish.");
    dm_cache_mom_first_scan_data();
}

// What a late scan did not bring.
void sweep_row(int32_t row) {
    CacheLock lock;
    status_count(row, Count::swept, sweep(row));
}

void dm_cache_mom_update_scan_over_list(store_msg *msg, int32_t row) {
    if (!scan_counts(row)) return;
    set_scan_done(row, true);
    if (g_cache_held[row]) {
        set_held(row, false);
        if (state() == State::live) sweep_row(row);
    }
    if (!every_followed_row(g_cache_scan_done) || g_cache_all_scan_done) return;
    DM_LOG(notice, "all key scan done. \n");
    DM_LOG(trace, "dp rsync scan finish.");
    if (msg->value) dm_cache_mom_cache(msg, row);
    g_cache_all_scan_done = 1;
    set_proc_done(0);
}

void dm_cache_set_all_dirty() {
    CacheLock lock;
    for (int32_t row = 0; row < obj_sub_list_max; ++row)
        if (obj_sub_list[row].enable == 1) mark_dirty(row);
}

// The picture is complete; told once, by whichever of two nested applications comes to its end first.
void application_done() {
    if (proc_done()) return;
    set_proc_done(1);
    status_applied();
}

// Applies what was gathered. An empty queue after a scan still means that what was marked dirty is gone; an empty queue
// when live means nothing. What is applied may bring another message: when that sets the machine gathering again, what is
// marked dirty stays for the application to come.
void dm_cache_mom_process_cache(tq_mom_handle *handle) {
    if (list_empty(&g_cache_pending_list)) {
        if (!proc_done()) dm_cache_clear_data_dirty();
        application_done();
        return;
    }
    for (int32_t proc_order = 1; proc_order <= 3; ++proc_order) dm_cache_process_order(handle, proc_order);
    dm_cache_process_rest(handle);
    if (g_cache_all_scan_done) dm_cache_clear_data_dirty();
    if (g_cache_all_scan_done && list_empty(&g_cache_pending_list)) application_done();
    DM_LOG(trace, "process cache, g_cache_proc_done = %d\n", proc_done());
}

// The last row that the others waited for may be this one.
void hold_row(tq_mom_handle *handle, int32_t row) {
    set_held(row, true);
    if (!g_cache_all_sub_done) return dm_cache_mom_start_scan();
    if (!every_followed_row(g_cache_scan_done) || g_cache_all_scan_done) return;
    DM_LOG(notice, "all key scan done. \n");
    g_cache_all_scan_done = 1;
    set_proc_done(0);
    dm_cache_mom_process_cache(handle);
}

bool is_held(const tq_mom_handle *handle, const store_msg *msg, intptr_t row) {
    return handle && msg && msg->result == TQ_MOM_RESULT_HELD && row >= 0 && row < obj_sub_list_max &&
           row_followed(obj_sub_list[row]);
}

void reset_machine() {
    for (int32_t row = 0; row < obj_sub_list_max; ++row) {
        drop_pending(row);
        g_cache_sub_asked[row] = g_cache_sub_done[row] = g_cache_scan_done[row] = 0;
        set_held(row, false);
        scans_are_cut_off(row);
    }
    g_cache_all_sub_done = g_cache_all_scan_done = 0;
    set_proc_done(0);
    status_restarted();
}

// The store's content is complete again: everything that its scans do not bring any more is to go.
void resynchronise() {
    dm_cache_set_all_dirty();
    forget_scans();
    dm_cache_mom_first_scan_data();
}

int32_t dm_cache_tq_mom_scan_input_db_timer(tq_thread_timer *timer) {
    const int32_t row = timer->arg;
    if (!row_in_range(row)) {
        DM_LOG(failure, "index err.\n");
        return -1;
    }
    {
        CacheLock lock;
        mark_dirty(row);
    }
    scans_are_old(row);
    *timer = {};
    const int32_t ret = scan_row(row);
    if (ret != 0) DM_LOG(failure, "dm_cache_tq_mom_scan_input_db obj[%d], fail ret=[%d].\n", row, ret);
    return ret;
}

void cancel_rescan(int32_t row) {
    if (rescan_armed(row)) tq_thread_cancel(&g_cache_scan_timer[row]);
    g_cache_scan_timer[row] = {};
}

// Whatever was scanned or queued for a row before its subscription was restored is older than the rescan to come.
void gather_again(int32_t row) {
    drop_pending(row);
    set_scan_done(row, false);
    g_cache_all_scan_done = 0;
}

int32_t dm_cache_tq_mom_subscribe_callback(tq_mom_handle *handle, store_msg *msg, void *privdata) {
    const auto word = reinterpret_cast<intptr_t>(privdata);
    if (!handle || !msg || msg->result != 0) {
        DM_LOG(failure, "input err.\n");
        if (is_held(handle, msg, word)) hold_row(handle, static_cast<int32_t>(word));
        return -1;
    }
    if (word < 0 || word >= obj_sub_list_max) {
        DM_LOG(failure, "index err.\n");
        return -1;
    }
    if (msg->cmd != TQ_MOM_CMD_SUBSCRIBED) return 0;

    const auto row = static_cast<int32_t>(word);
    set_held(row, false);
    gather_again(row);
    const int32_t delay = tq_mom_get_reconnect_scan_time(handle, obj_sub_list[row].db_id);
    cancel_rescan(row);
    tq_thread_insert_timer(handle->timer_master, &g_cache_scan_timer[row], dm_cache_tq_mom_scan_input_db_timer, row,
                           delay, "dmcache_scan");
    return 0;
}

}  // namespace

int32_t dm_cache_tq_mom_subscribe(uint32_t db) {
    int32_t ret = -1;
    for_followed_rows([&, caller = Caller{}](int32_t row, const obj_sub_entry &entry) {
        if (entry.db_id != db) return;
        scans_are_cut_off(row);
        set_scan_done(row, false);
        set_held(row, false);
        g_cache_all_scan_done = 0;
        if (!g_cache_sub_asked[row] && !g_cache_sub_done[row]) follow_row(row, caller);
        ret = subscribe_row(row, dm_cache_tq_mom_subscribe_callback, caller);
    });
    return ret;
}

void begin_again() {
    for (int32_t row = 0; row < obj_sub_list_max; ++row) cancel_rescan(row);
    __atomic_store_n(&g_cache_restart_due, uint8_t{1}, __ATOMIC_RELEASE);
}

}  // namespace dm

using namespace dm;

int32_t dm_cache_subscribe(uint32_t db) {
    if (__atomic_exchange_n(&g_cache_restart_due, uint8_t{0}, __ATOMIC_ACQ_REL)) reset_machine();
    for_followed_rows([=, caller = Caller{}](int32_t row, const obj_sub_entry &entry) {
        if (entry.db_id == db) follow_row(row, caller);
    });
    return 0;
}

int32_t dm_cache_mom_callback_func(tq_mom_handle *handle, store_msg *msg, void *privdata) {
    const auto word = reinterpret_cast<intptr_t>(privdata);
    if (!handle || !msg || !privdata || msg->result != 0) {
        DM_LOG(failure, "global or msg or privdata is NULL \r\n");
        if (is_held(handle, msg, word))
            hold_row(handle, static_cast<int32_t>(word));
        else if (msg && word > 0 && word < obj_sub_list_max && brings_change(*msg))
            status_refused(static_cast<int32_t>(word));
        return -1;
    }
    if (word < 0 || word >= obj_sub_list_max) {
        DM_LOG(failure, "invalid privdata[%d]\r\n", static_cast<int32_t>(word));
        return -1;
    }
    const auto row = static_cast<int32_t>(word);
    const bool ends_no_gathering = msg->flag == 1 && state() == State::live;  // what it brings is dropped
    if (msg->flag == 1) {
        dm_cache_mom_update_scan_over_list(msg, row);
        DM_LOG(notice, "scan done[%d] \n", row);
    }
    if (msg->cmd == TQ_MOM_CMD_SUBSCRIBED) {
        g_cache_sub_done[row] = 1;
        status_subscribed(row);
        DM_LOG(notice, "key[%d] subscribe finish. \n", row);
        const bool is_scanned_already = g_cache_held[row] && g_cache_all_sub_done;  // its scan was held with it
        if (!is_scanned_already) dm_cache_mom_start_scan();
        return 0;
    }
    if (state() == State::subscribing) return 0;
    if (state() == State::gathering) {
        if (msg->value)
            dm_cache_mom_cache(msg, row);
        else if (brings_change(*msg))
            status_refused(row);
        return 0;
    }

    dm_cache_mom_process_cache(handle);
    if (ends_no_gathering && brings_change(*msg)) status_refused(row);
    if (msg->flag == 1 || state() != State::live) return 0;
    DM_LOG(trace, "step 5, g_cache_proc_done = %d\n", proc_done());
    if (row != DM_ROW_DP_LIB_COMPLETE) {
        dm_cache_update_obj(handle, msg, privdata);
        return 0;
    }
    DM_LOG(trace, "step 6, recive complete again\n");
    resynchronise();
    return 0;
}

int32_t dm_cache_clear_data_dirty(void) {
    CacheLock lock;
    for (int32_t row = 0; row < obj_sub_list_max; ++row)
        if (obj_sub_list[row].enable == 1 && !g_cache_held[row]) status_count(row, Count::swept, sweep(row));
    DM_LOG(trace, "dm_cache_clear_data_dirty done\n");
    return 0;
}
