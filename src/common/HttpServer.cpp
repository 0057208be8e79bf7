#include "HttpServer.h"

#include "HttpConnection.h"
#include "ListenSocket.h"
#include "RouteTable.h"

#include <Poco/Exception.h>
#include <Poco/Net/NetException.h>
#include <Poco/Net/TCPServerConnectionFactory.h>
#include <Poco/Net/TCPServerParams.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace ktr {
namespace {

// Beyond it a client's connection is dropped, to be tried again a second later. The system cuts it.
constexpr int kBacklog = 4096;
// Poco takes idle threads back only when it is asked to.
constexpr int kThreadIdleSeconds = 1;

class ConnectionFactory : public Poco::Net::TCPServerConnectionFactory {
public:
    ConnectionFactory(RouteTable& routes, const ServerSettings& settings)
        : server{routes, settings, BoundedLog(), BoundedLog(), BoundedLog()} {}

    Poco::Net::TCPServerConnection*
    createConnection(const Poco::Net::StreamSocket& socket) override {
        return new HttpConnection(socket, server);
    }

private:
    HttpConnection::Server server;
};

/// Poco leaves it to a subclass to choose the implementation.
class Listener : public Poco::Net::ServerSocket {
public:
    explicit Listener(ListenSocket* implementation) : ServerSocket(implementation, true) {}
};

ServerSettings usable(ServerSettings settings) {
    settings.limits.connections = std::max(settings.limits.connections, 1);
    return settings;
}

} // namespace

HttpServer::HttpServer(const std::string& ip, unsigned short port, RouteTable& routes_,
                       const ServerSettings& settings_)
    : routes(routes_), settings(usable(settings_)),
      connections(
          std::make_shared<OpenConnections>(static_cast<std::size_t>(settings.limits.connections))),
      socket(Listener(new ListenSocket(connections, settings, [this] { threads->collect(); }))) {
    try {
        // A port that just served may be bound again; one that is being served may not be shared.
        socket.bind(Poco::Net::SocketAddress(ip, port), true, false);
        socket.listen(kBacklog);
        socket.setBlocking(false);
        ::fcntl(socket.impl()->sockfd(), F_SETFD, FD_CLOEXEC);
    } catch (const Poco::Exception& e) {
        const bool v6 = ip.find(':') != std::string::npos;
        throw Poco::Net::NetException("cannot listen on " + (v6 ? "[" + ip + "]" : ip) + ":" +
                                          std::to_string(port) + ": " + e.displayText(),
                                      e.code());
    }
}

std::size_t HttpServer::discardWaiting() const {
    std::size_t closed = 0;
    // Those that wait come first, and no more than these: whoever goes on connecting meanwhile must
    // not keep it here.
    for (int i = 0; i <= kBacklog; ++i) {
        const int client = ::accept4(socket.impl()->sockfd(), nullptr, nullptr, SOCK_CLOEXEC);
        if (client >= 0) {
            ::close(client);
            ++closed;
        } else if (errno == EAGAIN) {
            break;
        } else if (errno != EINTR && errno != ECONNABORTED) {
            const int code = errno;
            throw Poco::SystemException(std::string("cannot close the connections that wait: ") +
                                            std::strerror(code),
                                        code);
        }
    }
    return closed;
}

void HttpServer::start() {
    Poco::Net::TCPServerParams::Ptr params(new Poco::Net::TCPServerParams);
    const int most = settings.limits.connections;
    params->setMaxThreads(most);
    params->setMaxQueued(most);
    // a stop wakes but one of the threads that wait for a connection
    params->setThreadIdleTime(Poco::Timespan(0, 200'000));
    // a thread that has ended its connection still counts for a moment
    threads.emplace("web api", 1, 2 * most, kThreadIdleSeconds);
    const Poco::Net::TCPServerConnectionFactory::Ptr factory(
        new ConnectionFactory(routes, settings));
    server.emplace(factory, *threads, socket, params);
    try {
        server->start();
    } catch (...) {
        server.reset();
        throw;
    }
}

HttpServer::~HttpServer() {
    connections->stop();
    // wakes the server's thread
    ::shutdown(socket.impl()->sockfd(), SHUT_RDWR);
    if (server)
        server->stop();
    if (threads)
        threads->joinAll();
    server.reset();
}

} // namespace ktr
