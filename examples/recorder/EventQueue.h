#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
#include <string>

namespace ktr::example {

/// Events that wait for their service; when full, the oldest goes. Thread-safe.
class EventQueue {
public:
    struct Item {
        std::uint64_t number = 0;
        std::string text;
    };

    explicit EventQueue(std::size_t capacity);

    /// Returns at once. The result is how many events were dropped so far if this call dropped one,
    /// else 0.
    std::uint64_t push(std::string text);

    /// The oldest event, which stays in the queue; waits for one. Nothing once `ended` is true.
    std::optional<Item> front(const std::atomic<bool>& ended);
    /// Removes the event of that number, unless it was dropped meanwhile.
    void remove(std::uint64_t number);
    /// Has those who wait in front() look at their `ended` again.
    void wake();

private:
    const std::size_t capacity;

    // guards what follows
    std::mutex mutex;
    std::condition_variable changed;
    std::deque<Item> items;
    std::uint64_t lastNumber = 0;
    std::uint64_t dropped = 0;
};

} // namespace ktr::example
