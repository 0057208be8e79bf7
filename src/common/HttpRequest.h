#pragma once

#include <Poco/MemoryStream.h>
#include <Poco/Net/HTTPServerParams.h>
#include <Poco/Net/HTTPServerRequest.h>
#include <Poco/Net/HTTPServerResponse.h>
#include <Poco/Net/SocketAddress.h>

#include <optional>
#include <string>
#include <utility>

namespace ktr {

/// A request whose body has been read to its end, so that no handler waits for a client and an
/// unread body cannot be taken for the next request.
class HttpRequest : public Poco::Net::HTTPServerRequest {
public:
    HttpRequest(const Poco::Net::SocketAddress& client_, const Poco::Net::SocketAddress& server_)
        : client(client_), server(server_), params(new Poco::Net::HTTPServerParams) {
        // what an answer to an unreadable request line goes by
        setVersion(HTTP_1_1);
    }

    void setBody(std::string text) {
        content = std::move(text);
        reader.emplace(content.data(), static_cast<std::streamsize>(content.size()));
    }
    const std::string& body() const { return content; }

    void setResponse(Poco::Net::HTTPServerResponse& answer_) { answer = &answer_; }

    std::istream& stream() override { return *reader; }
    const Poco::Net::SocketAddress& clientAddress() const override { return client; }
    const Poco::Net::SocketAddress& serverAddress() const override { return server; }
    const Poco::Net::HTTPServerParams& serverParams() const override { return *params; }
    Poco::Net::HTTPServerResponse& response() const override { return *answer; }
    bool secure() const override { return false; }

private:
    const Poco::Net::SocketAddress client;
    const Poco::Net::SocketAddress server;
    const Poco::Net::HTTPServerParams::Ptr params;
    std::string content;
    std::optional<Poco::MemoryInputStream> reader;
    Poco::Net::HTTPServerResponse* answer = nullptr;
};

} // namespace ktr
