#include "ClientSocket.h"

#include "HttpFault.h"

#include <Poco/Exception.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <poll.h>
#include <string_view>
#include <sys/socket.h>
#include <utility>

namespace ktr {
namespace {

using Poco::Net::HTTPResponse;
using std::chrono::milliseconds;

// a stop has to be noticed while a client keeps an answer waiting
constexpr milliseconds kSendSlice{100};
constexpr milliseconds kSendTimeAtStop{1000};
constexpr milliseconds kLingerTime{500};

/// The type of the record with which every TLS client begins; no method of HTTP does.
constexpr unsigned char kTlsHandshake = 0x16;

bool wouldBlock(int code) {
    return code == EAGAIN || code == EINTR;
}

std::chrono::microseconds duration(const Poco::Timespan& span) {
    return std::chrono::microseconds(span.totalMicroseconds());
}

} // namespace

bool waitForSocket(int descriptor, short events, OpenConnections::Clock::duration timeout) {
    const auto left = std::chrono::ceil<milliseconds>(timeout).count();
    pollfd waited{descriptor, events, 0};
    return ::poll(&waited, 1, static_cast<int>(std::clamp<std::int64_t>(left, 0, 86'400'000))) > 0;
}

ClientSocket::ClientSocket(int descriptor, const Poco::Net::SocketAddress& peer_,
                           std::shared_ptr<OpenConnections> connections_,
                           const WebApiBasic::Limits& limits_)
    : StreamSocketImpl(descriptor), client(peer_), connections(std::move(connections_)),
      limits(limits_) {
    connections->add(descriptor);
}

ClientSocket::~ClientSocket() {
    ClientSocket::close();
}

Poco::Net::SocketAddress ClientSocket::address() {
    if (!here)
        here = StreamSocketImpl::address();
    return *here;
}

void ClientSocket::shutdownSend() {
    if (tls)
        tls->end();
    StreamSocketImpl::shutdownSend();
}

void ClientSocket::close() {
    tls.reset();
    connections->remove(sockfd());
    StreamSocketImpl::close();
}

// The connection still counts as idle, so that whoever says nothing, or nothing more, makes room.
ClientSocket::Opening ClientSocket::awaitOpening() {
    deadline = Clock::now() + duration(limits.headerTime);
    if (!awaitRequest() || !waitForSocket(sockfd(), POLLIN, deadline - Clock::now()))
        return Opening::nothing;
    unsigned char first = 0;
    if (::recv(sockfd(), &first, 1, MSG_PEEK | MSG_DONTWAIT) != 1)
        return Opening::nothing;
    return first == kTlsHandshake ? Opening::tls : Opening::other;
}

void ClientSocket::startTls(const Poco::Net::Context::Ptr& context) {
    tls.emplace(sockfd(), context);
    while (Clock::now() < deadline) {
        const Attempt attempt = tls->handshake();
        if (attempt.wanted == 0)
            return;
        waitForSocket(sockfd(), attempt.wanted, deadline - Clock::now());
    }
    throw Poco::TimeoutException("the handshake takes too long");
}

bool ClientSocket::awaitRequest() {
    return connections->enter(sockfd(), OpenConnections::Phase::idle);
}

bool ClientSocket::readHeader() {
    inHeader = true;
    header = {};
    begun = false;
    headerLeft = limits.headerBytes;
    deadline = Clock::now() + duration(limits.headerTime);
    return connections->enter(sockfd(), OpenConnections::Phase::reading);
}

bool ClientSocket::readBody() {
    inHeader = false;
    deadline = Clock::now() + duration(limits.headerTime);
    return connections->enter(sockfd(), OpenConnections::Phase::reading);
}

bool ClientSocket::answer() {
    return connections->enter(sockfd(), OpenConnections::Phase::answering);
}

/// A broken connection is an end of the stream too.
Attempt ClientSocket::receiveNow(void* buffer, int length) {
    if (tls) {
        try {
            return tls->receive(buffer, length);
        } catch (const Poco::Exception&) {
            return {};
        }
    }
    const ssize_t got = ::recv(sockfd(), buffer, static_cast<std::size_t>(length), MSG_DONTWAIT);
    if (got < 0 && wouldBlock(errno))
        return {0, POLLIN};
    return {static_cast<int>(std::max<ssize_t>(got, 0)), 0};
}

Attempt ClientSocket::sendNow(const void* buffer, std::size_t length, int flags) {
    if (tls)
        return tls->send(buffer, static_cast<int>(length));
    const ssize_t sent = ::send(sockfd(), buffer, length, flags | MSG_DONTWAIT | MSG_NOSIGNAL);
    if (sent < 0 && !wouldBlock(errno))
        error();
    return sent < 0 ? Attempt{0, POLLOUT} : Attempt{static_cast<int>(sent), 0};
}

/// How many bytes, 0 at the end of the stream, -1 when it takes too long.
int ClientSocket::receiveUntil(Clock::time_point end, void* buffer, int length) {
    // a client that always has a byte ready is not to outrun its time
    while (Clock::now() < end) {
        const Attempt attempt = receiveNow(buffer, length);
        if (attempt.wanted == 0)
            return attempt.bytes;
        waitForSocket(sockfd(), attempt.wanted, end - Clock::now());
    }
    return -1;
}

int ClientSocket::takeAhead(void* buffer, int length) {
    const std::size_t taken =
        ahead.copy(static_cast<char*>(buffer), static_cast<std::size_t>(length));
    ahead.erase(0, taken);
    return static_cast<int>(taken);
}

/// How many of the received bytes are the header's; the others are kept for later.
int ClientSocket::keepHeader(const char* data, int size) {
    const std::string_view got(data, static_cast<std::size_t>(size));
    const std::size_t own = header.find(got);
    ahead.insert(0, got.substr(own));
    headerLeft -= own;
    return static_cast<int>(own);
}

int ClientSocket::receiveBytes(void* buffer, int length, int /*flags*/) {
    if (inHeader && header.isReached())
        throw HttpFault(HTTPResponse::HTTP_BAD_REQUEST, "the header is malformed");
    if (inHeader && headerLeft == 0)
        throw HttpFault(HTTPResponse::HTTP_REQUEST_HEADER_FIELDS_TOO_LARGE,
                        "the header is larger than " + std::to_string(limits.headerBytes) +
                            " bytes");
    if (inHeader)
        length = static_cast<int>(std::min(static_cast<std::size_t>(length), headerLeft));
    const int got =
        ahead.empty() ? receiveUntil(deadline, buffer, length) : takeAhead(buffer, length);
    if (got < 0)
        throw HttpFault(HTTPResponse::HTTP_REQUEST_TIMEOUT, "the request takes too long");
    if (got == 0 && begun)
        throw HttpFault(HTTPResponse::HTTP_BAD_REQUEST, "the request ends too early");
    begun = begun || got > 0;
    return inHeader ? keepHeader(static_cast<const char*>(buffer), got) : got;
}

int ClientSocket::sendBytes(const void* buffer, int length, int flags) {
    const char* data = static_cast<const char*>(buffer);
    auto left = static_cast<std::size_t>(length);
    auto progress = Clock::now();
    while (left > 0) {
        if (stalled)
            throw Poco::TimeoutException("the client does not take its answer");
        const Attempt attempt = sendNow(data, left, flags);
        if (attempt.bytes > 0) {
            data += attempt.bytes;
            left -= static_cast<std::size_t>(attempt.bytes);
            if (!stopping())
                progress = Clock::now();
            continue;
        }
        const Clock::duration patience =
            stopping() ? Clock::duration(kSendTimeAtStop) : duration(limits.headerTime);
        stalled = Clock::now() - progress >= patience;
        if (stalled)
            continue;
        connections->enter(sockfd(), OpenConnections::Phase::sending);
        waitForSocket(sockfd(), attempt.wanted, kSendSlice);
    }
    return length;
}

bool ClientSocket::poll(const Poco::Timespan& timeout, int mode) {
    const bool forWriting = (mode & SELECT_WRITE) != 0;
    if (!forWriting && (!ahead.empty() || (tls && tls->pending())))
        return true;
    const short events = forWriting ? POLLOUT : POLLIN;
    return waitForSocket(sockfd(), events, duration(timeout));
}

void ClientSocket::linger() {
    tls.reset();
    ::shutdown(sockfd(), SHUT_WR);
    const auto end = Clock::now() + kLingerTime;
    std::array<char, 16'384> ignored;
    while (receiveUntil(end, ignored.data(), static_cast<int>(ignored.size())) > 0) {
    }
}

} // namespace ktr
