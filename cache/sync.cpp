// Keeps every enabled row equal to the store.
//
// One machine for the whole cache:
//
//   subscribing   not every enabled row is confirmed. Confirmations are noted, all else is dropped: the scan that follows
//                 brings it. The last confirmation asks for a scan of every enabled row: to gathering. The end of the last
//                 row's scan, when the rescans of a reconnect come before the last confirmation: to early.
//   early         still subscribing, and every enabled row has been scanned already. Those scans will not count. The last
//                 confirmation: to gathering. A row that is to be scanned again: back to subscribing.
//   gathering     confirmed, but not every enabled row is scanned. Replies and pushes wait in the pending queue, in order
//                 of arrival; readers still see what was cached before. The end of the last row's scan: to applying.
//   applying      every row is scanned, the queue is not yet applied (g_cache_proc_done 0). Left within the callback that
//                 entered it: the queue is applied class by class, then what was marked dirty before the scan and did not
//                 come again is swept: to live. When a message that is delivered meanwhile has rows scanned again: to
//                 gathering, without a sweep, and g_cache_proc_done stays 0 until the next application has ended.
//   live          (g_cache_proc_done 1) each push is applied at once. Two things lead to gathering: a push of row 1 (the
//                 store announces its content complete again), which marks every row dirty and scans all of them; and a
//                 lost connection, after which the rows of that database are subscribed again, and marked dirty and
//                 scanned again when each one's timer ends.
//
// Another start after one that failed, and a stop, lead from any state to subscribing.
//
// A row whose subscription or scan is refused, or never confirmed, holds the machine where it is until a reconnect. One that
// the platform holds, and asks for again by itself (TQ_MOM_RESULT_HELD), holds nobody: the others go on without it, nothing
// of it is swept, and its scan, when it is granted, is applied live.
//
// The end of a scan that was asked for before its row was marked dirty does not count: what it brought is older. A scan that
// the store takes up on a new connection before it reports the reconnect cannot be told from one that the loss cut off: the
// application may then come before the rescan has ended, and what the rescan still brings is applied live.
//
// The machine runs on the store client's callback thread, rescans on the timer's, which owns nothing but its timer record and
// the numbers of its row's scans. Three other threads come in: whoever enables a row late writes words of that row alone;
// begin_again() leaves a word for the callback thread, and disarms timers; end_sync() runs when no callback is inside any
// more, and has everything to itself. The state and the queue have no lock. Takes the cache lock to change a list.
#include "cache/sync.h"

#include "base/clock.h"
#include "base/lock.h"
#include "base/log.h"
#include "base/store_message.h"
#include "base/trace.h"
#include "cache/age.h"
#include "cache/apply.h"
#include "cache/events.h"
#include "cache/gate.h"
#include "cache/pending.h"
#include "cache/row_sync.h"
#include "cache/row_update.h"
#include "cache/status.h"

static constexpr dm::LogTag log_tag{"dm_cache"};

// Of the bundled platform; a client of another platform may have none.
extern "C" __attribute__((weak)) DM_API int32_t tq_mom_client_forget(tq_mom_handle *handle, tq_mom_msg_cb callback);

uint8_t g_cache_proc_done = 0;

