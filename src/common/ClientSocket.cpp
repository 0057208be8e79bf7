#include "ClientSocket.h"

#include "HttpFault.h"

#include <Poco/Exception.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <poll.h>
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

ClientSocket::ClientSocket(int descriptor, std::shared_ptr<OpenConnections> connections_,
                           const WebApiBasic::Limits& limits_)
    : StreamSocketImpl(descriptor), connections(std::move(connections_)), limits(limits_) {
    connections->add(descriptor);
}

ClientSocket::~ClientSocket() {
    ClientSocket::close();
}

void ClientSocket::close() {
    connections->remove(sockfd());
    StreamSocketImpl::close();
}

bool ClientSocket::awaitRequest() {
    return connections->enter(sockfd(), OpenConnections::Phase::idle);
}

bool ClientSocket::readHeader(std::size_t buffered) {
    inHeader = true;
    begun = buffered > 0;
    headerLeft = limits.headerBytes - std::min(buffered, limits.headerBytes);
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

/// How many bytes, 0 at the end of the stream (a broken connection is an end too), -1 when it takes
/// too long.
int ClientSocket::receiveUntil(Clock::time_point end, void* buffer, int length) {
    // a client that always has a byte ready is not to outrun its time
    while (Clock::now() < end) {
        const ssize_t got =
            ::recv(sockfd(), buffer, static_cast<std::size_t>(length), MSG_DONTWAIT);
        if (got >= 0)
            return static_cast<int>(got);
        if (!wouldBlock(errno))
            return 0;
        waitForSocket(sockfd(), POLLIN, end - Clock::now());
    }
    return -1;
}

int ClientSocket::receiveBytes(void* buffer, int length, int /*flags*/) {
    if (inHeader && headerLeft == 0)
        throw HttpFault(HTTPResponse::HTTP_REQUEST_HEADER_FIELDS_TOO_LARGE,
                        "the header is larger than " + std::to_string(limits.headerBytes) +
                            " bytes");
    if (inHeader)
        length = static_cast<int>(std::min(static_cast<std::size_t>(length), headerLeft));
    const int got = receiveUntil(deadline, buffer, length);
    if (got < 0)
        throw HttpFault(HTTPResponse::HTTP_REQUEST_TIMEOUT, "the request takes too long");
    if (got == 0 && begun)
        throw HttpFault(HTTPResponse::HTTP_BAD_REQUEST, "the request ends too early");
    begun = begun || got > 0;
    if (inHeader)
        headerLeft -= static_cast<std::size_t>(got);
    return got;
}

int ClientSocket::sendBytes(const void* buffer, int length, int flags) {
    const char* data = static_cast<const char*>(buffer);
    auto left = static_cast<std::size_t>(length);
    auto progress = Clock::now();
    while (left > 0) {
        if (stalled)
            throw Poco::TimeoutException("the client does not take its answer");
        const ssize_t sent = ::send(sockfd(), data, left, flags | MSG_DONTWAIT | MSG_NOSIGNAL);
        if (sent < 0 && !wouldBlock(errno))
            error();
        if (sent > 0) {
            data += sent;
            left -= static_cast<std::size_t>(sent);
            if (!stopping())
                progress = Clock::now();
            continue;
        }
        const Clock::duration patience =
            stopping() ? Clock::duration(kSendTimeAtStop) : duration(limits.headerTime);
        stalled = Clock::now() - progress >= patience;
        if (!stalled)
            waitForSocket(sockfd(), POLLOUT, kSendSlice);
    }
    return length;
}

bool ClientSocket::poll(const Poco::Timespan& timeout, int mode) {
    const short events = (mode & SELECT_WRITE) != 0 ? POLLOUT : POLLIN;
    return waitForSocket(sockfd(), events, duration(timeout));
}

void ClientSocket::linger() {
    ::shutdown(sockfd(), SHUT_WR);
    const auto end = Clock::now() + kLingerTime;
    std::array<char, 16'384> ignored;
    while (receiveUntil(end, ignored.data(), static_cast<int>(ignored.size())) > 0) {
    }
}

} // namespace ktr
