// The queue of events, the followers and the delivery. Noting an event is a few words under the mutex; followers are called
// without it, one at a time in the whole process, so that each object's events reach everybody in order.
//   changes of a row, add_follower()   The caller holds the cache lock, then the mutex is taken; never the other way round.
//   all else                           Takes no lock but the mutex.
#include "cache/events.h"

#include <algorithm>
#include <memory>

#include "base/clock.h"
#include "base/message.h"
#include "base/mutex.h"
#include "cache/gate.h"
#include "cache/row_sync.h"
#include "cache/startup.h"
#include "cache/status.h"
#include "tq_dm_cache/dm_cache_sync.h"

namespace dm {

namespace {

// Lives in its row's list; while its callback runs it stays there, even if it has left.
struct Follower {
    Follower *next;
    dm_cache_follow_cb callback;
    void *word;
    uint32_t flags;
    bool joined;  // what was noted before it came has been told to the others
    bool left;    // while its callback runs: it is freed after
};

// The place in the queue at which a follower joins, with a share of what was cached then.
struct Join {
    Event event;
    Follower *follower;  // null: it has left before it joined
    uint32_t count;

    ProtobufCMessage **objects() { return reinterpret_cast<ProtobufCMessage **>(this + 1); }
};
constexpr uint8_t joins = UINT8_MAX;  // its `what`

constexpr int32_t lists = DM_ROW_COUNT + 1;  // of a row, and last those of applications

// An event of a removal takes the element's own memory.
static_assert(sizeof(Event) <= sizeof(dm_cache_list_node));

pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;  // guards all that follows
pthread_cond_t callback_done = PTHREAD_COND_INITIALIZER;
Follower *followers[lists];
Event *first = nullptr, **last = &first;
Event applied_event;  // there is one: a second application before the first is told makes it come later
bool applied_noted = false;
bool delivering = false;
pthread_t deliverer;                // while delivering
const Follower *running = nullptr;  // whose callback runs
uint64_t calls_done = 0;

// Read without the mutex: how many events are noted, how many follow a row, how many of them want what is unchanged.
uint32_t noted = 0, following[lists], wanting_unchanged[lists];
// Changes whose change callbacks have not all run: no event is delivered. Counted without the mutex.
uint32_t open_changes = 0;

tq_thread_timer wake_up;
uint8_t wake_up_due = 0;

size_t list_of(int32_t type) {
    return static_cast<size_t>(type == applications ? lists - 1 : type);
}

bool any(const uint32_t &counted) {
    return load(counted) != 0;
}

void count(uint32_t &word, int32_t change) {
    __atomic_add_fetch(&word, static_cast<uint32_t>(change), __ATOMIC_SEQ_CST);
}

uint8_t phase_of(int32_t type) {
    const RowSync &row = row_sync[type];
    if (load(row.filled) == 0) return DM_CACHE_PHASE_FIRST;
    return load(g_cache_proc_done) == 1 && load(row.held) == 0 ? DM_CACHE_PHASE_LIVE : DM_CACHE_PHASE_RESYNC;
}

OwnedEvent new_event(int32_t type, int32_t what) {
    OwnedEvent event(static_cast<Event *>(calloc(1, sizeof(Event))));
    if (!event) return nullptr;
    event->type = static_cast<int16_t>(type);
    event->what = static_cast<uint8_t>(what);
    event->phase = phase_of(type);
    return event;
}

void append(Event *event) {
    event->next = nullptr;
    *last = event;
    last = &event->next;
    count(noted, 1);
}

Event *take_first() {
    Event *const event = first;
    if (!event) return nullptr;
    first = event->next;
    if (!first) last = &first;
    count(noted, -1);
    return event;
}

void take_out(const Event *event) {
    Event **at = &first;
    while (*at != event) at = &(*at)->next;
    *at = event->next;
    if (!*at) last = at;
    count(noted, -1);
}

// A share of an element's message; a copy of one that a client has put there.
int32_t share_of(const dm_cache_list_node *node, ProtobufCMessage *&out) {
    StoredMessage message;
    if (node->stored)
        message = share(node->obj);
    else if (const int32_t code = store_copy(node->obj, node->obj->descriptor, message); code != 0)
        return code;
    out = message.release();
    return 0;
}

Join *as_join(Event *event) {
    return event->what == joins ? reinterpret_cast<Join *>(event) : nullptr;
}

// Followers

Follower **find_follower(int32_t type, dm_cache_follow_cb callback, const void *word, bool has_left = false) {
    Follower **at = &followers[list_of(type)];
    while (*at && ((*at)->callback != callback || (*at)->word != word || (*at)->left != has_left)) at = &(*at)->next;
    return at;
}

// Of the follower that runs, unless this is its own thread.
void wait_for_its_callback() {
    if (pthread_equal(deliverer, pthread_self())) return;
    for (const uint64_t before = calls_done; calls_done == before;) pthread_cond_wait(&callback_done, &mutex);
}

void set_flags(int32_t type, Follower &follower, uint32_t flags) {
    const auto unchanged = [](uint32_t of) { return (of & DM_CACHE_FOLLOW_UNCHANGED) != 0 ? 1 : 0; };
    count(wanting_unchanged[list_of(type)], unchanged(flags) - unchanged(follower.flags));
    follower.flags = flags;
}

// Without the mutex, which is held before and after. False when the follower has left meanwhile.
bool call(Follower &follower, const dm_cache_event &event) {
    running = &follower;
    pthread_mutex_unlock(&mutex);
    const timespec begun = monotonic_now();
    follower.callback(&event, follower.word);
    if (event.type != applications) status_callback(event.type, begun);
    pthread_mutex_lock(&mutex);
    running = nullptr;
    ++calls_done;
    pthread_cond_broadcast(&callback_done);
    return !follower.left;
}

// Links may have changed while its callback ran.
void unlink_follower(int32_t type, Follower *gone) {
    Follower **at = &followers[list_of(type)];
    while (*at != gone) at = &(*at)->next;
    *at = gone->next;
    free(gone);
}

bool wants(const Follower &follower, const Event &event) {
    if (!follower.joined || follower.left) return false;
    return event.what != DM_CACHE_EVENT_UNCHANGED || (follower.flags & DM_CACHE_FOLLOW_UNCHANGED) != 0;
}

void tell_followers(const Event &event) {
    const dm_cache_event told{event.type, event.what, event.phase, event.before, event.after};
    for (Follower *follower = followers[list_of(event.type)]; follower;) {
        const bool stays = !wants(*follower, event) || call(*follower, told);
        Follower *const next = follower->next;
        if (!stays) unlink_follower(event.type, follower);
        follower = next;
    }
}

void tell_of_what_is_there(Join &join) {
    Follower *const follower = join.follower;
    if (!follower) return;
    const int32_t type = join.event.type;
    follower->joined = true;
    for (uint32_t i = 0; i < join.count; ++i)
        if (!call(*follower, {type, DM_CACHE_EVENT_ADDED, DM_CACHE_PHASE_FIRST, nullptr, join.objects()[i]}))
            return unlink_follower(type, follower);
}

int32_t on_wake_up(tq_thread_timer *) {
    const StoreCallback callback;
    store(wake_up_due, uint8_t{0});
    if (callback.may_run()) deliver_events();
    return 0;
}

// With a share of all that is cached of a row.
OwnedEvent new_join(int32_t type, bool with_objects) DM_REQUIRES_LOCK {
    const Elements elements(with_objects ? obj_sub_list[type].obj_list : nullptr);
    uint32_t cached = 0;
    for ([[maybe_unused]] const dm_cache_list_node &node : elements) ++cached;
    auto *const join = static_cast<Join *>(calloc(1, sizeof(Join) + cached * sizeof(ProtobufCMessage *)));
    if (!join) return nullptr;
    OwnedEvent event(&join->event);
    event->type = static_cast<int16_t>(type);
    event->what = joins;
    for (const dm_cache_list_node &node : elements)
        if (share_of(&node, join->objects()[join->count++]) != 0) return nullptr;
    return event;
}

}  // namespace

void FreeEvent::operator()(Event *event) const {
    if (event == &applied_event) return;
    const auto release = [](ProtobufCMessage *message) { StoredMessage{message}; };
    if (Join *const join = as_join(event)) std::for_each_n(join->objects(), join->count, release);
    release(event->before);
    release(event->after);
    free(event);
}

// Changes of a row

int32_t begin_event(int32_t type, const dm_cache_list_node *node, ProtobufCMessage *after, OwnedEvent &event) {
    if (!any(following[list_of(type)])) return 0;
    event = new_event(type, node ? DM_CACHE_EVENT_REPLACED : DM_CACHE_EVENT_ADDED);
    if (!event) return -3;
    event->after = share(after).release();
    return node ? share_of(node, event->before) : 0;
}

void note_event(OwnedEvent event) {
    if (!event) return;
    Held held(mutex);
    append(event.release());
}

void note_unchanged(int32_t type, const dm_cache_list_node *node) {
    if (!any(wanting_unchanged[list_of(type)])) return;
    OwnedEvent event = new_event(type, DM_CACHE_EVENT_UNCHANGED);
    if (!event || share_of(node, event->before) != 0) return;
    event->after = share(event->before).release();
    note_event(std::move(event));
}

ProtobufCMessage *note_removed(int32_t type, int32_t what, OwnedNode &node) {
    ProtobufCMessage *message = node->obj;
    if (!any(following[list_of(type)]) || share_of(node.get(), message) != 0) return message;
    const uint8_t phase = phase_of(type);
    dm_cache_list_node *const gone = node.release();
    list_empty_out(gone);
    auto *const event = reinterpret_cast<Event *>(gone);
    note_event(OwnedEvent(std::construct_at(
        event, Event{nullptr, message, nullptr, static_cast<int16_t>(type), static_cast<uint8_t>(what), phase})));
    return message;
}

void note_applied(bool is_first) {
    if (!any(following[list_of(applications)])) return;
    Held held(mutex);
    const bool was_first = applied_noted && applied_event.phase == DM_CACHE_PHASE_FIRST;
    if (applied_noted) take_out(&applied_event);
    applied_noted = true;
    const auto phase = is_first || was_first ? DM_CACHE_PHASE_FIRST : DM_CACHE_PHASE_RESYNC;
    applied_event = {nullptr, nullptr, nullptr, applications, DM_CACHE_EVENT_APPLIED, static_cast<uint8_t>(phase)};
    append(&applied_event);
}

// Delivery

void deliver_events() {
    if (!any(noted)) return;
    Held held(mutex);
    if (delivering) return;
    delivering = true;
    deliverer = pthread_self();
    while (load(open_changes) == 0) {
        const OwnedEvent event(take_first());
        if (!event) break;
        if (event.get() == &applied_event) applied_noted = false;
        if (Join *const join = as_join(event.get()))
            tell_of_what_is_there(*join);
        else
            tell_followers(*event);
    }
    delivering = false;
}

void deliver_soon() {
    if (!any(noted) || !started()) return;
    const StoreCallback inside;  // dm_cache_stop() waits for it, and the handle stays
    if (!inside.may_run()) return;
    if (__atomic_exchange_n(&wake_up_due, uint8_t{1}, __ATOMIC_SEQ_CST) != 0) return;
    if (tq_thread_insert_timer(store_handle()->timer_master, &wake_up, on_wake_up, 0, 0, "dmcache_follow") != 0)
        store(wake_up_due, uint8_t{0});
}

ChangeCallbacks::ChangeCallbacks() {
    count(open_changes, 1);
}

ChangeCallbacks::~ChangeCallbacks() {
    count(open_changes, -1);
    deliver_events();
}

uint32_t events_noted() {
    return load(noted);
}

uint32_t followers_of(int32_t type) {
    return load(following[list_of(type)]);
}

void forget_events() {
    if (__atomic_exchange_n(&wake_up_due, uint8_t{0}, __ATOMIC_SEQ_CST) != 0) tq_thread_cancel(&wake_up);
    Held held(mutex);
    while (const OwnedEvent event{take_first()})
        if (const Join *const join = as_join(event.get()); join && join->follower) join->follower->joined = true;
    applied_noted = false;
}

// Followers that come and go

int32_t add_follower(int32_t type, dm_cache_follow_cb callback, void *word, uint32_t flags) {
    OwnedEvent join = new_join(type, (flags & DM_CACHE_FOLLOW_FROM_NOW) == 0 && type != applications);
    OwnedMemory<Follower> follower(static_cast<Follower *>(calloc(1, sizeof(Follower))));
    Held held(mutex);
    Follower **const at = find_follower(type, callback, word);
    if (*at) {
        set_flags(type, **at, flags);
        return 0;
    }
    if (!join || !follower) return no_memory;
    follower->callback = callback;
    follower->word = word;
    set_flags(type, *follower, flags);
    count(following[list_of(type)], 1);
    as_join(join.get())->follower = *at = follower.release();
    append(join.release());
    return 0;
}

int32_t remove_follower(int32_t type, dm_cache_follow_cb callback, void *word) {
    Held held(mutex);
    Follower *const follower = *find_follower(type, callback, word);
    if (!follower) {  // another call may have ended it, whose callback still runs
        if (*find_follower(type, callback, word, /*has_left=*/true)) wait_for_its_callback();
        return -1;
    }
    set_flags(type, *follower, 0);
    count(following[list_of(type)], -1);
    for (Event *event = first; event; event = event->next)
        if (Join *const join = as_join(event); join && join->follower == follower) join->follower = nullptr;
    if (running != follower) {
        unlink_follower(type, follower);
        return 0;
    }
    follower->left = true;  // who delivers frees it
    wait_for_its_callback();
    return 0;
}

void hold_events_for_fork() {
    pthread_mutex_lock(&mutex);
}

void release_events_after_fork(bool in_child) {
    if (in_child) callback_done = PTHREAD_COND_INITIALIZER;
    pthread_mutex_unlock(&mutex);
}

}  // namespace dm
