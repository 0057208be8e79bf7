#pragma once

#include <Poco/Net/SocketAddress.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <optional>
#include <string_view>

namespace ktr {

/// The socket of one accepted connection. Every wait has an end: Poco's time-outs hold for a single
/// receive, so that a client could go on for ever with one byte at a time.
///
/// Thread safety: stop, interrupt and stopping from any thread, the rest from the owning thread.
class ClientSocket {
public:
    using Clock = std::chrono::steady_clock;

    /// Owns `descriptor`. `sendTime` is how long a client may take nothing of its answer.
    ClientSocket(int descriptor, Clock::duration sendTime);
    ~ClientSocket();
    ClientSocket(const ClientSocket&) = delete;
    ClientSocket& operator=(const ClientSocket&) = delete;

    /// Receives up to `size` bytes: how many, 0 at the end of the stream (a broken connection is an
    /// end too), nothing when `deadline` passed first.
    std::optional<std::size_t> receive(char* data, std::size_t size, Clock::time_point deadline);

    /// Sends all of `data`. Throws Poco::TimeoutException or Poco::IOException.
    void send(std::string_view data);

    /// The client sees the end of the stream; what it still sends can be received.
    void closeSending();

    /// Ends both directions; whoever waits in receive or send returns.
    void interrupt();

    /// From now on a client has a short time to take an answer.
    void stop() { stopped = true; }
    bool stopping() const { return stopped; }

    Poco::Net::SocketAddress peerAddress() const;
    Poco::Net::SocketAddress localAddress() const;

private:
    bool waitFor(short events, Clock::time_point deadline) const;

    const int descriptor;
    const Clock::duration sendTime;
    std::atomic<bool> stopped{false};
};

} // namespace ktr
