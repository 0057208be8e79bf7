#include "ClientSocket.h"

#include <Poco/Exception.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>

namespace ktr {
namespace {

using std::chrono::milliseconds;

// a stop has to be noticed while a client keeps an answer waiting
constexpr milliseconds kSendSlice{100};
constexpr milliseconds kSendTimeAtStop{1000};

bool wouldBlock(int code) {
    return code == EAGAIN || code == EINTR;
}

} // namespace

ClientSocket::ClientSocket(int descriptor_, Clock::duration sendTime_)
    : descriptor(descriptor_), sendTime(sendTime_) {}

ClientSocket::~ClientSocket() {
    ::close(descriptor);
}

bool ClientSocket::waitFor(short events, Clock::time_point deadline) const {
    for (;;) {
        const auto left = std::chrono::ceil<milliseconds>(deadline - Clock::now()).count();
        pollfd waited{descriptor, events, 0};
        const int timeout = static_cast<int>(std::clamp<std::int64_t>(left, 0, 60'000));
        const int ready = ::poll(&waited, 1, timeout);
        if (ready > 0)
            return true;
        if (ready == 0 && left <= timeout)
            return false;
        if (ready < 0 && errno != EINTR)
            throw Poco::IOException(std::string("poll: ") + std::strerror(errno));
    }
}

std::optional<std::size_t> ClientSocket::receive(char* data, std::size_t size,
                                                 Clock::time_point deadline) {
    for (;;) {
        const ssize_t got = ::recv(descriptor, data, size, MSG_DONTWAIT);
        if (got >= 0)
            return static_cast<std::size_t>(got);
        if (!wouldBlock(errno))
            return 0;
        if (!waitFor(POLLIN, deadline))
            return std::nullopt;
    }
}

void ClientSocket::send(std::string_view data) {
    auto deadline = Clock::now() + sendTime;
    bool hurried = false;
    while (!data.empty()) {
        const ssize_t taken =
            ::send(descriptor, data.data(), data.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        if (taken < 0 && !wouldBlock(errno))
            throw Poco::IOException(std::strerror(errno));
        const auto now = Clock::now();
        if (taken > 0) {
            data.remove_prefix(static_cast<std::size_t>(taken));
            if (!hurried)
                deadline = now + sendTime;
        }
        if (stopped && !hurried) {
            hurried = true;
            deadline = std::min(deadline, now + kSendTimeAtStop);
        }
        if (data.empty() || waitFor(POLLOUT, std::min(deadline, now + kSendSlice)))
            continue;
        if (Clock::now() >= deadline)
            throw Poco::TimeoutException("the client does not take its answer");
    }
}

void ClientSocket::closeSending() {
    ::shutdown(descriptor, SHUT_WR);
}

void ClientSocket::interrupt() {
    ::shutdown(descriptor, SHUT_RDWR);
}

Poco::Net::SocketAddress ClientSocket::peerAddress() const {
    sockaddr_storage address{};
    socklen_t length = sizeof(address);
    if (::getpeername(descriptor, reinterpret_cast<sockaddr*>(&address), &length) != 0)
        return {};
    return {reinterpret_cast<sockaddr*>(&address), length};
}

Poco::Net::SocketAddress ClientSocket::localAddress() const {
    sockaddr_storage address{};
    socklen_t length = sizeof(address);
    if (::getsockname(descriptor, reinterpret_cast<sockaddr*>(&address), &length) != 0)
        return {};
    return {reinterpret_cast<sockaddr*>(&address), length};
}

} // namespace ktr
