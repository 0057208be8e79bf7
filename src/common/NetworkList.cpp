#include "NetworkList.h"

#include <Poco/Exception.h>
#include <Poco/NumberParser.h>

#include <algorithm>
#include <arpa/inet.h>
#include <cstring>
#include <netinet/in.h>
#include <optional>

namespace ktr {
namespace {

using Poco::Net::IPAddress;

constexpr unsigned kMappedBits = 96;

[[noreturn]] void reject(const std::string& entry, const std::string& reason) {
    throw Poco::InvalidArgumentException("'" + entry + "' " + reason);
}

/// Unlike Poco's neither takes "10.1" for 10.0.0.1 nor stumbles over "::".
std::optional<IPAddress> parseAddress(const std::string& text) {
    in_addr v4{};
    if (inet_pton(AF_INET, text.c_str(), &v4) == 1)
        return IPAddress(&v4, sizeof v4);
    in6_addr v6{};
    if (inet_pton(AF_INET6, text.c_str(), &v6) == 1)
        return IPAddress(&v6, sizeof v6);
    return std::nullopt;
}

unsigned bitsOf(const IPAddress& address) {
    return static_cast<unsigned>(address.length()) * 8;
}

unsigned parseBits(const std::string& entry, const std::string& text, unsigned most) {
    unsigned bits = 0;
    const bool digits = !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
    if (!digits || !Poco::NumberParser::tryParseUnsigned(text, bits) || bits > most)
        reject(entry, "must end with a number of bits from /0 to /" + std::to_string(most));
    return bits;
}

} // namespace

IPAddress unmapped(const IPAddress& address) {
    if (address.family() != IPAddress::IPv6 || !address.isIPv4Mapped())
        return address;
    return {static_cast<const std::uint8_t*>(address.addr()) + kMappedBits / 8, sizeof(in_addr)};
}

bool isLoopback(const IPAddress& address) {
    return unmapped(address).isLoopback();
}

NetworkList::NetworkList(const std::vector<std::string>& entries) {
    networks.reserve(entries.size());
    for (const std::string& entry : entries)
        networks.push_back(parse(entry));
}

NetworkList::Network NetworkList::parse(const std::string& entry) {
    const auto slash = std::min(entry.find('/'), entry.size());
    const auto given = parseAddress(entry.substr(0, slash));
    if (!given)
        reject(entry, "is no network; write one such as 192.168.7.0/24 or fd00::/8, or an address");
    unsigned bits = bitsOf(*given);
    if (slash < entry.size())
        bits = parseBits(entry, entry.substr(slash + 1), bits);
    IPAddress address = *given;
    if (const IPAddress v4 = unmapped(address);
        v4.family() != address.family() && bits >= kMappedBits) {
        address = v4;
        bits -= kMappedBits;
    }
    const Bytes bytes = bytesOf(address);
    const Bytes first = masked(bytes, bits);
    if (first != bytes)
        reject(entry, "names an address within a network; write the network as " +
                          IPAddress(first.data(), address.length()).toString() + "/" +
                          std::to_string(bits) + ", or the address alone");
    return {bytes, bits, address.family()};
}

NetworkList::Bytes NetworkList::bytesOf(const IPAddress& address) {
    Bytes bytes{};
    std::memcpy(bytes.data(), address.addr(), address.length());
    return bytes;
}

NetworkList::Bytes NetworkList::masked(Bytes bytes, unsigned bits) {
    for (unsigned i = 0; i < bytes.size(); ++i) {
        const unsigned kept = std::clamp(bits, i * 8, i * 8 + 8) - i * 8;
        bytes[i] = static_cast<std::uint8_t>(bytes[i] & (0xff00U >> kept));
    }
    return bytes;
}

bool NetworkList::contains(const IPAddress& address) const {
    const IPAddress plain = unmapped(address);
    const Bytes bytes = bytesOf(plain);
    return std::any_of(networks.begin(), networks.end(), [&](const Network& network) {
        return network.family == plain.family() && masked(bytes, network.bits) == network.bytes;
    });
}

} // namespace ktr
