#include "HttpConnection.h"

#include "HttpFault.h"
#include "HttpHeader.h"
#include "HttpRequest.h"
#include "HttpResponse.h"
#include "RequestParameters.h"
#include "RouteTable.h"

#include "ktr/common/Logger.h"

#include <Poco/Exception.h>
#include <Poco/Format.h>

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

void logRefusal(const HttpRequest& request, int status, const std::string& reason) {
    if (cachedLogger().warning())
        cachedLogger().warning(Poco::format("web api: %s %s from %s refused with %d: %s",
                                            request.getMethod(), printable(request.getURI()),
                                            request.clientAddress().toString(), status, reason),
                               __FILE__, __LINE__);
}

void logFailure(const std::string& path, const std::string& reason) {
    if (cachedLogger().error())
        cachedLogger().error(
            Poco::format("web api: handler of %s failed: %s", printable(path), reason), __FILE__,
            __LINE__);
}

void logEnd(const std::string& reason) {
    if (cachedLogger().debug())
        cachedLogger().debug("web api: connection ended: " + reason, __FILE__, __LINE__);
}

std::chrono::microseconds duration(const Poco::Timespan& span) {
    return std::chrono::microseconds(span.totalMicroseconds());
}

} // namespace

HttpConnection::HttpConnection(int descriptor, RouteTable& routes_,
                               const WebApiBasic::Limits& limits)
    : routes(routes_), socket(descriptor, duration(limits.headerTime)), reader(socket, limits) {}

void HttpConnection::run() noexcept {
    try {
        while (serveOne()) {
        }
    } catch (const Poco::Exception& e) {
        logEnd(e.displayText());
    } catch (const std::exception& e) {
        logEnd(e.what());
    }
    // the descriptor lives on until this object goes; the client is not to wait for that
    socket.interrupt();
}

void HttpConnection::stop() {
    const std::lock_guard<std::mutex> lock(mutex);
    stopLocked();
}

void HttpConnection::stopLocked() {
    stopping = true;
    socket.stop();
    if (phase != Phase::answering)
        socket.interrupt();
}

std::optional<ClientSocket::Clock::time_point> HttpConnection::idleSince() const {
    const std::lock_guard<std::mutex> lock(mutex);
    if (phase != Phase::idle || stopping)
        return std::nullopt;
    return idleStart;
}

bool HttpConnection::stopIfIdle() {
    const std::lock_guard<std::mutex> lock(mutex);
    if (phase != Phase::idle)
        return false;
    stopLocked();
    return true;
}

/// False when the connection is to end instead.
bool HttpConnection::enter(Phase next) {
    const std::lock_guard<std::mutex> lock(mutex);
    if (stopping)
        return false;
    phase = next;
    if (next == Phase::idle)
        idleStart = ClientSocket::Clock::now();
    return true;
}

/// Waits for a request and answers it; whether the connection may take another one.
bool HttpConnection::serveOne() {
    if (!reader.waitForRequest() || !enter(Phase::reading))
        return false;
    HttpRequest request(socket.peerAddress(), socket.localAddress());
    Target target;
    return readRequest(request, target) && enter(Phase::answering) && answer(request, target) &&
           enter(Phase::idle);
}

bool HttpConnection::readRequest(HttpRequest& request, Target& target) {
    try {
        reader.readHeader(request);
        target = parseTarget(request.getURI());
        request.setBody(reader.readBody(request));
        return true;
    } catch (const HttpFault& fault) {
        if (!socket.stopping())
            refuse(request, fault);
        return false;
    }
}

/// Answers a request that cannot be read to its end, so that the connection ends with it.
void HttpConnection::refuse(const HttpRequest& request, const HttpFault& fault) {
    logRefusal(request, fault.status, printable(fault.what()));
    HttpResponse response(socket, request, false);
    response.replaceByError(fault.status, printable(fault.what()));
    response.finish();
    socket.closeSending();
    reader.drain();
}

bool HttpConnection::answer(HttpRequest& request, const Target& target) {
    HttpResponse response(socket, request, wantsKeepAlive(request));
    request.setResponse(response);
    if (!handle(request, response, target))
        return false;
    response.finish();
    if (!response.failure().empty()) {
        logFailure(target.path, response.failure());
        if (response.replaceByError(HTTPResponse::HTTP_INTERNAL_SERVER_ERROR,
                                    "the answer could not be made, see the host's log"))
            response.finish();
    }
    return response.connectionUsable();
}

/// Makes the answer; false when it broke off with a part of it sent.
bool HttpConnection::handle(HttpRequest& request, HttpResponse& response, const Target& target) {
    RouteTable::Call call(routes, target.path);
    if (!call) {
        const std::string reason = "no such route: " + printable(target.path);
        logRefusal(request, HTTPResponse::HTTP_NOT_FOUND, reason);
        return response.replaceByError(HTTPResponse::HTTP_NOT_FOUND, reason);
    }
    WebApiBasic::Parameters params;
    try {
        params = requestParameters(target.query, request.getContentType(), request.body());
    } catch (const HttpFault& fault) {
        logRefusal(request, fault.status, printable(fault.what()));
        return response.replaceByError(fault.status, printable(fault.what()));
    }
    const auto failure = call.run(request, response, params);
    if (!failure)
        return true;
    logFailure(target.path, *failure);
    return response.replaceByError(HTTPResponse::HTTP_INTERNAL_SERVER_ERROR,
                                   "the handler of " + printable(target.path) +
                                       " failed, see the host's log");
}

} // namespace ktr
