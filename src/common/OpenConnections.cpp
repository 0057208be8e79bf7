#include "OpenConnections.h"

#include <sys/socket.h>

namespace ktr {

void OpenConnections::add(int descriptor) {
    const std::lock_guard<std::mutex> lock(mutex);
    connections[descriptor] = {};
}

void OpenConnections::remove(int descriptor) {
    const std::lock_guard<std::mutex> lock(mutex);
    connections.erase(descriptor);
    changed.notify_all();
}

bool OpenConnections::enter(int descriptor, Phase phase) {
    const std::lock_guard<std::mutex> lock(mutex);
    const auto found = connections.find(descriptor);
    if (found == connections.end() || found->second.ended || stopped)
        return false;
    found->second.phase = phase;
    found->second.since = Clock::now();
    return true;
}

bool OpenConnections::waitForRoom(Clock::duration timeout) {
    std::unique_lock<std::mutex> lock(mutex);
    if (connections.size() >= limit)
        endLongestIdleLocked();
    changed.wait_for(lock, timeout, [this] { return stopped || connections.size() < limit; });
    return !stopped && connections.size() < limit;
}

void OpenConnections::stop() {
    const std::lock_guard<std::mutex> lock(mutex);
    stopped = true;
    for (auto& [descriptor, connection] : connections)
        if (connection.phase != Phase::answering)
            end(descriptor, connection);
    changed.notify_all();
}

/// Whoever waits on the connection returns and closes it.
void OpenConnections::end(int descriptor, Connection& connection) {
    connection.ended = true;
    ::shutdown(descriptor, SHUT_RDWR);
}

void OpenConnections::endLongestIdle() {
    const std::lock_guard<std::mutex> lock(mutex);
    endLongestIdleLocked();
}

void OpenConnections::endLongestIdleLocked() {
    auto longest = connections.end();
    for (auto at = connections.begin(); at != connections.end(); ++at) {
        const Connection& connection = at->second;
        if (connection.phase == Phase::idle && !connection.ended &&
            (longest == connections.end() || connection.since < longest->second.since))
            longest = at;
    }
    if (longest != connections.end())
        end(longest->first, longest->second);
}

} // namespace ktr
