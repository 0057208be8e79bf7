#pragma once

#include <Poco/JSON/Object.h>
#include <Poco/ThreadPool.h>

#include <functional>
#include <map>
#include <memory>
#include <string>

namespace Poco::Net {
class HTTPServer;
}

namespace ktr::example {

struct JsonRequest {
    /// Of a repeated name the first value counts.
    std::map<std::string, std::string> query;
    std::string body;
};

struct JsonAnswer {
    int status = 200;
    Poco::JSON::Object json;
};

/// {"code":0,"msg":"success"}, to which an endpoint adds what it has to say.
JsonAnswer success();
/// {"code":-1,"msg":reason} with `status`.
JsonAnswer failure(int status, const std::string& reason);

/// Answers one request; called on server threads, several at once. What it throws is answered with
/// status 500.
using Endpoint = std::function<JsonAnswer(const JsonRequest&)>;
/// By method and path: "GET /reading".
using Endpoints = std::map<std::string, Endpoint>;

/// A small HTTP server on a free port of 127.0.0.1 that speaks JSON. Answers 404 for an unknown
/// path, 405 for a known one with another method, 413 for a body above 64 KiB.
class JsonServer {
public:
    /// Throws Poco::Net::NetException when no port can be had.
    explicit JsonServer(Endpoints endpoints);
    /// Cuts open connections and waits for running endpoints.
    ~JsonServer();
    JsonServer(const JsonServer&) = delete;
    JsonServer& operator=(const JsonServer&) = delete;

    unsigned short port() const;

private:
    Poco::ThreadPool threads;
    std::unique_ptr<Poco::Net::HTTPServer> server;
};

} // namespace ktr::example
