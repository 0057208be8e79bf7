#include "OpenConnections.h"

#include <algorithm>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <tuple>

namespace ktr {
namespace {

using std::chrono::milliseconds;

// What a client on a slow line may need between two packets. A thousand clients that say nothing
// pass in a few of these.
constexpr milliseconds kGrace{50};
// Of 256 connections 16 go at once. One by one, a crowd would wait for as many changes of threads,
// which take their time on a busy device.
constexpr std::size_t kLimitPerBatchMember = 17;

/// Whether the server keeps the client waiting, and not the other way round.
bool hasUnread(int descriptor) {
    int bytes = 0;
    return ::ioctl(descriptor, FIONREAD, &bytes) == 0 && bytes > 0;
}

} // namespace

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
    if (found->second.phase != phase) {
        found->second.phase = phase;
        found->second.since = Clock::now();
    }
    return true;
}

bool OpenConnections::waitForRoom(Clock::duration timeout) {
    const auto end = Clock::now() + timeout;
    const auto isOver = [this] { return stopped || connections.size() < limit; };
    std::unique_lock<std::mutex> lock(mutex);
    crowded = !isOver();
    while (!isOver() && Clock::now() < end) {
        for (std::size_t i = 0; i < 1 + limit / kLimitPerBatchMember; ++i)
            endSlowestLocked();
        // its thread closes it in less; nobody says when the next one's moment is over
        changed.wait_until(lock, std::min(end, Clock::now() + milliseconds(10)), isOver);
    }
    crowded = !isOver();
    return !crowded && !stopped;
}

bool OpenConnections::isEnded(int descriptor) const {
    const std::lock_guard<std::mutex> lock(mutex);
    const auto found = connections.find(descriptor);
    return found != connections.end() && found->second.ended;
}

void OpenConnections::stop() {
    const std::lock_guard<std::mutex> lock(mutex);
    stopped = true;
    for (auto& [descriptor, connection] : connections)
        if (connection.phase == Phase::idle || connection.phase == Phase::reading)
            end(descriptor, connection);
    changed.notify_all();
}

/// Whoever waits on the connection returns and closes it.
void OpenConnections::end(int descriptor, Connection& connection) {
    connection.ended = true;
    ::shutdown(descriptor, SHUT_RDWR);
}

void OpenConnections::endSlowest() {
    const std::lock_guard<std::mutex> lock(mutex);
    endSlowestLocked();
}

bool OpenConnections::mayEnd(const Map::value_type& entry) {
    const auto& [descriptor, connection] = entry;
    if (connection.ended || connection.phase == Phase::answering)
        return false;
    if (Clock::now() - connection.since < kGrace)
        return false;
    // whoever does not take an answer may send further requests all the same
    return connection.phase == Phase::sending || !hasUnread(descriptor);
}

void OpenConnections::endSlowestLocked() {
    auto slowest = connections.end();
    const auto rank = [](const Connection& connection) {
        return std::tie(connection.phase, connection.since);
    };
    for (auto at = connections.begin(); at != connections.end(); ++at)
        if ((slowest == connections.end() || rank(at->second) < rank(slowest->second)) &&
            mayEnd(*at))
            slowest = at;
    if (slowest != connections.end())
        end(slowest->first, slowest->second);
}

} // namespace ktr
