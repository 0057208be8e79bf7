#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

namespace ktr::testkit {

/// Aborts the process, saying why, unless it is destroyed before the deadline: for steps that run
/// code of the plugin's on this thread, and cannot be left when that does not return.
class StepWatch {
public:
    /// `step`: what is being done, as the subject of a sentence.
    StepWatch(std::string step_, std::chrono::milliseconds deadline_);
    ~StepWatch();
    StepWatch(const StepWatch&) = delete;
    StepWatch& operator=(const StepWatch&) = delete;

private:
    void watch();

    const std::string step;
    const std::chrono::milliseconds deadline;
    std::mutex mutex;
    std::condition_variable changed;
    bool over = false;
    std::thread thread;
};

} // namespace ktr::testkit
