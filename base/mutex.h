// A mutex held for a scope: for the small mutexes under which nothing else of the library is locked. Takes no lock but that mutex.
#pragma once

#include <pthread.h>

namespace dm {

// Takes the mutex, and gives it back at the end of the scope.
class Held {
public:
    explicit Held(pthread_mutex_t &mutex) : mutex_(mutex) { pthread_mutex_lock(&mutex_); }
    ~Held() { pthread_mutex_unlock(&mutex_); }
    Held(const Held &) = delete;
    Held &operator=(const Held &) = delete;

private:
    pthread_mutex_t &mutex_;
};

}  // namespace dm
