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

    /// What a connection waits for: the client's next request, the rest of one, the handler, or
    /// the client that does not take its answer. It goes on sending until the next request.
    enum class Phase { idle, reading, answering, sending };

    explicit OpenConnections(std::size_t limit_) : limit(limit_) {}

    void add(int descriptor);
    /// To be called before the descriptor is closed.
    void remove(int descriptor);

    /// False when the connection is to end instead.
    bool enter(int descriptor, Phase phase);

    /// Whether there is room for one more. If not, it has connections end that keep the server
    /// waiting, and waits for room until `timeout` has passed.
    bool waitForRoom(Clock::duration timeout);

    /// Ends the connection that is idle for longest, or, with none, that has been sending its
    /// request or not taking its answer for longest. Each has a moment first, and a client of whom
    /// there is something to read keeps nobody waiting.
    void endSlowest();

    /// Whether somebody waits for room.
    bool isCrowded() const { return crowded; }

    /// Whether it was ended to make room.
    bool isEnded(int descriptor) const;

    /// Ends all connections but those that are answering, and those when they have answered.
    void stop();
    bool stopping() const { return stopped; }

private:
    struct Connection {
        Phase phase = Phase::idle;
        bool ended = false;
        Clock::time_point since = Clock::now();
    };
    using Map = std::map<int, Connection>;

    static void end(int descriptor, Connection& connection);
    static bool mayEnd(const Map::value_type& entry);
    void endSlowestLocked();

    const std::size_t limit;
    std::atomic<bool> stopped{false};
    std::atomic<bool> crowded{false};

    // guards all below
    mutable std::mutex mutex;
    std::condition_variable changed;
    Map connections;
};

} // namespace ktr
