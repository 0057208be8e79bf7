#include "HttpConnection.h"

#include "HttpRequest.h"
#include "HttpResponse.h"
#include "HttpSession.h"
#include "RequestParameters.h"
#include "RouteTable.h"

#include "ktr/common/JsonAnswer.h"
#include "ktr/common/Logger.h"

#include <Poco/Exception.h>
#include <Poco/Format.h>
#include <Poco/Net/NetException.h>
#include <Poco/Timestamp.h>

#include <algorithm>

namespace ktr {
namespace {

using Poco::Net::HTTPResponse;

constexpr std::size_t kMaxQuoted = 200;

/// A client's text as it may stand in a log line or an answer.
std::string printable(std::string text) {
    if (text.size() > kMaxQuoted) {
        text.resize(kMaxQuoted);
        text += "...";
    }
    std::replace_if(
        text.begin(), text.end(), [](char c) { return c < 0x20 || c > 0x7e; }, '?');
    return text;
}

void logFailure(const std::string& what, const std::string& reason) {
    if (cachedLogger().error())
        cachedLogger().error(Poco::format("web api: %s failed: %s", what, reason), __FILE__,
                             __LINE__);
}

void logEnd(const Poco::Exception& reason) {
    if (cachedLogger().debug())
        cachedLogger().debug("web api: connection ended: " + reason.displayText(), __FILE__,
                             __LINE__);
}

/// Answers by an error of the router's own.
void sendError(HttpResponse& response, HTTPResponse::HTTPStatus status, const std::string& text) {
    const std::string body = makeJsonDefault(-1, text);
    response.setDate(Poco::Timestamp());
    response.setStatusAndReason(status);
    response.setContentType("application/json");
    if (status == HTTPResponse::HTTP_UNAUTHORIZED)
        response.set("WWW-Authenticate", "Bearer");
    response.setContentLength(static_cast<std::streamsize>(body.size()));
    response.send() << body;
}

/// What a failure to read a request is to be answered with. Throws it on when it is the
/// connection's that failed.
HttpFault faultOf(const Poco::Exception& error) {
    if (const auto* fault = dynamic_cast<const HttpFault*>(&error))
        return *fault;
    const auto* malformed = dynamic_cast<const Poco::Net::MessageException*>(&error);
    if (malformed == nullptr && dynamic_cast<const Poco::Net::NetException*>(&error) != nullptr)
        error.rethrow();
    const std::string& text = error.message();
    const bool limit = text.rfind("Field name too long", 0) == 0 ||
                       text.rfind("Field value too long", 0) == 0 ||
                       text.rfind("Too many header fields", 0) == 0;
    return {limit ? HTTPResponse::HTTP_REQUEST_HEADER_FIELDS_TOO_LARGE
                  : HTTPResponse::HTTP_BAD_REQUEST,
            "the header is malformed: " + text};
}

} // namespace

HttpConnection::HttpConnection(const Poco::Net::StreamSocket& socket_, Server& server_)
    : TCPServerConnection(socket_), server(server_), limits(server.settings.limits),
      client(dynamic_cast<ClientSocket&>(*socket().impl())) {
    params->setTimeout(limits.idleTime);
    params->setKeepAliveTimeout(limits.idleTime);
}

void HttpConnection::run() {
    HttpSession session(socket(), params);
    try {
        if (!secure())
            return;
        while (client.awaitRequest() && session.hasMoreRequests() && serveOne(session)) {
        }
    } catch (const Poco::Exception& e) {
        logEnd(e);
    }
}

/// Whether the connection may go on: with TLS where the server has a certificate.
bool HttpConnection::secure() {
    if (!server.settings.tls)
        return true;
    const std::string peer = client.peer().toString();
    switch (client.awaitOpening()) {
    case ClientSocket::Opening::nothing:
        return false;
    case ClientSocket::Opening::other:
        // the device's own services know the host's port and nothing of certificates
        if (isLoopback(client.peer().host()))
            return true;
        server.handshakeFailures.warning("web api: " + peer +
                                         " closed: it does not speak TLS; use https");
        return false;
    case ClientSocket::Opening::tls:
        break;
    }
    try {
        client.startTls(server.settings.tls);
        return true;
    } catch (const Poco::Exception& e) {
        if (!client.stopping())
            server.handshakeFailures.warning("web api: TLS handshake with " + peer +
                                             " failed: " + e.displayText());
        return false;
    }
}

/// Whether the connection may take another request.
bool HttpConnection::serveOne(HttpSession& session) {
    subject = "a request";
    try {
        if (!client.readHeader() || !session.skipLineBreaks())
            return false;
        HttpResponse response(session);
        HttpRequest request(response, session, *params);
        subject = printable(request.getMethod() + " " + request.getURI());
        // the socket gives the header and no more: Poco has taken it to end before its empty line
        if (session.buffered() > 0)
            throw HttpFault(HTTPResponse::HTTP_BAD_REQUEST, "a header line is malformed");
        request.check();
        authorize(request);
        response.setVersion(request.getVersion());
        const Target target(request.getURI());
        if (!client.readBody())
            return false;
        request.readBody(limits.bodyBytes);
        if (!client.answer() || !answer(request, response, target))
            return false;
        session.setKeepAlive(response.getKeepAlive());
        // the handler is through, so that all that is left of the answer is one piece
        if (response.tellsItsEnd())
            session.hold();
    } catch (const Poco::Exception& e) {
        // Poco's streams and its parser hide what the socket said
        refuse(session, faultOf(session.networkException() ? *session.networkException() : e));
        return false;
    }
    // the last of the answer was written when it was destroyed
    session.flush();
    if (session.networkException()) {
        if (client.isEnded())
            logMadeRoom();
        else
            logFailure(subject, session.networkException()->displayText());
        return false;
    }
    return true;
}

void HttpConnection::authorize(const HttpRequest& request) const {
    if (!server.settings.access.authorizes(client.peer().host(), request))
        throw HttpFault(
            HTTPResponse::HTTP_UNAUTHORIZED,
            "clients from outside must send the host's token: Authorization: Bearer TOKEN");
}

/// Answers a request that cannot be read to its end, so that the connection ends with it.
void HttpConnection::refuse(HttpSession& session, const HttpFault& fault) {
    if (client.stopping())
        return;
    if (client.isEnded()) {
        logMadeRoom();
        return;
    }
    logRefusal(fault);
    {
        HttpResponse response(session);
        response.setVersion(HTTPResponse::HTTP_1_1);
        response.setKeepAlive(false);
        sendError(response, fault.status(), printable(fault.message()));
    }
    client.linger();
}

void HttpConnection::logRefusal(const HttpFault& fault) {
    if (!cachedLogger().warning())
        return;
    const std::string text =
        Poco::format("web api: %s from %s refused with %d: %s", subject, client.peer().toString(),
                     fault.code(), printable(fault.message()));
    if (fault.status() == HTTPResponse::HTTP_UNAUTHORIZED)
        server.unauthorized.warning(text);
    else
        cachedLogger().warning(text, __FILE__, __LINE__);
}

void HttpConnection::logMadeRoom() {
    server.madeRoom.warning("web api: " + subject + " from " + client.peer().toString() +
                            " broken off: all " + std::to_string(limits.connections) +
                            " connections are taken, and this one kept the server waiting");
}

/// False when the answer broke off.
bool HttpConnection::answer(HttpRequest& request, HttpResponse& response, const Target& target) {
    response.setDate(Poco::Timestamp());
    // a client that always has a next request is not to keep out those that wait
    response.setKeepAlive(request.wantsKeepAlive() && !client.isCrowded());
    response.setContentType("application/json");
    try {
        return handle(request, response, target);
    } catch (const HttpFault& fault) {
        logRefusal(fault);
        sendError(response, fault.status(), printable(fault.message()));
        return true;
    }
}

bool HttpConnection::handle(HttpRequest& request, HttpResponse& response, const Target& target) {
    RouteTable::Call call(server.routes, target.path);
    if (!call)
        throw HttpFault(HTTPResponse::HTTP_NOT_FOUND, "no such route: " + printable(target.path));
    const auto parameters =
        requestParameters(target.query, request.getContentType(), request.body());
    const auto failure = call.run(request, response, parameters);
    if (failure) {
        logFailure("handler of " + printable(target.path), *failure);
        if (response.sent()) {
            // the client is not to take the part for the whole
            socket().shutdown();
            return false;
        }
        const bool keepAlive = response.getKeepAlive();
        response.clear();
        response.setKeepAlive(keepAlive);
        sendError(response, HTTPResponse::HTTP_INTERNAL_SERVER_ERROR,
                  "the handler of " + printable(target.path) + " failed, see the host's log");
    } else if (!response.sent()) {
        response.setContentLength(0);
        response.send();
    }
    return true;
}

} // namespace ktr
