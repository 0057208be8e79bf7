#include "HttpReader.h"

#include "HttpFault.h"
#include "HttpHeader.h"

#include <Poco/Ascii.h>
#include <Poco/NumberParser.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <optional>

namespace ktr {
namespace {

using Poco::Net::HTTPRequest;
using Poco::Net::HTTPResponse;

constexpr std::size_t kReceiveSize = 8192;
constexpr std::size_t kMaxChunkLine = 256;
constexpr std::chrono::milliseconds kDrainTime{500};

std::chrono::microseconds duration(const Poco::Timespan& span) {
    return std::chrono::microseconds(span.totalMicroseconds());
}

/// Where the header at the start of `text` ends, its blank line included; npos when it does not
/// yet.
std::size_t headerEnd(const std::string& text, std::size_t from) {
    for (std::size_t at = text.find('\n', from); at != std::string::npos;
         at = text.find('\n', at + 1)) {
        if (text.compare(at + 1, 1, "\n") == 0)
            return at + 2;
        if (text.compare(at + 1, 2, "\r\n") == 0)
            return at + 3;
    }
    return std::string::npos;
}

HttpFault bodyTooLarge(std::size_t limit) {
    return {HTTPResponse::HTTP_REQUEST_ENTITY_TOO_LARGE,
            "the body is larger than " + std::to_string(limit) + " bytes"};
}

HttpFault headerTooLarge(std::size_t limit) {
    return {HTTPResponse::HTTP_REQUEST_HEADER_FIELDS_TOO_LARGE,
            "the header is larger than " + std::to_string(limit) + " bytes"};
}

} // namespace

HttpReader::HttpReader(ClientSocket& socket_, const WebApiBasic::Limits& limits_)
    : socket(socket_), limits(limits_) {}

bool HttpReader::waitForRequest() {
    if (!buffer.empty())
        return true;
    std::array<char, kReceiveSize> received;
    const auto size =
        socket.receive(received.data(), received.size(), Clock::now() + duration(limits.idleTime));
    buffer.assign(received.data(), size.value_or(0));
    return !buffer.empty();
}

void HttpReader::receiveMore() {
    std::array<char, kReceiveSize> received;
    std::optional<std::size_t> size;
    // a client that always has a byte ready is not to outrun its time
    if (Clock::now() < deadline)
        size = socket.receive(received.data(), received.size(), deadline);
    if (!size)
        throw HttpFault(HTTPResponse::HTTP_REQUEST_TIMEOUT, "the request takes too long");
    if (*size == 0)
        throw HttpFault(HTTPResponse::HTTP_BAD_REQUEST, "the request ends too early");
    buffer.append(received.data(), *size);
}

void HttpReader::readHeader(HTTPRequest& request) {
    deadline = Clock::now() + duration(limits.headerTime);
    // clients of old end a body with a line break that they do not count
    if (buffer.rfind("\r\n", 0) == 0)
        buffer.erase(0, 2);
    std::size_t scanned = 0;
    std::size_t end = headerEnd(buffer, 0);
    while (end == std::string::npos && buffer.size() <= limits.headerBytes) {
        scanned = buffer.size() - std::min<std::size_t>(buffer.size(), 2);
        receiveMore();
        end = headerEnd(buffer, scanned);
    }
    if (end == std::string::npos || end > limits.headerBytes)
        throw headerTooLarge(limits.headerBytes);
    parseHttpHeader(take(end), request);
}

std::string HttpReader::readBody(const HTTPRequest& request) {
    const BodyFraming framing = bodyFraming(request);
    if (framing.length > limits.bodyBytes)
        throw bodyTooLarge(limits.bodyBytes);
    if (!framing.chunked && framing.length == 0)
        return {};
    deadline = Clock::now() + duration(limits.headerTime);
    if (request.getExpectContinue() && buffer.empty())
        socket.send("HTTP/1.1 100 Continue\r\n\r\n");
    return framing.chunked ? readChunks() : take(framing.length);
}

std::string HttpReader::take(std::size_t size) {
    while (buffer.size() < size)
        receiveMore();
    std::string taken = buffer.substr(0, size);
    buffer.erase(0, size);
    return taken;
}

std::string HttpReader::takeLine() {
    std::size_t end = buffer.find("\r\n");
    while (end == std::string::npos && buffer.size() <= kMaxChunkLine) {
        receiveMore();
        end = buffer.find("\r\n");
    }
    if (end > kMaxChunkLine)
        throw HttpFault(HTTPResponse::HTTP_BAD_REQUEST, "a line of the chunked body is too long");
    std::string line = take(end + 2);
    line.resize(end);
    return line;
}

std::size_t HttpReader::readChunkSize() {
    std::string line = takeLine();
    line.resize(std::min(line.find_first_of("; \t"), line.size()));
    unsigned size = 0;
    const bool digits =
        std::all_of(line.begin(), line.end(), [](char c) { return Poco::Ascii::isHexDigit(c); });
    if (line.empty() || line.size() > 8 || !digits || !Poco::NumberParser::tryParseHex(line, size))
        throw HttpFault(HTTPResponse::HTTP_BAD_REQUEST, "the size of a chunk is malformed");
    return size;
}

std::string HttpReader::readChunks() {
    std::string body;
    for (std::size_t size = readChunkSize(); size != 0; size = readChunkSize()) {
        if (size > limits.bodyBytes - body.size())
            throw bodyTooLarge(limits.bodyBytes);
        body += take(size);
        if (take(2) != "\r\n")
            throw HttpFault(HTTPResponse::HTTP_BAD_REQUEST, "a chunk is longer than it says");
    }
    readTrailer();
    return body;
}

void HttpReader::readTrailer() {
    std::size_t seen = 0;
    for (std::string line = takeLine(); !line.empty(); line = takeLine()) {
        seen += line.size();
        if (seen > limits.headerBytes)
            throw headerTooLarge(limits.headerBytes);
    }
}

void HttpReader::drain() {
    const auto end = Clock::now() + kDrainTime;
    std::array<char, kReceiveSize> ignored;
    while (!socket.stopping() && Clock::now() < end &&
           socket.receive(ignored.data(), ignored.size(), end).value_or(0) > 0) {
    }
}

} // namespace ktr
