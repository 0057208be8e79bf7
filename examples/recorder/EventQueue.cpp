#include "recorder/EventQueue.h"

#include <utility>

namespace ktr::example {

EventQueue::EventQueue(std::size_t capacity_) : capacity(capacity_) {}

std::uint64_t EventQueue::push(std::string text) {
    std::uint64_t result = 0;
    {
        const std::lock_guard<std::mutex> lock(mutex);
        items.push_back({++lastNumber, std::move(text)});
        if (items.size() > capacity) {
            items.pop_front();
            result = ++dropped;
        }
    }
    changed.notify_all();
    return result;
}

std::optional<EventQueue::Item> EventQueue::front(const std::atomic<bool>& ended) {
    std::unique_lock<std::mutex> lock(mutex);
    changed.wait(lock, [&] { return ended || !items.empty(); });
    if (ended)
        return std::nullopt;
    return items.front();
}

void EventQueue::remove(std::uint64_t number) {
    const std::lock_guard<std::mutex> lock(mutex);
    if (!items.empty() && items.front().number == number)
        items.pop_front();
}

void EventQueue::wake() {
    // the lock keeps a waiter from missing us between its look at `ended` and its wait
    { const std::lock_guard<std::mutex> lock(mutex); }
    changed.notify_all();
}

} // namespace ktr::example
