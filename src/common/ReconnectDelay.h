#pragma once

#include <algorithm>
#include <chrono>
#include <utility>

namespace ktr {

/// How long to wait before the next attempt to connect: doubled from attempt to attempt, until a
/// connection has shown that it holds. A peer that takes each connection only to end it is thus not
/// asked without end; one that is restarted a few times in a row does not wait for a minute.
class ReconnectDelay {
public:
    /// A connection that was up for so long held, whatever the delay before it.
    static constexpr std::chrono::seconds steady{10};

    ReconnectDelay(std::chrono::seconds shortest_, std::chrono::seconds longest_)
        : shortest(shortest_), longest(longest_), delay(shortest_) {}

    /// The next delay after a connection that was up for `up`; zero if none came about.
    std::chrono::seconds next(std::chrono::nanoseconds up) {
        if (up >= std::min(delay, steady))
            delay = shortest;
        return std::exchange(delay, std::min(delay * 2, longest));
    }

private:
    const std::chrono::seconds shortest;
    const std::chrono::seconds longest;
    std::chrono::seconds delay;
};

} // namespace ktr
