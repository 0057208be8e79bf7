#pragma once

#include <chrono>
#include <thread>

namespace ktr::test {

/// Polls `condition` until it is true or `deadline` has passed; returns its last value.
template <class Condition>
bool waitUntil(Condition condition, std::chrono::milliseconds deadline = std::chrono::seconds(10)) {
    const auto end = std::chrono::steady_clock::now() + deadline;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= end)
            return condition();
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

} // namespace ktr::test
