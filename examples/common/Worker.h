#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

namespace ktr::example {

/// One thread that can be told to end.
///
/// Thread safety: ending() and pause() are for the thread itself, requestEnd() and join() for its
/// owner.
class Worker {
public:
    /// Runs `work` on a thread of its own; it looks at ending() and waits with pause(). It must not
    /// throw.
    explicit Worker(std::function<void(Worker&)> work);
    /// Calls requestEnd() and join().
    ~Worker();
    Worker(const Worker&) = delete;
    Worker& operator=(const Worker&) = delete;

    /// Waits for `time`, or until the end is wanted. False if it is.
    bool pause(std::chrono::milliseconds time);
    bool ending();

    void requestEnd();
    /// Waits for the thread. Again: nothing.
    void join();

private:
    // guards wantsEnd
    std::mutex mutex;
    std::condition_variable changed;
    bool wantsEnd = false;
    // last, so that the thread finds the rest made
    std::thread thread;
};

} // namespace ktr::example
