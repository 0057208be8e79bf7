#include "HttpListener.h"

#include "RouteTable.h"

#include "ktr/common/Logger.h"

#include <Poco/Exception.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <optional>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <system_error>
#include <unistd.h>

namespace ktr {
namespace {

// how soon to look again for room or for a free descriptor
constexpr int kPauseMilliseconds = 50;

int makeWakeup() {
    const int descriptor = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (descriptor < 0)
        throw Poco::SystemException(
            std::string("cannot make an event descriptor for the web api: ") +
            std::strerror(errno));
    return descriptor;
}

} // namespace

HttpListener::HttpListener(const Poco::Net::ServerSocket& socket_, RouteTable& routes_,
                           const WebApiBasic::Limits& limits_)
    : socket(socket_), routes(routes_), limits(limits_), wakeup(makeWakeup()) {
    try {
        acceptor = std::thread([this] { acceptAll(); });
    } catch (const std::system_error& e) {
        ::close(wakeup);
        throw Poco::SystemException(std::string("cannot start the web api's thread: ") + e.what());
    }
}

HttpListener::~HttpListener() {
    stopping = true;
    wake();
    acceptor.join();
    socket.close();
    for (Client& client : clients)
        client.connection.stop();
    for (Client& client : clients)
        client.thread.join();
    ::close(wakeup);
}

void HttpListener::acceptAll() {
    while (!stopping) {
        const bool waiting = waitForClient();
        reap();
        if (!waiting || stopping)
            continue;
        if (clients.size() < static_cast<std::size_t>(std::max(limits.connections, 1))) {
            acceptOne();
        } else {
            makeRoom();
            pause();
        }
    }
}

void HttpListener::acceptOne() {
    const int descriptor =
        ::accept4(socket.impl()->sockfd(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (descriptor >= 0) {
        start(descriptor);
        return;
    }
    // a client may have gone before it was accepted
    if (errno == EAGAIN || errno == EINTR || errno == ECONNABORTED)
        return;
    reportRefusal(std::strerror(errno));
    makeRoom();
    pause();
}

void HttpListener::start(int descriptor) {
    const int on = 1;
    ::setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
    Client& client = clients.emplace_back(descriptor, routes, limits);
    try {
        client.thread = std::thread([this, &client] {
            client.connection.run();
            client.done = true;
            wake();
        });
        exhausted = false;
    } catch (const std::system_error& e) {
        clients.pop_back();
        reportRefusal(e.what());
        pause();
    }
}

/// One line for each shortage, however long it lasts.
void HttpListener::reportRefusal(const std::string& reason) {
    if (!exhausted && cachedLogger().error())
        cachedLogger().error("web api: cannot accept connections: " + reason +
                                 "; clients wait. Raise the process's limits or allow fewer "
                                 "connections",
                             __FILE__, __LINE__);
    exhausted = true;
}

/// Ends the connection that has been idle for longest.
void HttpListener::makeRoom() {
    Client* chosen = nullptr;
    ClientSocket::Clock::time_point oldest;
    for (Client& client : clients) {
        const auto since = client.connection.idleSince();
        if (!client.done && since && (chosen == nullptr || *since < oldest)) {
            chosen = &client;
            oldest = *since;
        }
    }
    if (chosen != nullptr)
        chosen->connection.stopIfIdle();
}

void HttpListener::reap() {
    for (auto client = clients.begin(); client != clients.end();) {
        if (client->done) {
            client->thread.join();
            client = clients.erase(client);
        } else {
            ++client;
        }
    }
}

void HttpListener::wake() {
    const std::uint64_t one = 1;
    // it can fail only when a wake-up is pending already
    static_cast<void>(!::write(wakeup, &one, sizeof(one)));
}

/// Waits for a client or a wake-up; whether a client is there.
bool HttpListener::waitForClient() {
    std::array<pollfd, 2> waited{{{socket.impl()->sockfd(), POLLIN, 0}, {wakeup, POLLIN, 0}}};
    ::poll(waited.data(), waited.size(), -1);
    std::uint64_t ignored = 0;
    static_cast<void>(!::read(wakeup, &ignored, sizeof(ignored)));
    return (waited[0].revents & POLLIN) != 0;
}

/// Waits for a wake-up, but not for long.
void HttpListener::pause() {
    pollfd waited{wakeup, POLLIN, 0};
    ::poll(&waited, 1, kPauseMilliseconds);
}

} // namespace ktr
