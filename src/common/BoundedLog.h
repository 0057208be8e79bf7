#pragma once

#include <chrono>
#include <mutex>
#include <optional>
#include <string>

namespace ktr {

/// Warnings that strangers can call forth as often as they like: one in each period, which tells
/// how many were left out since the one before.
///
/// Thread safety: everything may be called from any thread.
class BoundedLog {
public:
    using Clock = std::chrono::steady_clock;

    explicit BoundedLog(Clock::duration period_ = std::chrono::seconds(10)) : period(period_) {}

    void warning(const std::string& text);

private:
    const Clock::duration period;

    // guards all below
    std::mutex mutex;
    std::optional<Clock::time_point> last;
    int leftOut = 0;
};

} // namespace ktr
