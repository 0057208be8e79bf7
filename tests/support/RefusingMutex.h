#pragma once

#include <mutex>

#include <pthread.h>

namespace ktr::test {

/// While it lives, every lock() of the mutex by this thread throws std::system_error: the mutex
/// checks for errors and this thread holds it already.
class RefusingMutex {
public:
    explicit RefusingMutex(std::mutex& mutex_) : mutex(mutex_) {
        remake(PTHREAD_MUTEX_ERRORCHECK);
        mutex.lock();
    }
    ~RefusingMutex() {
        mutex.unlock();
        remake(PTHREAD_MUTEX_DEFAULT);
    }
    RefusingMutex(const RefusingMutex&) = delete;
    RefusingMutex& operator=(const RefusingMutex&) = delete;

private:
    void remake(int kind) {
        pthread_mutexattr_t attributes;
        pthread_mutexattr_init(&attributes);
        pthread_mutexattr_settype(&attributes, kind);
        pthread_mutex_destroy(mutex.native_handle());
        pthread_mutex_init(mutex.native_handle(), &attributes);
        pthread_mutexattr_destroy(&attributes);
    }

    std::mutex& mutex;
};

} // namespace ktr::test
