// The cache lock, which exists only when the client asks for it.
//
// The exclusive side is one word, free or held, with queues of those who wait. Who gives it back hands it to the first that
// waits, so nobody is passed for ever. Changes of the cache have a queue of their own that goes first, in turn with the
// clients': a pushed change waits for one holder, however many clients walk the cache without a pause.
//
// The shared side counts its holders, each in the cache line of its thread, so that readers on different processors write
// nothing in common. A reader counts itself, then looks at the word; who takes the exclusive side writes the word, then
// waits until the counts are zero. Both orders are sequentially consistent: one of the two sees the other. A reader that
// sees the word held takes its count back and waits. When the word is handed on, all waiting readers are counted and let in
// first, and the next holder waits for them: so readers and holders take turns. When nobody is next, the first reader is
// woken and wakes the second: who gave the word back, the store client's thread with a callback to run, is not to compete
// with all of them for a processor.
//
// Takes the cache lock for its callers. The queues have a mutex of their own, under which nothing else is locked.
#include "base/lock.h"

#include <pthread.h>
#include <sched.h>
#include <semaphore.h>

#include <cerrno>

namespace dm {

CacheMutex cache_mutex;

namespace {

enum Word : uint32_t { unheld = 0, held = 1, awaited = 2 };  // awaited only with held: somebody is in a queue

// What a thread knows of itself, and its place in a queue: who waits, waits for one thing. Its address names the thread.
struct Self {
    Self *next;
    sem_t turn;
    uint32_t shared_depth;
    uint32_t slot;  // from 1; 0: none yet
    bool counted;   // a reader that waited, by who woke it
};

// Threads that wait, in the order in which they came. Under the queues' mutex.
struct Queue {
    Self *first, *last;

