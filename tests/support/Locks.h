#pragma once

#include <mutex>
#include <pthread.h>
#include <thread>

namespace ktr::test {

/// True if `mutex` is free right now, whoever asks.
inline bool isFree(std::mutex& mutex) {
    bool free = false;
    std::thread([&] {
        free = mutex.try_lock();
        if (free)
            mutex.unlock();
    }).join();
    return free;
}

/// While the object lives, every attempt to lock `mutex` fails: lock() throws a std::system_error
/// with the text kText. Not to be asked with isFree: glibc's trylock leaves such a mutex locked.
/// For the locks of one thread RefusingMutex does.
class BrokenMutex {
public:
    static constexpr const char* kText = "State not recoverable";

    explicit BrokenMutex(std::mutex& mutex) : handle(mutex.native_handle()) {
        pthread_mutexattr_t robust;
        pthread_mutexattr_init(&robust);
        pthread_mutexattr_setrobust(&robust, PTHREAD_MUTEX_ROBUST);
        makeAnew(&robust);
        pthread_mutexattr_destroy(&robust);
        // Its owner ends without unlocking it, and the next one does not repair it.
        std::thread([this] { pthread_mutex_lock(handle); }).join();
        pthread_mutex_lock(handle);
        pthread_mutex_unlock(handle);
    }
    ~BrokenMutex() { makeAnew(nullptr); }
    BrokenMutex(const BrokenMutex&) = delete;
    BrokenMutex& operator=(const BrokenMutex&) = delete;

private:
    void makeAnew(const pthread_mutexattr_t* attributes) {
        pthread_mutex_destroy(handle);
        pthread_mutex_init(handle, attributes);
    }

    pthread_mutex_t* const handle;
};

} // namespace ktr::test
