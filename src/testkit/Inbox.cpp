#include "Inbox.h"

#include <stdexcept>
#include <utility>

namespace ktr::testkit {

void Inbox::put(std::string event) {
    const std::lock_guard<std::mutex> lock(mutex);
    if (events.size() < kCapacity)
        events.push_back(std::move(event));
    else
        lost = true;
    changed.notify_all();
}

std::optional<std::string> Inbox::take(std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(mutex);
    changed.wait_for(lock, timeout, [this] { return lost || !events.empty(); });
    if (lost)
        throw std::runtime_error("more than " + std::to_string(kCapacity) +
                                 " events were raised and not taken, so that some are lost; take "
                                 "them with waitForEvent, or listen as fewer guids");
    if (events.empty())
        return std::nullopt;
    std::string event = std::move(events.front());
    events.pop_front();
    return event;
}

void Inbox::listenerStarted() {
    const std::lock_guard<std::mutex> lock(mutex);
    ++listeners;
    changed.notify_all();
}

bool Inbox::waitForListeners(std::size_t wanted, std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(mutex);
    return changed.wait_for(lock, timeout, [&] { return listeners >= wanted; });
}

} // namespace ktr::testkit
