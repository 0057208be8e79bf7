#pragma once

#include "ktr/Export.h"

#include <Poco/Net/SocketAddress.h>
#include <Poco/Timespan.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

namespace Poco::Net {
class HTTPServerRequest;
class HTTPServerResponse;
} // namespace Poco::Net

namespace ktr {

/// The host's HTTP/1.1 router. Routes are exact paths, case-sensitive, without the query.
///
/// The router answers by itself, each time with a JSON body ({"code":-1,"msg":"..."}) and a log
/// line: an unknown route 404, a handler that throws 500, a malformed request or body 400, a header
/// or body that takes too long 408, a body or header over the limit 413 or 431, a request without
/// the token that requireToken asks for 401, a transfer encoding other than chunked 501, an HTTP
/// version other than 1.0 and 1.1 505. Every method goes to the handler, which may ask for it; of
/// the answer to a HEAD request only the header is sent.
///
/// The whole body is read before the handler runs, so request.stream() never waits for the client
/// and holds the body also where it was taken for parameters. An answer needs neither length nor
/// chunked encoding for the connection to stay open: without a length it goes out in chunks, and
/// only to an HTTP/1.0 client up to the end of the connection. The connection also ends after a
/// request that came in chunks. Without a content type an answer goes out as application/json.
///
/// Thread safety: all functions may be called from any thread, also while the server runs, but for
/// bind, discardWaiting, serve and stop, which belong to one thread.
class KTR_API WebApiBasic {
public:
    /// Request parameters by name, from the query and from the body, which its Content-Type tells
    /// to be application/x-www-form-urlencoded, multipart/form-data or application/json; any other
    /// body is left to the handler. Of a repeated name the first value counts; the body goes before
    /// the query. Files in a multipart form are left out. Of a JSON object the string members come
    /// as they are, numbers and booleans as their JSON text; null, objects and arrays are left out.
    /// More than 1000 fields in a form, or members in the object, are refused with 400.
    using Parameters = std::unordered_map<std::string, std::string>;

    /// Answers one request by writing to `response`. Called on a server thread, several at once,
    /// with no lock held. What it throws, of any type, is logged and answered with status 500, or
    /// by closing the connection if it has begun to send. A Content-Length that it sets is to be
    /// the answer's: more is cut off, and with less the client waits until the idle time is over.
    /// It may call apiRegist and apiUnregist.
    using Handler =
        std::function<void(Poco::Net::HTTPServerRequest& request,
                           Poco::Net::HTTPServerResponse& response, const Parameters& params)>;

    /// What a client may take of the server.
    struct Limits {
        /// Longest body of a request, 413 beyond it.
        std::size_t bodyBytes = 1'048'576;
        /// Poco's limits go on top: 100 fields, each with 256 bytes of name and 8192 of value.
        std::size_t headerBytes = 16'384;
        /// Open at a time, each with a thread of its own. Beyond it the connection that has been
        /// idle for longest makes room, of many connections several at once; with none idle, the
        /// one that has been sending its request for longest, or else the one that has been taking
        /// its answer for longest. While handlers work on all of them, clients wait in the listen
        /// backlog. As long as somebody waits, connections end with their next answer.
        int connections = 256;
        /// From the first byte of a request to the end of its header, and again for its body. Also
        /// how long a client may take nothing of its answer.
        Poco::Timespan headerTime{10, 0};
        /// How long an idle connection is kept open before a request.
        Poco::Timespan idleTime{15, 0};
    };

    /// The process-wide router. It is stopped when the process exits, if not before, and never
    /// destroyed.
    static std::shared_ptr<WebApiBasic> instance();

    WebApiBasic();
    /// Calls stop().
    ~WebApiBasic();
    WebApiBasic(const WebApiBasic&) = delete;
    WebApiBasic& operator=(const WebApiBasic&) = delete;

    /// Has `handler` answer requests for `route`, which starts with "/"; it replaces an earlier
    /// handler of the route, whose running calls go on. Throws Poco::InvalidArgumentException for
    /// an empty handler or a bad route. The path of a request is compared after percent-decoding.
    void apiRegist(std::string route, Handler handler);

    /// Takes the route's handler away and returns when no call of it, or of one that it replaced,
    /// is running any more and the handler is destroyed. A call that the calling thread itself is
    /// in is not waited for, nor, by a handler, one that is in apiUnregist too: such a handler is
    /// destroyed when its last call ends. An unknown route does nothing. A caller that holds a lock
    /// which a running handler waits for deadlocks.
    void apiUnregist(const std::string& route);

    /// Replaces the limits; takes effect with the next bind().
    void setLimits(const Limits& limits);

    /// Takes connections from these networks only, and from this machine's loopback addresses. Each
    /// is an IPv4 or IPv6 network such as "192.168.7.0/24" or "fd00::/8", or a single address. Any
    /// other client's connection is closed before a byte of it is read. IPv4 clients of a socket
    /// that listens on :: count as IPv4. An empty list, the default, lets everybody in. Throws
    /// Poco::InvalidArgumentException for an entry that is none of these; takes effect with the
    /// next bind().
    void allowNetworks(const std::vector<std::string>& networks);

    /// Asks whoever is not on a loopback address for `token` in each request ("Authorization:
    /// Bearer TOKEN"); without it a request is answered with 401 before its body is read, and the
    /// connection ends. From 32 to 4096 characters, printable ASCII without spaces; empty, the
    /// default, asks nobody. Throws Poco::InvalidArgumentException for any other; takes effect with
    /// the next bind().
    void requireToken(const std::string& token);

    /// Serves https, with TLS 1.2 and later, by a certificate (its chain may follow it) and its
    /// key, which must not be encrypted; PEM files both, read here and not again. The handshake has
    /// to be over within Limits::headerTime. Clients on a loopback address, as the device's own
    /// services are, may go on with plain HTTP; from elsewhere it is answered by closing the
    /// connection. Two empty names, the default, serve http. Throws Poco::InvalidArgumentException
    /// for files that cannot be used; takes effect with the next bind().
    void useTls(const std::string& certificateFile, const std::string& keyFile);

    /// Binds to `ip` (IPv4 or IPv6, or a host name) and `port` (0 picks a free one) and listens;
    /// connections wait in the backlog until serve(). Returns the bound address. Throws
    /// Poco::Net::NetException with the address in its text when it cannot be bound, and
    /// Poco::IllegalStateException when already bound.
    Poco::Net::SocketAddress bind(const std::string& ip = "127.0.0.1", unsigned short port = 0);

    /// Closes unread every connection that has come since bind(), whoever it is from, and returns
    /// how many there were. Those that come later wait for serve(). Throws
    /// Poco::IllegalStateException unless bound and not serving yet, Poco::SystemException when
    /// the process lacks a descriptor for it; some connections may then be left.
    std::size_t discardWaiting();

    /// Starts answering, on threads of its own. Throws Poco::IllegalStateException unless bound and
    /// not serving yet, Poco::SystemException when the process lacks a thread or descriptor for it.
    void serve();

    /// Stops answering: closes the listening socket and every connection that waits for its client,
    /// lets running handlers end and their answers go out (for one second to a client that does not
    /// take them), and waits for the server's threads. Routes stay registered and bind may be
    /// called again. Harmless when not bound. Must not be called by a handler.
    void stop();

private:
    struct Impl;
    const std::unique_ptr<Impl> impl;
};

} // namespace ktr
