#pragma once

#include "ktr/common/WebApiBasic.h"

#include "support/RawClient.h"

#include <Poco/Net/HTTPServer.h>
#include <Poco/Net/SocketAddress.h>

#include <string>

namespace ktr::bench {

/// A report of a service, path and query.
constexpr const char* kReport = "/index/api/all/report?ip=127.0.0.1&port=18080&type=1"
                                "&guid=0c2f6b9e-5d0a-4c55-9f6b-3f1f0d3c7a11";

/// Sends the report and returns the answer. Throws Poco::Exception, also if it is refused.
std::string ask(test::RawClient& client);

/// The web API with the report route, as a host serves it.
class ReportServer {
public:
    ReportServer();

    Poco::Net::SocketAddress address() const { return bound; }

private:
    WebApiBasic api;
    Poco::Net::SocketAddress bound;
};

/// Poco's own server, which takes the query apart and answers the same text with the same header.
class BareServer {
public:
    BareServer();
    ~BareServer() { server.stopAll(true); }
    BareServer(const BareServer&) = delete;
    BareServer& operator=(const BareServer&) = delete;

    Poco::Net::SocketAddress address() const { return server.socket().address(); }

private:
    Poco::Net::HTTPServer server;
};

} // namespace ktr::bench
