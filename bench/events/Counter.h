#pragma once

#include "Route.h"

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <string>

namespace ktr::bench {

/// How many events may be on their way: fewer than the library's queue holds.
constexpr std::size_t kUndelivered = 32;

/// Counts the calls of onMessage, and lets whoever raises events wait for them, so that no queue
/// overflows. One for the program, for the thread of the last call may still be in take() when that
/// call has been waited for.
class Counter : public Sink {
public:
    /// The counter, which begins anew and is the board's sink from now on.
    static Counter& begin();

    void take(std::size_t number, const std::string& event) override;

    /// Waits until at most `limit` of the `raised` calls are yet to come. Throws std::runtime_error
    /// if some of them never come.
    void waitForAllBut(std::size_t limit, std::size_t raised, Route& route);

private:
    Counter() = default;

    std::atomic<std::size_t> calls{0};
    // how many wake who waits
    std::atomic<std::size_t> awaited{0};
    std::mutex mutex;
    std::condition_variable reached;
};

} // namespace ktr::bench
