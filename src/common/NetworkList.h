#pragma once

#include <Poco/Net/IPAddress.h>

#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace ktr {

/// Networks in CIDR notation.
///
/// Thread safety: never changes, so any thread may ask it.
class NetworkList {
public:
    NetworkList() = default;
    /// Entries such as "192.168.7.0/24", "fd00::/8", or an address, which stands for itself alone.
    /// Throws Poco::InvalidArgumentException for anything else, and for an address that lies within
    /// the network that it names: whether the one or the other was meant is not for us to guess.
    explicit NetworkList(const std::vector<std::string>& entries);

    bool empty() const { return networks.empty(); }

    /// An IPv4 address is in no IPv6 network, also when it came in the guise of one.
    bool contains(const Poco::Net::IPAddress& address) const;

private:
    using Bytes = std::array<std::uint8_t, 16>;
    struct Network {
        /// Of an IPv4 network the first four count.
        Bytes bytes;
        unsigned bits;
        Poco::Net::IPAddress::Family family;
    };

    static Network parse(const std::string& entry);
    static Bytes bytesOf(const Poco::Net::IPAddress& address);
    static Bytes masked(Bytes bytes, unsigned bits);

    std::vector<Network> networks;
};

/// The IPv4 address that an IPv4-mapped IPv6 one stands for; any other one as it is. A socket that
/// listens on :: shows its IPv4 peers so.
Poco::Net::IPAddress unmapped(const Poco::Net::IPAddress& address);

/// Whether only this machine can be behind `address`.
bool isLoopback(const Poco::Net::IPAddress& address);

} // namespace ktr
