#include "Servers.h"

#include "ktr/MSManager.h"
#include "ktr/common/JsonAnswer.h"

#include <Poco/Exception.h>
#include <Poco/Net/HTTPRequestHandler.h>
#include <Poco/Net/HTTPRequestHandlerFactory.h>
#include <Poco/Net/HTTPServerParams.h>
#include <Poco/Net/HTTPServerRequest.h>
#include <Poco/Net/HTTPServerResponse.h>
#include <Poco/Net/ServerSocket.h>
#include <Poco/URI.h>

#include <benchmark/benchmark.h>

namespace ktr::bench {
namespace {

const std::string kPath = "/index/api/all/report";

class Answer : public Poco::Net::HTTPRequestHandler {
public:
    void handleRequest(Poco::Net::HTTPServerRequest& request,
                       Poco::Net::HTTPServerResponse& response) override {
        benchmark::DoNotOptimize(Poco::URI(request.getURI()).getQueryParameters());
        response.setContentType("application/json");
        response.setChunkedTransferEncoding(true);
        response.send() << text;
    }

private:
    const std::string& text = accepted();

    static const std::string& accepted() {
        static const std::string text = makeJsonDefault(0, "success");
        return text;
    }
};

class AnswerFactory : public Poco::Net::HTTPRequestHandlerFactory {
public:
    Poco::Net::HTTPRequestHandler*
    createRequestHandler(const Poco::Net::HTTPServerRequest& /*request*/) override {
        return new Answer;
    }
};

/// What a client may take of the one server, it may take of the other.
Poco::Net::HTTPServerParams* sameLimits() {
    const WebApiBasic::Limits limits;
    auto* const params = new Poco::Net::HTTPServerParams;
    params->setMaxThreads(limits.connections);
    params->setMaxQueued(limits.connections);
    params->setKeepAlive(true);
    params->setMaxKeepAliveRequests(0);
    params->setTimeout(limits.headerTime);
    params->setKeepAliveTimeout(limits.idleTime);
    return params;
}

/// Never destroyed: a server's threads may outlive it for a moment.
Poco::ThreadPool& bareThreads() {
    static auto* const threads =
        new Poco::ThreadPool("bare", 1, 2 * WebApiBasic::Limits().connections);
    return *threads;
}

} // namespace

std::string ask(test::RawClient& client) {
    client.send(std::string("GET ") + kReport + " HTTP/1.1\r\nHost: localhost\r\n\r\n");
    std::string answer = client.answer();
    if (answer.rfind("HTTP/1.1 200", 0) != 0)
        throw Poco::RuntimeException("the report is refused: " + answer);
    return answer;
}

// by hand, as MSManager::start does, for that would look for services to launch
ReportServer::ReportServer() {
    api.apiRegist(kPath,
                  [](Poco::Net::HTTPServerRequest& request, Poco::Net::HTTPServerResponse& response,
                     const WebApiBasic::Parameters& parameters) {
                      MSManager::instance().reportProcess(request, response, parameters);
                  });
    bound = api.bind();
    api.serve();
}

BareServer::BareServer()
    : server(new AnswerFactory, bareThreads(),
             Poco::Net::ServerSocket(Poco::Net::SocketAddress("127.0.0.1", 0)), sameLimits()) {
    server.start();
}

} // namespace ktr::bench
