#include "AccessControl.h"

#include <Poco/Ascii.h>
#include <Poco/Exception.h>
#include <Poco/String.h>

#include <openssl/crypto.h>
#include <openssl/sha.h>

#include <algorithm>

namespace ktr {
namespace {

constexpr std::size_t kLeastTokenLength = 32;
// Poco takes 8192 bytes of a header's value
constexpr std::size_t kMostTokenLength = 4096;

const std::string kHeader = "Authorization";
const std::string kScheme = "Bearer ";

bool isVisible(char c) {
    return c > 0x20 && c < 0x7f;
}

} // namespace

AccessControl::Digest AccessControl::digestOf(const std::string& token) {
    static_assert(std::tuple_size_v<Digest> == SHA256_DIGEST_LENGTH);
    Digest digest;
    SHA256(reinterpret_cast<const unsigned char*>(token.data()), token.size(), digest.data());
    return digest;
}

void AccessControl::requireToken(const std::string& token) {
    if (token.empty()) {
        required.reset();
        return;
    }
    if (token.size() < kLeastTokenLength || token.size() > kMostTokenLength)
        throw Poco::InvalidArgumentException(
            "the token must have from " + std::to_string(kLeastTokenLength) + " to " +
            std::to_string(kMostTokenLength) + " characters, not " + std::to_string(token.size()));
    if (!std::all_of(token.begin(), token.end(), isVisible))
        throw Poco::InvalidArgumentException(
            "the token must be of printable ASCII characters without spaces");
    required = digestOf(token);
}

bool AccessControl::admits(const Poco::Net::IPAddress& peer) const {
    return allowed.empty() || isLoopback(peer) || allowed.contains(peer);
}

bool AccessControl::authorizes(const Poco::Net::IPAddress& peer,
                               const Poco::Net::MessageHeader& header) const {
    if (!required || isLoopback(peer))
        return true;
    const auto first = header.find(kHeader);
    if (first == header.end())
        return false;
    const bool onlyOne = std::none_of(std::next(first), header.end(), [](const auto& field) {
        return Poco::icompare(field.first, kHeader) == 0;
    });
    const std::string& value = first->second;
    if (!onlyOne || Poco::icompare(value, 0, kScheme.size(), kScheme) != 0)
        return false;
    const Digest given = digestOf(Poco::trimLeft(value.substr(kScheme.size())));
    return CRYPTO_memcmp(given.data(), required->data(), given.size()) == 0;
}

} // namespace ktr
