/*
 * Preloaded into dmq: the FAIL_AT-th allocation of the process fails; with 0 none does, and it is told how many there
 * were and how many of them were not freed.
 */
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

extern void *__libc_malloc(size_t size), *__libc_calloc(size_t count, size_t size),
    *__libc_realloc(void *old, size_t size);
extern void __libc_free(void *old);
#pragma GCC visibility push(default)
void *malloc(size_t size), *calloc(size_t count, size_t size), *realloc(void *old, size_t size);
void free(void *old);
#pragma GCC visibility pop

static long fail_at = -1, count, freed;

static int fails(void) {
    const long number = __atomic_add_fetch(&count, 1, __ATOMIC_RELAXED);
    if (fail_at < 0) {
        const char *text = getenv("FAIL_AT");
        fail_at = text ? atol(text) : 0;
    }
    if (number == fail_at) errno = ENOMEM;
    return number == fail_at;
}

void *malloc(size_t size) {
    return fails() ? NULL : __libc_malloc(size);
}

void *calloc(size_t number, size_t size) {
    return fails() ? NULL : __libc_calloc(number, size);
}

void *realloc(void *old, size_t size) {
    if (old) __atomic_add_fetch(&freed, 1, __ATOMIC_RELAXED);
    return fails() ? NULL : __libc_realloc(old, size);
}

void free(void *old) {
    if (old) __atomic_add_fetch(&freed, 1, __ATOMIC_RELAXED);
    __libc_free(old);
}

__attribute__((destructor)) static void tell(void) {
    char text[64];
    const int length = snprintf(text, sizeof text, "allocations: %ld, left: %ld\n", count, count - freed);
    if (fail_at == 0 && write(STDERR_FILENO, text, (size_t)length) < 0) _exit(1);
}
