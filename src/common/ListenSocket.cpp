#include "ListenSocket.h"

#include "ktr/common/Logger.h"

#include <cerrno>
#include <chrono>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <utility>

namespace ktr {

ListenSocket::ListenSocket(std::shared_ptr<OpenConnections> connections_,
                           const ServerSettings& settings, std::function<void()> tidy_)
    : connections(std::move(connections_)), limits(settings.limits), access(settings.access),
      tidy(std::move(tidy_)) {}

ListenSocket::~ListenSocket() {
    if (accepted >= 0)
        ::close(accepted);
}

bool ListenSocket::poll(const Poco::Timespan& timeout, int /*mode*/) {
    tidyNowAndThen();
    const std::chrono::microseconds time(timeout.totalMicroseconds());
    return (accepted >= 0 || acceptOne(time)) && connections->waitForRoom(time);
}

void ListenSocket::tidyNowAndThen() {
    if (Clock::now() - tidied < std::chrono::seconds(1))
        return;
    tidy();
    tidied = Clock::now();
}

/// Whether there is now a connection that may be handed on.
bool ListenSocket::acceptOne(Clock::duration timeout) {
    if (!waitForSocket(sockfd(), POLLIN, timeout))
        return false;
    sockaddr_storage address{};
    socklen_t length = sizeof address;
    auto* const from = reinterpret_cast<sockaddr*>(&address);
    accepted = ::accept4(sockfd(), from, &length, SOCK_CLOEXEC);
    if (accepted < 0) {
        reportFailure(errno);
        return false;
    }
    failing = false;
    peer = Poco::Net::SocketAddress(from, length);
    if (access.admits(peer.host()))
        return true;
    ::close(std::exchange(accepted, -1));
    refusals.warning("web api: " + peer.toString() + " closed: it is in no allowed network");
    return false;
}

Poco::Net::SocketImpl* ListenSocket::acceptConnection(Poco::Net::SocketAddress& /*client*/) {
    return new ClientSocket(std::exchange(accepted, -1), peer, connections, limits);
}

void ListenSocket::reportFailure(int code) {
    // a client may have gone before it was accepted, and a stop ends the socket
    if (code == EAGAIN || code == EINTR || code == ECONNABORTED || connections->stopping())
        return;
    if (!failing && cachedLogger().error())
        cachedLogger().error(std::string("web api: cannot accept connections: ") +
                                 std::strerror(code) +
                                 "; clients wait. Raise the process's limits or allow fewer "
                                 "connections",
                             __FILE__, __LINE__);
    failing = true;
    connections->endSlowest();
    // The client stays in the backlog, so that the next wait would return at once and spin.
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
}

} // namespace ktr
