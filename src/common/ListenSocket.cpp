#include "ListenSocket.h"

#include "ktr/common/Logger.h"

#include <cerrno>
#include <chrono>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <thread>
#include <utility>

namespace ktr {

ListenSocket::ListenSocket(std::shared_ptr<OpenConnections> connections_,
                           const WebApiBasic::Limits& limits_)
    : connections(std::move(connections_)), limits(limits_) {}

bool ListenSocket::poll(const Poco::Timespan& timeout, int /*mode*/) {
    const std::chrono::microseconds time(timeout.totalMicroseconds());
    if (!waitForSocket(sockfd(), POLLIN, time) || !connections->waitForRoom(time))
        return false;
    accepted = ::accept4(sockfd(), nullptr, nullptr, SOCK_CLOEXEC);
    if (accepted < 0)
        reportFailure(errno);
    else
        failing = false;
    return accepted >= 0;
}

Poco::Net::SocketImpl* ListenSocket::acceptConnection(Poco::Net::SocketAddress& /*client*/) {
    // the server has no use for the address, and asking for it fails when the client has gone
    return new ClientSocket(std::exchange(accepted, -1), connections, limits);
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
    connections->endLongestIdle();
    // The client stays in the backlog, so that the next wait would return at once and spin.
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
}

} // namespace ktr