namespace dm {

RowSync row_sync[DM_ROW_COUNT];
uint32_t gathered_objects = 0;
uint8_t machine_is_live = 0;

namespace {

enum class State { subscribing, early, gathering, applying, live } state = State::subscribing;

// Both words are for other threads. g_cache_proc_done stays as it is while the machine gathers, since readers still see what
// was cached before; machine_is_live is set once the application has been told.
void enter(State next) {
    if (state == State::live && next != State::live) age_grows_from_now();
    state = next;
    if (next != State::gathering) store(g_cache_proc_done, static_cast<uint8_t>(next == State::live));
    store(machine_is_live, uint8_t{0});
}

uint32_t subscribed_databases = 0;  // a bit for each

uint32_t database_bit(uint32_t db) {
    return db < 32 ? 1u << db : 0;
}

// A start has been made again: the callback thread is to begin from the first state.
uint8_t restart_due = 0;

bool subscribing() {
    return state == State::subscribing || state == State::early;
}

// Some row is to be scanned before the next application.
void gather_again() {
    if (state == State::early) enter(State::subscribing);
    if (state == State::applying || state == State::live) enter(State::gathering);
}

template <class Act> void for_followed_rows(const Act &act) {
    for (int32_t row = 0; row < obj_sub_list_max; ++row)
        if (row_followed(obj_sub_list[row])) act(row, obj_sub_list[row]);
}

bool is_unconfirmed_late(const RowSync &row) {
    return load(row.late) != 0 && load(row.confirmed) == 0;
}

// Rows that are apart are ignored, unless every row is.
bool every_followed_row(uint8_t RowSync::*is_done) {
    bool all_done = true, any_done = false, any_apart = false;
    for_followed_rows([&](int32_t row, const obj_sub_entry &) {
        const bool done = row_sync[row].*is_done != 0, apart = is_apart(row_sync[row]);
        all_done &= done || apart;
        any_done |= done;
        any_apart |= apart;
    });
    return all_done && (any_done || !any_apart);
}

// All that a row has to follow has come, and nothing is missing but what the store has not told yet.
void has_become_equal(RowSync &row) {
    store(row.filled, uint8_t{1});
    store(row.equal, static_cast<uint8_t>(load(row.followed) != 0 && load(row.confirmed) != 0));
}

// Scans of a row

// A lost connection, or a new start, has cut off every scan.
void scans_are_cut_off(RowSync &row) {
    store(row.ended, load(row.asked));
    store(row.stale, load(row.asked));
}

bool is_stale(const RowSync &row, uint32_t scan) {
    return static_cast<int32_t>(scan - load(row.stale)) <= 0;
}

bool rescan_armed(const RowSync &row) {
    return (row.rescan.state & TQ_THREAD_TIMER_ARMED) != 0;
}

// A scan has ended: true when it is of what the row gathers now, and no rescan is still to come.
bool scan_counts(RowSync &row) {
    bool counts = true;
    if (const uint32_t ended = load(row.ended); ended != load(row.asked)) {
        store(row.ended, ended + 1);
        counts = !is_stale(row, ended + 1);
    }
    return counts && !rescan_armed(row);
}

int32_t scan_row(int32_t number) {
    const obj_sub_entry &entry = obj_sub_list[number];
    RowSync &row = row_sync[number];
    store(row.asked_ms, static_cast<uint32_t>(now_ms()));
    __atomic_add_fetch(&row.asked, 1u, __ATOMIC_ACQ_REL);  // its end may come before the call returns
    const int32_t ret =
        tq_mom_scan(g_dm_global, entry.db_id, entry.obj_tmpl, 0, dm_cache_mom_callback_func, row_word(number));
    if (ret != 0) __atomic_sub_fetch(&row.asked, 1u, __ATOMIC_ACQ_REL);
    return ret;
}

void scan_row_logged(int32_t row) {
    const int32_t ret = scan_row(row);
    if (ret != 0)
        DM_LOG_AS(Caller{"dm_cache_mom_first_scan_data"}, failure, "tq_mom_subscribe obj[%d], fail ret=[%d].\n", row,
                  ret);
}

// What is cached of it so far is what the client has put there.
void scan_late_row(int32_t row) {
    {
        CacheLock lock;
        mark_dirty(row);
    }
    scan_row_logged(row);
}

void scan_every_row() {
    for_followed_rows([](int32_t row, const obj_sub_entry &) {
        if (!is_unconfirmed_late(row_sync[row])) scan_row_logged(row);  // its confirmation asks for its scan
    });
    DM_LOG_AS(Caller{"dm_cache_mom_first_scan_data"}, notice, "all key rsync scan done. \n");
}

// Every row is to be scanned before the next application.
void forget_scans() {
    for (RowSync &row : row_sync) {
        store(row.scanned, uint8_t{0});
        store(row.stale, load(row.asked));
    }
    gather_again();
}

// Subscribing

int32_t subscribe_row(int32_t row, tq_mom_msg_cb callback, Caller caller) {
    const obj_sub_entry &entry = obj_sub_list[row];
    store(row_sync[row].subscribed_ms, static_cast<uint32_t>(now_ms()));
    const int32_t ret = tq_mom_subscribe(g_dm_global, entry.db_id, entry.obj_tmpl, 0, callback, row_word(row));
    if (ret != 0) DM_LOG_AS(caller, failure, "tq_mom_subscribe obj[%d], fail ret=[%d].\n", row, ret);
    return ret;
}

// The subscription that brings pushes. One that was refused, or a row enabled since, is asked for at the next reconnect.
void follow_row(int32_t row, Caller caller) {
    store(row_sync[row].followed, static_cast<uint8_t>(subscribe_row(row, dm_cache_mom_callback_func, caller) == 0));
}

// On every confirmation, so one that comes after all others starts another full scan.
void begin_gathering() {
    if (!every_followed_row(&RowSync::confirmed)) return;
    if (subscribing()) {
        forget_scans();  // what they brought was dropped
        enter(State::gathering);
    }
    DM_LOG_AS(Caller{"dm_cache_mom_start_scan"}, notice, "all key subscribe done. \n");
    DM_LOG_AS(Caller{"dm_cache_mom_start_scan"}, trace, "dm cache rsync subscribe finish.");
    scan_every_row();
}

// Gathering and applying

// The last row that the others waited for has been scanned, or is held.
bool gathers_no_more() {
    const bool gathers = state == State::gathering || state == State::subscribing;
    return gathers && every_followed_row(&RowSync::scanned);
}

// What was gathered is to be applied; before all is subscribed it never will be.
void leave_gathering() {
    enter(subscribing() ? State::early : State::applying);
}

void row_is_scanned(int32_t number) {
    RowSync &row = row_sync[number];
    store(row.scanned, uint8_t{1});
    if (load(row.asked) != 0) store(row.last_scan_ms, static_cast<uint32_t>(now_ms()) - load(row.asked_ms));
    if (!is_apart(row)) return;
    if (state == State::live) {
        {
            CacheLock lock;
            status_count(number, Count::swept, sweep(number));  // what a scan that came late did not bring
        }
        has_become_equal(row);
        deliver_events();
    }
    store(row.held, uint8_t{0});
    store(row.late, uint8_t{0});
}

void end_scan(store_msg *msg, int32_t row) {
    if (!scan_counts(row_sync[row]) || is_unconfirmed_late(row_sync[row])) return;
    row_is_scanned(row);
    if (!gathers_no_more()) return;
    DM_LOG_AS(Caller{"dm_cache_mom_update_scan_over_list"}, notice, "all key scan done. \n");
    DM_LOG_AS(Caller{"dm_cache_mom_update_scan_over_list"}, trace, "dp rsync scan finish.");
    if (msg->value) dm_cache_mom_cache(msg, row);
    leave_gathering();
}

void mark_every_row_dirty() {
    CacheLock lock;
    for (int32_t row = 0; row < obj_sub_list_max; ++row)
        if (obj_sub_list[row].enable == 1) mark_dirty(row);
}

// The picture is complete; told once, by whichever of two nested applications comes to its end first.
void leave_applying() {
    if (state != State::applying) return;
    enter(State::live);
    for_followed_rows([](int32_t row, const obj_sub_entry &) {
        if (!is_apart(row_sync[row])) has_become_equal(row_sync[row]);
    });
    const bool is_first = !status_synced();
    if (is_first) expect_unfollowed(true);  // before it every answer may be wrong
    note_applied(is_first);                 // who has waited for it, and follows then, is not told of it
    status_applied();
    store(machine_is_live, uint8_t{1});
}

// Of every enabled row, what is still marked.
void sweep_rows() {
    CacheLock lock;
    for (int32_t row = 0; row < obj_sub_list_max; ++row)
        if (obj_sub_list[row].enable == 1 && !is_apart(row_sync[row])) status_count(row, Count::swept, sweep(row));
    DM_LOG_AS(Caller{"dm_cache_clear_data_dirty"}, trace, "dm_cache_clear_data_dirty done\n");
}

// Applies what was gathered. An empty queue after a scan still means that what was marked dirty is gone; an empty queue
// when live means nothing. What is applied may bring another message: when that sets the machine gathering again, what is
// marked dirty stays for the application to come.
void apply_queue(tq_mom_handle *handle) {
    if (list_empty(&g_cache_pending_list)) {
        if (state == State::applying) sweep_rows();
        return leave_applying();
    }
    store(gathered_objects, g_cache_pending_num);
    for (int32_t proc_order = 1; proc_order <= 3; ++proc_order) apply_class(handle, proc_order);
    apply_rest(handle);
    if (state == State::applying || state == State::live) {
        sweep_rows();
        if (list_empty(&g_cache_pending_list)) leave_applying();
    }
    DM_LOG_AS(Caller{"dm_cache_mom_process_cache"}, trace, "process cache, g_cache_proc_done = %d\n",
              load(g_cache_proc_done));
}

// Followers hear of each item after its callbacks, and in the end of what was swept.
void apply_gathered(tq_mom_handle *handle) {
    apply_queue(handle);
    deliver_events();
}

void hold_row(tq_mom_handle *handle, int32_t row) {
    store(row_sync[row].held, uint8_t{1});
    store(row_sync[row].equal, uint8_t{0});
    if (subscribing()) return begin_gathering();
    if (!gathers_no_more()) return;
    DM_LOG(notice, "all key scan done. \n");
    leave_gathering();
    apply_gathered(handle);
}

bool is_held(const tq_mom_handle *handle, const store_msg *msg, intptr_t row) {
    return handle && msg && msg->result == TQ_MOM_RESULT_HELD && row >= 0 && row < obj_sub_list_max &&
           row_followed(obj_sub_list[row]);
}

// Of a message that cannot be used, or says that the store refuses or holds what was asked for.
void on_refusal(tq_mom_handle *handle, const store_msg *msg, intptr_t word) {
    const auto row = static_cast<int32_t>(word);
    if (is_held(handle, msg, word)) return hold_row(handle, row);
    if (msg && word > 0 && word < obj_sub_list_max && brings_change(*msg)) status_refused(row, named_object(*msg));
}

void on_confirmed(int32_t row) {
    store(row_sync[row].confirmed, uint8_t{1});
    DM_LOG_AS(Caller{"dm_cache_mom_callback_func"}, notice, "key[%d] subscribe finish. \n", row);
    if (!is_apart(row_sync[row]) || subscribing()) return begin_gathering();
    if (load(row_sync[row].late) != 0) scan_late_row(row);  // the scan of one that is only held was held with it
}

void gather(store_msg *msg, int32_t row) {
    if (msg->value)
        dm_cache_mom_cache(msg, row);
    else if (brings_change(*msg))
        status_refused(row, nullptr);
}

void reset_machine() {
    for (int32_t number = 0; number < obj_sub_list_max; ++number) {
        RowSync &row = row_sync[number];
        drop_pending(number);
        for (uint8_t *flag :
             {&row.followed, &row.confirmed, &row.scanned, &row.held, &row.late, &row.filled, &row.equal})
            store(*flag, uint8_t{0});
        scans_are_cut_off(row);
    }
    enter(State::subscribing);
    store(subscribed_databases, 0u);
    expect_unfollowed(false);
    status_restarted();
}

// The store's content is complete again: everything that its scans do not bring any more is to go.
void resynchronise() {
    mark_every_row_dirty();
    forget_scans();
    scan_every_row();
}

// A lost connection

int32_t on_rescan_due(tq_thread_timer *timer) {
    const Caller caller{"dm_cache_tq_mom_scan_input_db_timer"};
    const StoreCallback callback;
    if (!callback.may_run()) return 0;
    const int32_t row = timer->arg;
    if (!row_in_range(row)) {
        DM_LOG_AS(caller, failure, "index err.\n");
        return -1;
    }
    {
        CacheLock lock;
        mark_dirty(row);
    }
    store(row_sync[row].stale, load(row_sync[row].asked));
    *timer = {};
    const int32_t ret = scan_row(row);
    if (ret != 0) DM_LOG_AS(caller, failure, "dm_cache_tq_mom_scan_input_db obj[%d], fail ret=[%d].\n", row, ret);
    return ret;
}

void cancel_rescan(RowSync &row) {
    if (rescan_armed(row)) tq_thread_cancel(&row.rescan);
    row.rescan = {};
}

// Whatever was scanned or queued for a row before its subscription was restored is older than the rescan to come.
int32_t on_subscribed_again(tq_mom_handle *handle, store_msg *msg, void *privdata) {
    const Caller caller{"dm_cache_tq_mom_subscribe_callback"};
    const StoreCallback callback(handle);
    if (!callback.may_run()) return 0;
    const auto word = reinterpret_cast<intptr_t>(privdata);
    if (!handle || !msg || msg->result != 0) {
        DM_LOG_AS(caller, failure, "input err.\n");
        if (is_held(handle, msg, word)) hold_row(handle, static_cast<int32_t>(word));
        return -1;
    }
    if (word < 0 || word >= obj_sub_list_max) {
        DM_LOG_AS(caller, failure, "index err.\n");
        return -1;
    }
    if (msg->cmd != TQ_MOM_CMD_SUBSCRIBED) return 0;

    const auto number = static_cast<int32_t>(word);
    RowSync &row = row_sync[number];
    store(row.held, uint8_t{0});
    store(row.scanned, uint8_t{0});
    drop_pending(number);
    gather_again();
    const int32_t delay = tq_mom_get_reconnect_scan_time(handle, obj_sub_list[number].db_id);
    cancel_rescan(row);
    tq_thread_insert_timer(handle->timer_master, &row.rescan, on_rescan_due, number, delay, "dmcache_scan");
    return 0;
}

}  // namespace

int32_t subscribe_again(uint32_t db) {
    const Caller caller{"dm_cache_tq_mom_subscribe"};
    int32_t ret = -1;
    for_followed_rows([&](int32_t number, const obj_sub_entry &entry) {
        if (entry.db_id != db) return;
        RowSync &row = row_sync[number];
        scans_are_cut_off(row);
        store(row.scanned, uint8_t{0});
        store(row.held, uint8_t{0});
        gather_again();
        if (!load(row.followed) && !row.confirmed) follow_row(number, caller);
        ret = subscribe_row(number, on_subscribed_again, caller);
    });
    return ret;
}

bool is_left_out(int32_t row) {
    const RowSync &sync = row_sync[row];
    return load(sync.followed) == 0 && load(sync.confirmed) == 0 && load(sync.late) == 0;
}

bool subscribes_at_once(uint32_t db) {
    return (load(subscribed_databases) & database_bit(db)) != 0;
}

void subscribe_nothing_at_once() {
    store(subscribed_databases, 0u);
}

void expect_late(int32_t row) {
    store(row_sync[row].late, uint8_t{1});
}

void subscribe_late(int32_t row) {
    follow_row(row, Caller{"dm_cache_follow"});
}

void begin_again() {
    for (RowSync &row : row_sync) {
        cancel_rescan(row);
        store(row.equal, uint8_t{0});
    }
    store(machine_is_live, uint8_t{0});  // the rows are empty before the callback thread knows
    store(restart_due, uint8_t{1});
}

void forget_requests() {
    if (!tq_mom_client_forget) return;
    for (const tq_mom_msg_cb callback : {dm_cache_mom_callback_func, on_subscribed_again})
        tq_mom_client_forget(g_dm_global, callback);
}

void end_sync() {
    for (RowSync &row : row_sync) cancel_rescan(row);
    reset_machine();
}

}  // namespace dm

