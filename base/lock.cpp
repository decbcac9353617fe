// The cache lock, which exists only when the client asks for it.
//
// The exclusive side is one word, free or held, with a queue of those who wait. Who gives it back hands it to the first in
// the queue, so nobody is passed for ever. Changes of the cache have a queue of their own that goes first, in turn with the
// other one: a pushed change waits for one holder, however many clients walk the cache without a pause.
//
// The shared side counts its holders, each in the cache line of its thread, so that readers on different processors write
// nothing in common. A reader counts itself, then looks at the word; who takes the exclusive side writes the word, then
// waits until the counts are zero. Both orders are sequentially consistent: one of the two sees the other. A reader that
// sees the word held takes a turn in the queue, counts itself meanwhile, and hands the turn on.
#include "base/lock.h"

#include <pthread.h>
#include <semaphore.h>

#include <cerrno>

namespace dm {

CacheMutex cache_mutex;

namespace {

enum Word : uint32_t { unheld = 0, held = 1, awaited = 2 };  // awaited only with held: somebody is in a queue

// Stands on the stack of the thread that waits.
struct Waiter {
    Waiter *next;
    sem_t turn;
};

struct Queue {
    Waiter *first, *last;

    void append(Waiter *waiter) {
        (first ? last->next : first) = waiter;
        last = waiter;
    }
    Waiter *take() {
        Waiter *const taken = first;
        first = taken->next;
        return taken;
    }
};

struct alignas(64) Readers {
    uint32_t count;
};

// What a thread knows of itself. Its address names the thread.
struct Self {
    uint32_t shared_depth;
    uint32_t slot;  // from 1; 0: none yet
};

constexpr uint32_t slots = 16;
constexpr int spins = 100;  // about as long as a look-up with its copy takes

uint8_t g_dm_cache_mutex_ready = 0;

alignas(64) uint32_t word = unheld;
uint32_t draining = 0;        // 1: the holder waits for readers
uint32_t threads = 0;         // that have ever read
const Self *owner = nullptr;  // a thread only compares it with itself, and no other writes that
uint32_t depth = 0;           // the owner's
sem_t drained;

alignas(64) Readers readers[slots];

pthread_mutex_t queue_mutex = PTHREAD_MUTEX_INITIALIZER;  // guards the queues, and the word while they are not empty
Queue changes, others;
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

// Returns as the holder.
void take_a_turn(Queue &queue) {
    uint32_t seen = unheld;
    if (__atomic_compare_exchange_n(&word, &seen, held, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST)) return;

    Waiter waiter{};
    if (sem_init(&waiter.turn, 0, 0) != 0) __builtin_trap();  // there is no reason for it to fail
    pthread_mutex_lock(&queue_mutex);
    while (!__atomic_compare_exchange_n(&word, &seen, seen == unheld ? held : held | awaited, false, __ATOMIC_SEQ_CST,
                                        __ATOMIC_SEQ_CST)) {
    }
    if (seen != unheld) queue.append(&waiter);
    pthread_mutex_unlock(&queue_mutex);
    if (seen != unheld) wait(&waiter.turn);
    sem_destroy(&waiter.turn);
}

// Hands the turn to the next in a queue, who finds the word held as it is.
void hand_on() {
    uint32_t seen = held;
    if (__atomic_compare_exchange_n(&word, &seen, unheld, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST)) return;

    pthread_mutex_lock(&queue_mutex);
    last_was_change = changes.first && !(last_was_change && others.first);
    Waiter *const next = (last_was_change ? changes : others).take();
    if (!changes.first && !others.first) __atomic_store_n(&word, held, __ATOMIC_SEQ_CST);
    pthread_mutex_unlock(&queue_mutex);
    sem_post(&next->turn);
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

uint32_t &my_count() {
    if (self.slot == 0) self.slot = __atomic_fetch_add(&threads, 1u, __ATOMIC_SEQ_CST) % slots + 1;
    return readers[self.slot - 1].count;
}

void enter(uint32_t &count) {
    __atomic_fetch_add(&count, 1u, __ATOMIC_SEQ_CST);
}
void leave(uint32_t &count) {
    __atomic_fetch_sub(&count, 1u, __ATOMIC_SEQ_CST);
    if (__atomic_load_n(&draining, __ATOMIC_SEQ_CST) != 0) sem_post(&drained);
}

int32_t lock_exclusive(Queue &queue) {
    if (!lock_exists()) return 0;
    if (is_mine()) {
        ++depth;
        return 0;
    }
    take_a_turn(queue);
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

bool lock_shared() {
    if (!lock_exists() || is_mine()) return false;
    if (self.shared_depth++ > 0) return true;
    uint32_t &count = my_count();
    enter(count);
    if (__atomic_load_n(&word, __ATOMIC_SEQ_CST) == unheld) return true;
    leave(count);
    take_a_turn(others);
    enter(count);
    hand_on();
    return true;
}

void unlock_shared() {
    if (--self.shared_depth == 0) leave(my_count());
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
    return dm::lock_exclusive(dm::others);
}

int32_t dm_cache_unlock(void) {
    return dm::unlock_exclusive();
}
