// The count of callbacks inside, and the flag that keeps them out: each writes its own word, then reads the other's, in one
// order for all threads, so one of the two sees the other. Takes no lock; a mutex of its own is for the wait alone.
#include "cache/gate.h"

#include <pthread.h>

#include "base/mutex.h"

namespace dm {
namespace {

enum Gate : uint8_t { never_closed, open_again, closed };

uint8_t gate = never_closed;
uint32_t inside = 0;
__attribute__((tls_model("initial-exec"))) thread_local uint32_t inside_here = 0;

pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;  // for waiting until nobody is inside
pthread_cond_t nobody_inside = PTHREAD_COND_INITIALIZER;

uint8_t gate_now() {
    return __atomic_load_n(&gate, __ATOMIC_SEQ_CST);
}

void set_gate(uint8_t now) {
    __atomic_store_n(&gate, now, __ATOMIC_SEQ_CST);
}

}  // namespace

StoreCallback::StoreCallback(const tq_mom_handle *handle) {
    ++inside_here;
    __atomic_add_fetch(&inside, 1u, __ATOMIC_SEQ_CST);
    const uint8_t now = gate_now();
    may_run_ = now == never_closed || (now == open_again && (!handle || handle == store_handle()));
}

StoreCallback::~StoreCallback() {
    --inside_here;
    if (__atomic_sub_fetch(&inside, 1u, __ATOMIC_SEQ_CST) != 0 || gate_now() != closed) return;
    Held held(mutex);
    pthread_cond_broadcast(&nobody_inside);
}

bool close_gate() {
    if (inside_here > 0) return false;
    set_gate(closed);
    Held held(mutex);
    while (__atomic_load_n(&inside, __ATOMIC_SEQ_CST) != 0) pthread_cond_wait(&nobody_inside, &mutex);
    return true;
}

void nobody_else_is_inside() {
    __atomic_store_n(&inside, inside_here, __ATOMIC_SEQ_CST);
    mutex = PTHREAD_MUTEX_INITIALIZER;
    nobody_inside = PTHREAD_COND_INITIALIZER;
}

void open_gate() {
    if (gate_now() == closed) set_gate(open_again);
}

}  // namespace dm
