#include "common/JsonServer.h"

#include <Poco/Exception.h>
#include <Poco/Net/HTTPRequestHandler.h>
#include <Poco/Net/HTTPRequestHandlerFactory.h>
#include <Poco/Net/HTTPServer.h>
#include <Poco/Net/HTTPServerParams.h>
#include <Poco/Net/HTTPServerRequest.h>
#include <Poco/Net/HTTPServerResponse.h>
#include <Poco/Net/ServerSocket.h>
#include <Poco/URI.h>

#include <algorithm>
#include <array>
#include <optional>
#include <sstream>
#include <utility>

namespace ktr::example {

namespace {

using Poco::Net::HTTPResponse;

constexpr std::size_t kMaxBody = std::size_t{64} * 1024;
// a client that is still sending would not see our answer
constexpr std::size_t kMaxDiscarded = std::size_t{1024} * 1024;
constexpr int kThreads = 8;
constexpr int kQueue = 64;

/// Nothing when it is longer than allowed.
std::optional<std::string> readBody(Poco::Net::HTTPServerRequest& request) {
    std::string body;
    std::size_t length = 0;
    std::array<char, 8192> piece{};
    std::istream& in = request.stream();
    while (in && length < kMaxDiscarded) {
        in.read(piece.data(), piece.size());
        const auto count = static_cast<std::size_t>(in.gcount());
        length += count;
        if (length <= kMaxBody)
            body.append(piece.data(), count);
    }
    if (length > kMaxBody)
        return std::nullopt;
    return body;
}

JsonAnswer call(const Endpoint& endpoint, const JsonRequest& request) {
    try {
        return endpoint(request);
    } catch (const Poco::Exception& e) {
        return failure(HTTPResponse::HTTP_INTERNAL_SERVER_ERROR, e.displayText());
    } catch (const std::exception& e) {
        return failure(HTTPResponse::HTTP_INTERNAL_SERVER_ERROR, e.what());
    }
}

class Handler : public Poco::Net::HTTPRequestHandler {
public:
    explicit Handler(const Endpoints& endpoints_) : endpoints(endpoints_) {}

    void handleRequest(Poco::Net::HTTPServerRequest& request,
                       Poco::Net::HTTPServerResponse& response) override {
        const JsonAnswer answer = answerTo(request, response);
        std::ostringstream text;
        answer.json.stringify(text);
        const std::string body = text.str();
        response.setStatusAndReason(static_cast<HTTPResponse::HTTPStatus>(answer.status));
        response.setContentType("application/json");
        response.sendBuffer(body.data(), body.size());
    }

private:
    JsonAnswer answerTo(Poco::Net::HTTPServerRequest& request,
                        Poco::Net::HTTPServerResponse& response) const {
        if (request.getExpectContinue())
            response.sendContinue();
        auto body = readBody(request);
        if (!body) {
            response.setKeepAlive(false);
            return failure(HTTPResponse::HTTP_REQUEST_ENTITY_TOO_LARGE,
                           "body is longer than " + std::to_string(kMaxBody) + " bytes");
        }
        try {
            return dispatch(request.getMethod(), Poco::URI(request.getURI()), std::move(*body));
        } catch (const Poco::Exception& e) {
            return failure(HTTPResponse::HTTP_BAD_REQUEST, "malformed request: " + e.message());
        }
    }

    JsonAnswer dispatch(const std::string& method, const Poco::URI& uri, std::string body) const {
        const auto endpoint = endpoints.find(method + " " + uri.getPath());
        if (endpoint == endpoints.end())
            return unknown(uri.getPath());
        JsonRequest request;
        request.body = std::move(body);
        for (const auto& [name, value] : uri.getQueryParameters())
            request.query.emplace(name, value);
        return call(endpoint->second, request);
    }

    JsonAnswer unknown(const std::string& path) const {
        const bool known = std::any_of(endpoints.begin(), endpoints.end(), [&](const auto& entry) {
            return entry.first.substr(entry.first.find(' ') + 1) == path;
        });
        if (known)
            return failure(HTTPResponse::HTTP_METHOD_NOT_ALLOWED, "method not allowed: " + path);
        return failure(HTTPResponse::HTTP_NOT_FOUND, "no such path: " + path);
    }

    const Endpoints& endpoints;
};

class Factory : public Poco::Net::HTTPRequestHandlerFactory {
public:
    explicit Factory(Endpoints endpoints_) : endpoints(std::move(endpoints_)) {}
    Poco::Net::HTTPRequestHandler*
    createRequestHandler(const Poco::Net::HTTPServerRequest&) override {
        return new Handler(endpoints);
    }

private:
    const Endpoints endpoints;
};

Poco::Net::HTTPServerParams::Ptr serverParams() {
    Poco::Net::HTTPServerParams::Ptr params(new Poco::Net::HTTPServerParams);
    params->setMaxThreads(kThreads);
    params->setMaxQueued(kQueue);
    params->setTimeout(Poco::Timespan(5, 0));
    params->setKeepAliveTimeout(Poco::Timespan(5, 0));
    // idle threads are waited for at the end
    params->setThreadIdleTime(Poco::Timespan(0, 100000));
    return params;
}

} // namespace

JsonAnswer success() {
    JsonAnswer answer{HTTPResponse::HTTP_OK, Poco::JSON::Object(Poco::JSON_PRESERVE_KEY_ORDER)};
    answer.json.set("code", 0);
    answer.json.set("msg", "success");
    return answer;
}

JsonAnswer failure(int status, const std::string& reason) {
    JsonAnswer answer{status, Poco::JSON::Object(Poco::JSON_PRESERVE_KEY_ORDER)};
    answer.json.set("code", -1);
    answer.json.set("msg", reason);
    return answer;
}

JsonServer::JsonServer(Endpoints endpoints)
    : threads(1, kThreads),
      server(std::make_unique<Poco::Net::HTTPServer>(
          new Factory(std::move(endpoints)), threads,
          Poco::Net::ServerSocket(Poco::Net::SocketAddress("127.0.0.1", 0)), serverParams())) {
    server->start();
}

JsonServer::~JsonServer() {
    server->stopAll(true);
    threads.joinAll();
}

unsigned short JsonServer::port() const {
    return server->port();
}

} // namespace ktr::example
