#include "StepWatch.h"

#include <cstdlib>
#include <iostream>
#include <utility>

namespace ktr::testkit {

StepWatch::StepWatch(std::string step_, std::chrono::milliseconds deadline_)
    : step(std::move(step_)), deadline(deadline_), thread([this] { watch(); }) {}

StepWatch::~StepWatch() {
    {
        const std::lock_guard<std::mutex> lock(mutex);
        over = true;
    }
    changed.notify_all();
    thread.join();
}

void StepWatch::watch() {
    std::unique_lock<std::mutex> lock(mutex);
    if (changed.wait_for(lock, deadline, [this] { return over; }))
        return;
    std::cerr << "ketra test kit: " << step << " has not ended within " << deadline.count()
              << " ms, and nothing can be taken down beneath it: the process aborts" << std::endl;
    std::abort();
}

} // namespace ktr::testkit