    void append(Self *thread) {
        thread->next = nullptr;
        (first ? last->next : first) = thread;
        last = thread;
    }
    Self *take() {
        Self *const taken = first;
        if (taken) first = taken->next;
        return taken;
    }
};

// A cache line of its own for each group of reading threads.
struct alignas(64) Readers {
    uint32_t count;
};

constexpr uint32_t slots = 16;
constexpr int spins = 100;  // about as long as a look-up with its copy takes
constexpr int most_yields = 50;

uint8_t g_dm_cache_mutex_ready = 0;

alignas(64) uint32_t word = unheld;
uint32_t draining = 0;        // 1: the holder waits for readers
uint32_t threads = 0;         // that have ever read
const Self *owner = nullptr;  // a thread only compares it with itself, and no other writes that
uint32_t depth = 0;           // the owner's
sem_t drained;

alignas(64) Readers readers[slots];

pthread_mutex_t queue_mutex = PTHREAD_MUTEX_INITIALIZER;  // guards the queues, and the word while they are not empty
Queue changes, clients, waiting_readers;
bool last_was_change = false;

__attribute__((tls_model("initial-exec"))) thread_local Self self;

bool lock_exists() {
    return __atomic_load_n(&g_dm_cache_mutex_ready, __ATOMIC_ACQUIRE) == 1;
}

bool is_mine() {
    return __atomic_load_n(&owner, __ATOMIC_RELAXED) == &self;
}

void relax() {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#endif
}

void wait(sem_t *semaphore) {
    for (int i = 0; i < spins; ++i, relax())
        if (sem_trywait(semaphore) == 0) return;
    while (sem_wait(semaphore) != 0) {
    }
}

uint32_t &count_of(const Self &thread) {
    return readers[thread.slot - 1].count;
}
void enter(const Self &thread) {
    __atomic_fetch_add(&count_of(thread), 1u, __ATOMIC_SEQ_CST);
}
void leave(const Self &thread) {
    __atomic_fetch_sub(&count_of(thread), 1u, __ATOMIC_SEQ_CST);
    if (__atomic_load_n(&draining, __ATOMIC_SEQ_CST) != 0) sem_post(&drained);
}

bool is_held() {
    return __atomic_load_n(&word, __ATOMIC_SEQ_CST) != unheld;
}

bool write_word(uint32_t &seen, uint32_t wanted) {
    return __atomic_compare_exchange_n(&word, &seen, wanted, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
}

// With the queues' mutex held; gives it back.
void wait_in(Queue &queue) {
    sem_init(&self.turn, 0, 0);
    queue.append(&self);
    pthread_mutex_unlock(&queue_mutex);
    wait(&self.turn);
}

// Returns as the holder.
void hold(Queue &queue) {
    uint32_t seen = unheld;
    if (write_word(seen, held)) return;
    pthread_mutex_lock(&queue_mutex);
    while (!write_word(seen, seen == unheld ? held : held | awaited)) {
    }
    if (seen == unheld)
        pthread_mutex_unlock(&queue_mutex);
    else
        wait_in(queue);
}

// Waits until the word is given back; false when it is free by now.
bool wait_as_reader() {
    pthread_mutex_lock(&queue_mutex);
    uint32_t seen = held;
    while (seen != unheld && !write_word(seen, held | awaited)) {
    }
    self.counted = false;
    if (seen != unheld)
        wait_in(waiting_readers);
    else
        pthread_mutex_unlock(&queue_mutex);
    return seen != unheld;
}

// Passes the wake-up on, or leaves it to a holder that has come meanwhile.
void wake_next_reader() {
    pthread_mutex_lock(&queue_mutex);
    Self *next = nullptr;
    if (waiting_readers.first) {
        uint32_t seen = held;
        while (seen != unheld && !write_word(seen, held | awaited)) {
        }
        if (seen == unheld) next = waiting_readers.take();
    }
    pthread_mutex_unlock(&queue_mutex);
    if (next) sem_post(&next->turn);
}

// Returns as a counted reader. A change takes microseconds: a reader that lets others run meanwhile is there again sooner
// than one that sleeps, and has no claim to a processor that the changing thread needs.
void start_reading() {
    for (int yields = 0;; ++yields) {
        enter(self);
        if (!is_held()) return;
        leave(self);
        if (yields < most_yields) {
            sched_yield();
            continue;
        }
        if (!wait_as_reader()) continue;
        if (self.counted) return;
        wake_next_reader();
    }
}

// Hands the word to the next in a queue, who finds it held as it is.
void hand_on() {
    uint32_t seen = held;
    if (write_word(seen, unheld)) return;

    pthread_mutex_lock(&queue_mutex);
    last_was_change = changes.first && !(last_was_change && clients.first);
    Self *next = (last_was_change ? changes : clients).take();
    if (next) {
        while (Self *const reader = waiting_readers.take()) {
            reader->counted = true;
            enter(*reader);
            sem_post(&reader->turn);
        }
        __atomic_store_n(&word, changes.first || clients.first ? held | awaited : held, __ATOMIC_SEQ_CST);
    } else {
        next = waiting_readers.take();
        __atomic_store_n(&word, unheld, __ATOMIC_SEQ_CST);
    }
    pthread_mutex_unlock(&queue_mutex);
    if (next) sem_post(&next->turn);
}

// Until no reader is left that came before the word was written.
void drain() {
    const uint32_t read = __atomic_load_n(&threads, __ATOMIC_SEQ_CST);
    for (uint32_t i = 0; i < slots && i < read; ++i) {
        const uint32_t &count = readers[i].count;
        for (int spin = 0; spin < spins && __atomic_load_n(&count, __ATOMIC_SEQ_CST) != 0; ++spin) relax();
        if (__atomic_load_n(&count, __ATOMIC_SEQ_CST) == 0) continue;
        __atomic_store_n(&draining, 1u, __ATOMIC_SEQ_CST);
        while (__atomic_load_n(&count, __ATOMIC_SEQ_CST) != 0) wait(&drained);
        __atomic_store_n(&draining, 0u, __ATOMIC_SEQ_CST);
    }
}

int32_t lock_exclusive(Queue &queue) {
    if (!lock_exists()) return 0;
    if (is_mine()) {
        ++depth;
        return 0;
    }
    hold(queue);
    drain();
    __atomic_store_n(&owner, &self, __ATOMIC_RELAXED);
    depth = 1;
    return 0;
}

int32_t unlock_exclusive() {
    if (!lock_exists()) return 0;
    if (!is_mine()) return EPERM;
    if (--depth > 0) return 0;
    __atomic_store_n(&owner, nullptr, __ATOMIC_RELAXED);
    hand_on();
    return 0;
}

}  // namespace

void lock_for_change() {
    lock_exclusive(changes);
}

void unlock_after_change() {
    unlock_exclusive();
}

void hold_lock_for_fork() {
    pthread_mutex_lock(&queue_mutex);
}

// Who read, or stood in a queue, is not there in the child.
void release_lock_after_fork(bool in_child) {
    if (in_child) {
        changes = clients = waiting_readers = {};
        for (Readers &slot : readers) slot.count = 0;
        if (self.shared_depth > 0) count_of(self) = 1;
    }
    pthread_mutex_unlock(&queue_mutex);
}

bool lock_shared() {
    if (!lock_exists() || is_mine()) return false;
    if (self.shared_depth++ > 0) return true;
    if (self.slot == 0) self.slot = __atomic_fetch_add(&threads, 1u, __ATOMIC_SEQ_CST) % slots + 1;
    start_reading();
    return true;
}

void unlock_shared() {
    if (--self.shared_depth == 0) leave(self);
}

}  // namespace dm

int32_t dm_cache_multi_thread_init(void) {
    using namespace dm;
    if (lock_exists()) return 0;
    if (sem_init(&drained, 0, 0) != 0) return -1;
    __atomic_store_n(&g_dm_cache_mutex_ready, uint8_t{1}, __ATOMIC_RELEASE);
    return 0;
}

int32_t dm_cache_lock(void) {
    return dm::lock_exclusive(dm::clients);
}

int32_t dm_cache_unlock(void) {
    return dm::unlock_exclusive();
}
