#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <map>
#include <mutex>

namespace ktr {

/// The open connections of one server by descriptor, and what each is about.
///
/// Thread safety: everything may be called from any thread.
class OpenConnections {
public:
    using Clock = std::chrono::steady_clock;

    enum class Phase { idle, reading, answering };

    explicit OpenConnections(std::size_t limit_) : limit(limit_) {}

    void add(int descriptor);
    /// To be called before the descriptor is closed.
    void remove(int descriptor);

    /// False when the connection is to end instead.
    bool enter(int descriptor, Phase phase);

    /// Whether there is room for one more. If not, it has the connection that has been idle for
    /// longest end, and waits for room until `timeout` has passed.
    bool waitForRoom(Clock::duration timeout);

    void endLongestIdle();

    /// Ends all connections but those that are answering, and those when they have answered.
    void stop();
    bool stopping() const { return stopped; }

private:
    struct Connection {
        Phase phase = Phase::idle;
        bool ended = false;
        Clock::time_point since = Clock::now();
    };

    static void end(int descriptor, Connection& connection);
    void endLongestIdleLocked();

    const std::size_t limit;
    std::atomic<bool> stopped{false};

    // guards all below
    std::mutex mutex;
    std::condition_variable changed;
    std::map<int, Connection> connections;
};

} // namespace ktr
