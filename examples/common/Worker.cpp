#include "common/Worker.h"

#include <utility>

namespace ktr::example {

Worker::Worker(std::function<void(Worker&)> work)
    : thread([this, run = std::move(work)] { run(*this); }) {}

Worker::~Worker() {
    requestEnd();
    join();
}

bool Worker::pause(std::chrono::milliseconds time) {
    std::unique_lock<std::mutex> lock(mutex);
    return !changed.wait_for(lock, time, [this] { return wantsEnd; });
}

bool Worker::ending() {
    const std::lock_guard<std::mutex> lock(mutex);
    return wantsEnd;
}

void Worker::requestEnd() {
    {
        const std::lock_guard<std::mutex> lock(mutex);
        wantsEnd = true;
    }
    changed.notify_all();
}

void Worker::join() {
    if (thread.joinable())
        thread.join();
}

} // namespace ktr::example
