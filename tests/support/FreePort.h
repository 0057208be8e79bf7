#pragma once

#include <Poco/Net/NetException.h>
#include <Poco/Net/ServerSocket.h>
#include <Poco/Net/SocketAddress.h>
#include <Poco/Net/StreamSocket.h>
#include <Poco/Timespan.h>

#include <cstdint>
#include <random>

namespace ktr::test {

/// A port of the loopback address on which nobody listens. It is below those that the system gives
/// to others by itself, so that it stays free also while its user is away for a while.
inline std::uint16_t freePort() {
    std::random_device random;
    std::uniform_int_distribution<std::uint16_t> choice(20'000, 32'000);
    for (;;) {
        const std::uint16_t port = choice(random);
        try {
            const Poco::Net::ServerSocket probe(Poco::Net::SocketAddress("127.0.0.1", port));
            return port;
        } catch (const Poco::Net::NetException&) {
            // taken: another one
        }
    }
}

inline bool isListening(std::uint16_t port) {
    try {
        Poco::Net::StreamSocket socket;
        socket.connect(Poco::Net::SocketAddress("127.0.0.1", port), Poco::Timespan(1, 0));
        return true;
    } catch (const Poco::Exception&) {
        return false;
    }
}

} // namespace ktr::test
