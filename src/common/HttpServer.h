#pragma once

#include "OpenConnections.h"
#include "ServerSettings.h"

#include <Poco/Net/ServerSocket.h>
#include <Poco/Net/SocketAddress.h>
#include <Poco/Net/TCPServer.h>
#include <Poco/ThreadPool.h>

#include <cstddef>
#include <memory>
#include <optional>
#include <string>

namespace ktr {

class RouteTable;

/// Poco's server with the limits of the web API, and its rules about who may talk to it.
///
/// Thread safety: belongs to one thread.
class HttpServer {
public:
    /// Binds and listens. Throws Poco::Net::NetException.
    HttpServer(const std::string& ip, unsigned short port, RouteTable& routes,
               const ServerSettings& settings);
    /// Ends connections, lets answers go out, and waits for every thread.
    ~HttpServer();
    HttpServer(const HttpServer&) = delete;
    HttpServer& operator=(const HttpServer&) = delete;

    Poco::Net::SocketAddress address() const { return socket.address(); }

    /// Closes unread what waits to be accepted, and returns how many. Throws Poco::SystemException.
    std::size_t discardWaiting() const;

    bool serving() const { return server.has_value(); }
    /// Starts answering. Throws Poco::SystemException.
    void start();

private:
    RouteTable& routes;
    const ServerSettings settings;
    const std::shared_ptr<OpenConnections> connections;
    Poco::Net::ServerSocket socket;
    std::optional<Poco::ThreadPool> threads;
    std::optional<Poco::Net::TCPServer> server;
};

} // namespace ktr
