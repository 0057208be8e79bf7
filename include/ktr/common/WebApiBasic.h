#pragma once

#include "ktr/Export.h"

#include <Poco/Net/SocketAddress.h>
#include <Poco/Timespan.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <unordered_map>

namespace Poco::Net {
class HTTPServerRequest;
class HTTPServerResponse;
} // namespace Poco::Net

namespace ktr {

/// The host's HTTP/1.1 router. Routes are exact paths, case-sensitive, without the query.
///
/// The router answers by itself, each time with a JSON body ({"code":-1,"msg":"..."}) and a log
/// line: an unknown route 404, a handler that throws 500, a malformed request 400, a body or header
/// over the limit 413 or 431.
///
/// Thread safety: all functions may be called from any thread, also while the server runs, but for
/// bind, serve and stop, which belong to one thread.
class KTR_API WebApiBasic {
public:
    /// Request parameters by name, from the query, an urlencoded or multipart form, or the members
    /// of a JSON object body. Of a repeated name the first value counts; the body goes before the
    /// query.
    using Parameters = std::unordered_map<std::string, std::string>;

    /// Answers one request by writing to `response`. Called on a server thread, several at once,
    /// with no lock held. What it throws, of any type, is logged and answered with status 500 if
    /// nothing was sent yet. It may call apiRegist and apiUnregist.
    using Handler =
        std::function<void(Poco::Net::HTTPServerRequest& request,
                           Poco::Net::HTTPServerResponse& response, const Parameters& params)>;

    /// What a client may take of the server. Set before bind().
    struct Limits {
        std::size_t bodyBytes = 1024 * 1024;
        std::size_t headerBytes = 16 * 1024;
        int connections = 256;
        /// From the first byte of a request to the end of its header, and again for its body.
        Poco::Timespan headerTime{10, 0};
        /// How long an idle connection is kept open between requests.
        Poco::Timespan idleTime{15, 0};
    };

    /// The process-wide router.
    static std::shared_ptr<WebApiBasic> instance();

    WebApiBasic();
    /// Calls stop().
    ~WebApiBasic();
    WebApiBasic(const WebApiBasic&) = delete;
    WebApiBasic& operator=(const WebApiBasic&) = delete;

    /// Has `handler` answer requests for `route`, which starts with "/"; it replaces an earlier
    /// handler of the route, whose running calls go on. Throws Poco::InvalidArgumentException for
    /// an empty handler or a bad route.
    void apiRegist(std::string route, Handler handler);

    /// Takes the route's handler away and returns when no call of it is running any more (but for
    /// one that the calling thread itself is in). An unknown route does nothing. A caller that
    /// holds a lock which a running handler waits for deadlocks.
    void apiUnregist(const std::string& route);

    /// Replaces the limits; takes effect with the next bind().
    void setLimits(const Limits& limits);

    /// Binds to `ip` and `port` (0 picks a free one) and listens; connections wait in the backlog
    /// until serve(). Returns the bound address. Throws Poco::Net::NetException or
    /// Poco::IOException with the address in its text when it cannot be bound, and
    /// Poco::IllegalStateException when already bound.
    Poco::Net::SocketAddress bind(const std::string& ip = "127.0.0.1", unsigned short port = 0);

    /// Starts answering, on threads of its own. Throws Poco::IllegalStateException unless bound.
    void serve();

    /// Stops answering: closes the listening socket and idle connections, lets running handlers end
    /// and their answers go out, and waits for the server's threads. Routes stay registered and
    /// bind may be called again. Harmless when not bound.
    void stop();

private:
    struct Impl;
    const std::unique_ptr<Impl> impl;
};

} // namespace ktr
