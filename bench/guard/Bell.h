#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace ktr::bench {

/// Tells the measuring thread that others have done their work, without polling: a poll's
/// instructions would depend on how busy the machine is.
class Bell {
public:
    void ring() {
        const std::lock_guard<std::mutex> lock(mutex);
        ++rung;
        changed.notify_one();
    }

    /// Waits for so many rings since the last wait; false if they take longer than a second.
    bool await(int times = 1) {
        std::unique_lock<std::mutex> lock(mutex);
        if (!changed.wait_for(lock, std::chrono::seconds(1), [&] { return rung >= times; }))
            return false;
        rung = 0;
        return true;
    }

    /// As long as it is held, ring() does not return.
    std::unique_lock<std::mutex> hold() { return std::unique_lock<std::mutex>(mutex); }

private:
    std::mutex mutex;
    std::condition_variable changed;
    int rung = 0;
};

} // namespace ktr::bench
