#pragma once

#include <Poco/Net/ServerSocket.h>
#include <Poco/Net/SocketAddress.h>
#include <Poco/Net/StreamSocket.h>
#include <Poco/Timespan.h>

#include <cstdint>

namespace ktr::test {

/// A port of the loopback address on which nobody listens.
inline std::uint16_t freePort() {
    const Poco::Net::ServerSocket probe(Poco::Net::SocketAddress("127.0.0.1", 0));
    return probe.address().port();
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
