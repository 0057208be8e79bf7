#include "common/HttpClient.h"

#include <Poco/Exception.h>
#include <Poco/Net/HTTPClientSession.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/Net/IPAddress.h>
#include <Poco/Net/SocketAddress.h>
#include <Poco/Net/StreamSocket.h>
#include <Poco/Timestamp.h>

#include <algorithm>
#include <array>
#include <istream>
#include <ostream>
#include <utility>

#include <sys/socket.h>
#include <unistd.h>

namespace ktr::example {

using Poco::Net::HTTPRequest;

namespace {

constexpr std::size_t kMaxAnswer = std::size_t{1024} * 1024;

/// Reads to the end in pieces, so that a peer that drips cannot hold us beyond the deadline.
std::string readBody(std::istream& in, const Poco::Timespan& timeout) {
    const Poco::Timestamp begin;
    std::string body;
    std::array<char, 8192> piece{};
    while (in.peek() != std::istream::traits_type::eof()) {
        const auto ready = std::clamp<std::streamsize>(in.rdbuf()->in_avail(), 1, piece.size());
        in.read(piece.data(), ready);
        body.append(piece.data(), static_cast<std::size_t>(in.gcount()));
        if (body.size() > kMaxAnswer)
            throw Poco::DataException("answer is longer than 1 MiB");
        if (begin.isElapsed(timeout.totalMicroseconds()))
            throw Poco::TimeoutException("answer takes too long");
    }
    return body;
}

} // namespace

/// Lets abort() reach a connection through a descriptor that nobody else closes meanwhile.
class HttpClient::OpenConnection {
public:
    OpenConnection(HttpClient& client_, Poco::Net::StreamSocket& socket)
        : client(client_), descriptor(::dup(socket.impl()->sockfd())) {
        if (descriptor < 0)
            throw Poco::IOException("no file descriptor left for a connection");
        const std::lock_guard<std::mutex> lock(client.mutex);
        if (client.aborted) {
            ::close(descriptor);
            throw Poco::IOException("request aborted");
        }
        client.openConnections.insert(descriptor);
    }
    ~OpenConnection() {
        const std::lock_guard<std::mutex> lock(client.mutex);
        client.openConnections.erase(descriptor);
        ::close(descriptor);
    }
    OpenConnection(const OpenConnection&) = delete;
    OpenConnection& operator=(const OpenConnection&) = delete;

private:
    HttpClient& client;
    const int descriptor;
};

HttpClient::HttpClient(std::string ip_, unsigned short port_, const Poco::Timespan& timeout_)
    : ip(std::move(ip_)), port(port_), timeout(timeout_) {}

HttpAnswer HttpClient::get(const std::string& target) {
    HTTPRequest request(HTTPRequest::HTTP_GET, target, HTTPRequest::HTTP_1_1);
    return exchange(request, {});
}

HttpAnswer HttpClient::post(const std::string& target, const std::string& body) {
    HTTPRequest request(HTTPRequest::HTTP_POST, target, HTTPRequest::HTTP_1_1);
    request.setContentType("application/json");
    request.setContentLength(static_cast<std::streamsize>(body.size()));
    return exchange(request, body);
}

HttpAnswer HttpClient::exchange(HTTPRequest& request, const std::string& body) {
    {
        const std::lock_guard<std::mutex> lock(mutex);
        if (aborted)
            throw Poco::IOException("request aborted");
    }
    const Poco::Net::SocketAddress peer(Poco::Net::IPAddress::parse(ip), port);
    Poco::Net::StreamSocket socket;
    socket.connect(peer, timeout);
    socket.setNoDelay(true);
    socket.setSendTimeout(timeout);
    socket.setReceiveTimeout(timeout);
    const OpenConnection open(*this, socket);

    Poco::Net::HTTPClientSession session(socket);
    request.setHost(peer.toString());
    request.setKeepAlive(false);
    session.sendRequest(request) << body << std::flush;
    Poco::Net::HTTPResponse response;
    std::istream& in = session.receiveResponse(response);
    HttpAnswer answer;
    answer.body = readBody(in, timeout);
    answer.status = response.getStatus();
    return answer;
}

void HttpClient::abort() {
    const std::lock_guard<std::mutex> lock(mutex);
    aborted = true;
    for (const int descriptor : openConnections)
        ::shutdown(descriptor, SHUT_RDWR);
}

std::string HttpClient::address() const {
    return ip + ":" + std::to_string(port);
}

} // namespace ktr::example
