#pragma once

#include <Poco/Net/IPAddress.h>

#include <ifaddrs.h>
#include <netinet/in.h>

#include <optional>

namespace ktr::test {

/// An address of this machine that is neither loopback nor link-local; none if it has none. What it
/// sends there comes from there, as from another machine, and yet never leaves it.
inline std::optional<Poco::Net::IPAddress> ownAddress(Poco::Net::IPAddress::Family family) {
    ifaddrs* all = nullptr;
    if (getifaddrs(&all) != 0)
        return std::nullopt;
    std::optional<Poco::Net::IPAddress> found;
    for (const ifaddrs* at = all; at != nullptr && !found; at = at->ifa_next) {
        if (at->ifa_addr == nullptr)
            continue;
        Poco::Net::IPAddress address;
        if (at->ifa_addr->sa_family == AF_INET) {
            const auto* v4 = reinterpret_cast<const sockaddr_in*>(at->ifa_addr);
            address = Poco::Net::IPAddress(&v4->sin_addr, sizeof v4->sin_addr);
        } else if (at->ifa_addr->sa_family == AF_INET6) {
            const auto* v6 = reinterpret_cast<const sockaddr_in6*>(at->ifa_addr);
            address = Poco::Net::IPAddress(&v6->sin6_addr, sizeof v6->sin6_addr);
        } else {
            continue;
        }
        if (address.family() == family && !address.isLoopback() && !address.isLinkLocal())
            found = address;
    }
    freeifaddrs(all);
    return found;
}

} // namespace ktr::test
