#pragma once

#include "ClientSocket.h"

#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPServerResponse.h>

#include <cstdint>
#include <optional>
#include <ostream>
#include <streambuf>
#include <string>

namespace ktr {

/// An answer that keeps its connection whatever its writer says of its length: a short body is held
/// back until its end and goes out with a Content-Length, a long or flushed one in chunks (closing
/// the connection where the client knows only HTTP/1.0). Without a content type it is JSON.
class HttpResponse : public Poco::Net::HTTPServerResponse {
public:
    HttpResponse(ClientSocket& socket, const Poco::Net::HTTPRequest& request, bool keepAlive);

    void sendContinue() override;
    std::ostream& send() override;
    void sendFile(const std::string& path, const std::string& mediaType) override;
    void sendBuffer(const void* data, std::size_t size) override;
    void redirect(const std::string& uri, HTTPStatus status) override;
    void requireAuthentication(const std::string& realm) override;
    bool sent() const override;

    /// Sends what is held back. Of an answer that was never begun the header goes out.
    void finish();

    /// Replaces an answer of which nothing has gone out by an error; false when some of it has.
    bool replaceByError(HTTPStatus status, const std::string& message);

    /// Whether the client knows where the answer ended and another request may follow.
    bool connectionUsable() const;

    /// Why the answer is not whole; empty when it is.
    const std::string& failure() const { return trouble; }

private:
    class Body : public std::streambuf {
    public:
        explicit Body(HttpResponse& owner_) : owner(owner_) {}

    protected:
        int_type overflow(int_type c) override;
        std::streamsize xsputn(const char* data, std::streamsize size) override;
        int sync() override;

    private:
        HttpResponse& owner;
    };

    enum class Framing { none, length, chunks, close };

    void add(const char* data, std::size_t size);
    void pass(bool last);
    void passPending(bool last);
    void beginWire(bool last);
    std::string frame(bool last);
    bool withoutBody() const;

    ClientSocket& socket;
    const bool head;
    Body body{*this};
    std::optional<std::ostream> stream;
    std::string pending;
    std::string trouble;
    bool onWire = false;
    bool finished = false;
    Framing framing = Framing::none;
    /// What Content-Length promised and has not gone out yet.
    std::uint64_t owed = 0;
};

} // namespace ktr
