#pragma once

#include "BoundedLog.h"
#include "ClientSocket.h"
#include "HttpFault.h"
#include "ServerSettings.h"

#include <Poco/Net/HTTPServerParams.h>
#include <Poco/Net/StreamSocket.h>
#include <Poco/Net/TCPServerConnection.h>

#include <string>

namespace ktr {

class HttpRequest;
class HttpResponse;
class HttpSession;
class RouteTable;
struct Target;

/// Answers the requests of one connection, one after the other. Poco's HTTPServerConnection does
/// not let its errors be answered otherwise than with an empty 400.
class HttpConnection : public Poco::Net::TCPServerConnection {
public:
    /// What the connections of one server have in common; outlives them.
    struct Server {
        RouteTable& routes;
        const ServerSettings settings;
        BoundedLog handshakeFailures;
        BoundedLog unauthorized;
        BoundedLog madeRoom;
    };

    /// The socket is a ClientSocket.
    HttpConnection(const Poco::Net::StreamSocket& socket, Server& server);

    /// Serves until the client, a limit or a stop ends the connection.
    void run() override;

private:
    bool secure();
    bool serveOne(HttpSession& session);
    void authorize(const HttpRequest& request) const;
    bool answer(HttpRequest& request, HttpResponse& response, const Target& target);
    bool handle(HttpRequest& request, HttpResponse& response, const Target& target);
    void refuse(HttpSession& session, const HttpFault& fault);
    void logRefusal(const HttpFault& fault);
    void logMadeRoom();

    Server& server;
    const WebApiBasic::Limits& limits;
    Poco::Net::HTTPServerParams::Ptr params{new Poco::Net::HTTPServerParams};
    ClientSocket& client;
    /// The request that is being served, as log lines name it.
    std::string subject;
};

} // namespace ktr
