#include "ChunkedBody.h"

#include "HttpFault.h"
#include "HttpSyntax.h"

#include <Poco/Ascii.h>

#include <algorithm>
#include <array>

namespace ktr {
namespace {

// what fits a 64-bit number, leading zeros included
constexpr int kMaxDigits = 16;

HttpFault malformed() {
    return {Poco::Net::HTTPResponse::HTTP_BAD_REQUEST, "a chunk of the body is malformed"};
}

unsigned valueOf(char digit) {
    const auto value = static_cast<unsigned>(Poco::Ascii::toLower(digit));
    return Poco::Ascii::isDigit(digit) ? value - '0' : value - 'a' + 10;
}

} // namespace

std::string ChunkedBody::read(std::size_t limit) {
    std::string content;
    while (const std::uint64_t size = readSize()) {
        if (size > limit - content.size())
            throw bodyTooLarge(limit);
        append(size, content);
        if (next() != '\r')
            throw malformed();
        expectLineFeed();
    }
    while (skipLine() > 0) {
    }
    return content;
}

std::uint64_t ChunkedBody::readSize() {
    std::uint64_t size = 0;
    int digits = 0;
    char c = next();
    for (; Poco::Ascii::isHexDigit(c); c = next()) {
        if (++digits > kMaxDigits)
            throw malformed();
        size = size * 16 + valueOf(c);
    }
    if (digits == 0 || (c != ';' && c != '\r'))
        throw malformed();
    if (c == ';')
        skipLine();
    else
        expectLineFeed();
    return size;
}

/// In pieces, since a client may announce much and send nothing.
void ChunkedBody::append(std::uint64_t size, std::string& content) {
    std::array<char, 4096> piece;
    while (size > 0) {
        const auto wanted = std::min<std::uint64_t>(size, piece.size());
        const auto got = source.sgetn(piece.data(), static_cast<std::streamsize>(wanted));
        if (got <= 0)
            throw malformed();
        content.append(piece.data(), static_cast<std::size_t>(got));
        size -= static_cast<std::uint64_t>(got);
    }
}

std::size_t ChunkedBody::skipLine() {
    std::size_t length = 0;
    for (char c = next(); c != '\r'; c = next()) {
        if (isControl(c))
            throw malformed();
        if (extrasLeft-- == 0)
            throw HttpFault(Poco::Net::HTTPResponse::HTTP_REQUEST_ENTITY_TOO_LARGE,
                            "the body's chunks carry too much besides the content");
        ++length;
    }
    expectLineFeed();
    return length;
}

char ChunkedBody::next() {
    const auto c = source.sbumpc();
    if (c == std::streambuf::traits_type::eof())
        throw malformed();
    return std::streambuf::traits_type::to_char_type(c);
}

void ChunkedBody::expectLineFeed() {
    if (next() != '\n')
        throw malformed();
}

} // namespace ktr
