// What a child of fork() must not touch: its memory is a copy, locks in it may be held for ever, and the threads that work
// on it are not there.
#pragma once

#include <cstdint>

namespace tq {

// Another number in a child than in its parent. No lock, on any thread.
uint32_t this_process();

// To be run in every child from now on, before fork() returns there. Once for each function, on any thread.
void run_in_child(void (*act)());

}  // namespace tq
