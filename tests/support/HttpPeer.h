#pragma once

#include <Poco/Net/Context.h>
#include <Poco/Net/HTTPRequestHandler.h>
#include <Poco/Net/HTTPRequestHandlerFactory.h>
#include <Poco/Net/HTTPServer.h>
#include <Poco/Net/HTTPServerParams.h>
#include <Poco/Net/HTTPServerRequest.h>
#include <Poco/Net/HTTPServerResponse.h>
#include <Poco/Net/SecureServerSocket.h>
#include <Poco/Net/ServerSocket.h>
#include <Poco/StreamCopier.h>

#include <cstddef>
#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace ktr::test {

/// An HTTP or HTTPS server that keeps what it is posted, and answers what the test wants.
class HttpPeer {
public:
    struct Post {
        std::string method;
        std::string uri;
        std::string host;
        std::string contentType;
        std::string authorization;
        std::string body;
        std::streamsize contentLength = 0;
    };

    /// Makes the answer to one post; 200 and no body by default.
    using Answer = std::function<void(const Post&, Poco::Net::HTTPServerResponse&)>;

    static Answer status(int code) {
        return [code](const Post&, Poco::Net::HTTPServerResponse& response) {
            response.setStatusAndReason(static_cast<Poco::Net::HTTPResponse::HTTPStatus>(code));
        };
    }

    explicit HttpPeer(Answer answer_ = status(200))
        : HttpPeer(Poco::Net::ServerSocket(Poco::Net::SocketAddress("127.0.0.1", 0)), "http",
                   std::move(answer_)) {}

    HttpPeer(const std::string& certificateFile, const std::string& keyFile)
        : HttpPeer(
              Poco::Net::SecureServerSocket(
                  Poco::Net::SocketAddress("127.0.0.1", 0), 64,
                  new Poco::Net::Context(Poco::Net::Context::TLS_SERVER_USE, keyFile,
                                         certificateFile, "", Poco::Net::Context::VERIFY_NONE)),
              "https", status(200)) {}

    ~HttpPeer() { server.stopAll(true); }
    HttpPeer(const HttpPeer&) = delete;
    HttpPeer& operator=(const HttpPeer&) = delete;

    std::string url(const std::string& resource = "/",
                    const std::string& host = "127.0.0.1") const {
        return scheme + "://" + host + ":" + std::to_string(server.port()) + resource;
    }

    std::vector<Post> posts() const {
        const std::lock_guard<std::mutex> lock(mutex);
        return kept;
    }
    std::size_t count() const { return posts().size(); }

private:
    class Handler : public Poco::Net::HTTPRequestHandler {
    public:
        explicit Handler(HttpPeer& peer_) : peer(peer_) {}
        void handleRequest(Poco::Net::HTTPServerRequest& request,
                           Poco::Net::HTTPServerResponse& response) override {
            Post post{request.getMethod(),
                      request.getURI(),
                      request.getHost(),
                      request.getContentType(),
                      request.get("Authorization", ""),
                      {},
                      request.getContentLength()};
            Poco::StreamCopier::copyToString(request.stream(), post.body);
            {
                const std::lock_guard<std::mutex> lock(peer.mutex);
                peer.kept.push_back(post);
            }
            peer.answer(post, response);
            response.setContentLength(0);
            response.send();
        }

    private:
        HttpPeer& peer;
    };

    class Factory : public Poco::Net::HTTPRequestHandlerFactory {
    public:
        explicit Factory(HttpPeer& peer_) : peer(peer_) {}
        Poco::Net::HTTPRequestHandler*
        createRequestHandler(const Poco::Net::HTTPServerRequest&) override {
            return new Handler(peer);
        }

    private:
        HttpPeer& peer;
    };

    static Poco::Net::HTTPServerParams* makeParams() {
        auto* const params = new Poco::Net::HTTPServerParams;
        params->setKeepAlive(false);
        params->setThreadIdleTime(Poco::Timespan(0, 1000)); // the end does not wait for idle ones
        return params;
    }

    HttpPeer(const Poco::Net::ServerSocket& socket, std::string scheme_, Answer answer_)
        : scheme(std::move(scheme_)), answer(std::move(answer_)),
          server(new Factory(*this), socket, makeParams()) {
        server.start();
    }

    const std::string scheme;
    const Answer answer;
    mutable std::mutex mutex;
    std::vector<Post> kept;
    Poco::Net::HTTPServer server;
};

} // namespace ktr::test
