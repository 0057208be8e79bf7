#pragma once

#include <atomic>
#include <condition_variable>
#include <mutex>

namespace ktr::example::test {

/// Keeps those who pass waiting until it is opened.
class Gate {
public:
    void pass() {
        std::unique_lock<std::mutex> lock(mutex);
        ++arrivals;
        changed.wait(lock, [this] { return opened; });
    }
    void open() {
        const std::lock_guard<std::mutex> lock(mutex);
        opened = true;
        changed.notify_all();
    }
    int arrived() const { return arrivals; }

private:
    std::mutex mutex;
    std::condition_variable changed;
    bool opened = false;
    std::atomic<int> arrivals{0};
};

} // namespace ktr::example::test
