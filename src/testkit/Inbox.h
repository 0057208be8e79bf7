#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <mutex>
#include <optional>
#include <string>

namespace ktr::testkit {

/// The events that the listeners got and nobody has taken yet, and how many listeners there are.
/// Thread-safe.
class Inbox {
public:
    static constexpr std::size_t kCapacity = 10'000;

    /// One event; what finds no room is lost, which the next take() says.
    void put(std::string event);

    /// The oldest event; nothing if none comes within `timeout`. Throws std::runtime_error if
    /// events were lost.
    std::optional<std::string> take(std::chrono::milliseconds timeout);

    /// One more listener can get events.
    void listenerStarted();
    /// False if there are still fewer after `timeout`.
    bool waitForListeners(std::size_t wanted, std::chrono::milliseconds timeout);

private:
    std::mutex mutex;
    std::condition_variable changed;
    std::deque<std::string> events;
    bool lost = false;
    std::size_t listeners = 0;
};

} // namespace ktr::testkit
