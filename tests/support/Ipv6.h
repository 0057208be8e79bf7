#pragma once

#include <fstream>

namespace ktr::test {

/// Whether this machine has an IPv6 address at all. A test of IPv6 asks this, not whether what it
/// tests fails.
inline bool hasIpv6() {
    std::ifstream addresses("/proc/net/if_inet6");
    return addresses.peek() != std::ifstream::traits_type::eof();
}

} // namespace ktr::test