using namespace dm;

int32_t dm_cache_subscribe(uint32_t db) {
    if (__atomic_exchange_n(&restart_due, uint8_t{0}, __ATOMIC_ACQ_REL)) reset_machine();
    __atomic_or_fetch(&subscribed_databases, database_bit(db), __ATOMIC_SEQ_CST);
    for_followed_rows([=, caller = Caller{}](int32_t row, const obj_sub_entry &entry) {
        if (entry.db_id == db) follow_row(row, caller);
    });
    return 0;
}

int32_t dm_cache_mom_callback_func(tq_mom_handle *handle, store_msg *msg, void *privdata) {
    const StoreCallback callback(handle);
    if (!callback.may_run()) return 0;
    const auto word = reinterpret_cast<intptr_t>(privdata);
    if (!handle || !msg || !privdata || msg->result != 0) {
        DM_LOG(failure, "global or msg or privdata is NULL \r\n");
        on_refusal(handle, msg, word);
        return -1;
    }
    if (word < 0 || word >= obj_sub_list_max) {
        DM_LOG(failure, "invalid privdata[%d]\r\n", static_cast<int32_t>(word));
        return -1;
    }
    const auto row = static_cast<int32_t>(word);
    const bool ends_scan = msg->flag == 1;
    const bool ends_live = ends_scan && state == State::live;
    const bool ends_late_scan = ends_live && is_apart(row_sync[row]);
    if (ends_scan) {
        if (ends_late_scan && msg->value) apply_live(handle, msg, privdata);
        end_scan(msg, row);
        DM_LOG(notice, "scan done[%d] \n", row);
    }
    if (msg->cmd == TQ_MOM_CMD_SUBSCRIBED) {
        on_confirmed(row);
        return 0;
    }
    if (subscribing()) return 0;
    if (state == State::gathering) {
        gather(msg, row);
        return 0;
    }
    apply_gathered(handle);
    const bool is_dropped = ends_live && !ends_late_scan;  // nothing was gathered that it could end
    if (is_dropped && brings_change(*msg)) status_refused(row, named_object(*msg));
    if (ends_scan || state != State::live) return 0;
    DM_LOG(trace, "step 5, g_cache_proc_done = %d\n", load(g_cache_proc_done));
    const bool is_late_reply = is_scanned(msg->cmd) && load(row_sync[row].late) != 0;
    if (row != DM_ROW_DP_LIB_COMPLETE || is_late_reply) {
        apply_live(handle, msg, privdata);
        return 0;
    }
    DM_LOG(trace, "step 6, recive complete again\n");
    resynchronise();
    return 0;
}

int32_t dm_cache_clear_data_dirty(void) {
    sweep_rows();
    deliver_soon();
    return 0;
}
