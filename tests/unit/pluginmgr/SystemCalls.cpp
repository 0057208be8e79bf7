#include "SystemCalls.h"

#include "ktr/Export.h"

#include <cerrno>
#include <dlfcn.h>
#include <pthread.h>
#include <unistd.h>
#include <utility>

namespace {

struct Plan {
    bool forksFail = false;
    bool threadsFail = false;
    std::function<void()> forkHook;
    std::function<bool(std::timespec&)> sleep;
};

thread_local Plan plan;

} // namespace

namespace ktr::test::system {

void reset() {
    plan = {};
}

void failForks(bool failing) {
    plan.forksFail = failing;
}

void failThreads(bool failing) {
    plan.threadsFail = failing;
}

void onFork(std::function<void()> hook) {
    plan.forkHook = std::move(hook);
}

void replaceSleep(std::function<bool(std::timespec&)> sleep) {
    plan.sleep = std::move(sleep);
}

} // namespace ktr::test::system

// Each takes the place of the C library's function, to which it hands on.

extern "C" KTR_API pid_t fork() noexcept {
    using Function = pid_t (*)();
    static const auto real = reinterpret_cast<Function>(dlsym(RTLD_NEXT, "fork"));
    if (plan.forkHook)
        plan.forkHook();
    if (plan.forksFail) {
        errno = EAGAIN;
        return -1;
    }
    return real();
}

extern "C" KTR_API int pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                                      void* (*body)(void*), void* argument) noexcept {
    using Function = int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
    static const auto real = reinterpret_cast<Function>(dlsym(RTLD_NEXT, "pthread_create"));
    return plan.threadsFail ? EAGAIN : real(thread, attributes, body, argument);
}

extern "C" KTR_API int nanosleep(const std::timespec* requested, std::timespec* remaining) {
    using Function = int (*)(const std::timespec*, std::timespec*);
    static const auto real = reinterpret_cast<Function>(dlsym(RTLD_NEXT, "nanosleep"));
    if (!plan.sleep)
        return real(requested, remaining);
    std::timespec rest = *requested;
    if (plan.sleep(rest))
        return 0;
    if (remaining != nullptr)
        *remaining = rest;
    errno = EINTR;
    return -1;
}
