#include "HttpHeader.h"

#include "HttpFault.h"

#include <Poco/Ascii.h>
#include <Poco/Exception.h>
#include <Poco/NumberParser.h>
#include <Poco/String.h>
#include <Poco/URI.h>

#include <algorithm>

namespace ktr {
namespace {

using Poco::Net::HTTPMessage;
using Poco::Net::HTTPRequest;
using Poco::Net::HTTPResponse;

HttpFault malformed(const std::string& reason) {
    return {HTTPResponse::HTTP_BAD_REQUEST, reason};
}

bool isTokenCharacter(char c) {
    return Poco::Ascii::isAlphaNumeric(c) ||
           std::string_view("!#$%&'*+-.^_`|~").find(c) != std::string_view::npos;
}

bool isToken(std::string_view text) {
    return !text.empty() && std::all_of(text.begin(), text.end(), isTokenCharacter);
}

bool isControl(char c) {
    return (static_cast<unsigned char>(c) < 0x20 && c != '\t') || c == 0x7f;
}

/// Takes the first line off `text`.
std::string_view takeLine(std::string_view& text) {
    const std::size_t end = std::min(text.find('\n'), text.size());
    std::string_view line = text.substr(0, end);
    text.remove_prefix(std::min(end + 1, text.size()));
    if (!line.empty() && line.back() == '\r')
        line.remove_suffix(1);
    return line;
}

void parseRequestLine(std::string_view line, HTTPRequest& request) {
    const std::size_t first = line.find(' ');
    const std::size_t last = line.rfind(' ');
    if (first == std::string_view::npos || first == last)
        throw malformed("the request line is not METHOD TARGET VERSION");
    const std::string_view method = line.substr(0, first);
    const std::string_view target = line.substr(first + 1, last - first - 1);
    const std::string version(line.substr(last + 1));
    if (!isToken(method))
        throw malformed("the request's method is malformed");
    if (std::any_of(target.begin(), target.end(), [](char c) { return c == ' ' || isControl(c); }))
        throw malformed("the request's target contains blanks or control characters");
    if (version.rfind("HTTP/", 0) != 0)
        throw malformed("the request line does not end with an HTTP version");
    if (version != HTTPMessage::HTTP_1_0 && version != HTTPMessage::HTTP_1_1)
        throw HttpFault(HTTPResponse::HTTP_VERSION_NOT_SUPPORTED, "use HTTP/1.1 or HTTP/1.0");
    request.setMethod(std::string(method));
    request.setURI(std::string(target));
    request.setVersion(version);
}

void parseField(std::string_view line, HTTPRequest& request) {
    const std::size_t colon = line.find(':');
    if (colon == std::string_view::npos || !isToken(line.substr(0, colon)))
        throw malformed("a header line has no well-formed name");
    if (std::any_of(line.begin(), line.end(), isControl))
        throw malformed("a header line contains control characters");
    request.add(std::string(line.substr(0, colon)),
                Poco::trim(std::string(line.substr(colon + 1))));
}

/// The value of a field that may be there once at most; empty when it is not.
std::string singleValue(const HTTPRequest& request, const std::string& name) {
    auto field = request.find(name);
    if (field == request.end())
        return {};
    std::string value = field->second;
    if (++field != request.end() && Poco::icompare(field->first, name) == 0)
        throw malformed("the header has " + name + " twice");
    return value;
}

} // namespace

void parseHttpHeader(std::string_view text, HTTPRequest& request) {
    parseRequestLine(takeLine(text), request);
    for (std::string_view line = takeLine(text); !line.empty(); line = takeLine(text))
        parseField(line, request);
}

BodyFraming bodyFraming(const HTTPRequest& request) {
    const bool hasLength = request.has(HTTPMessage::CONTENT_LENGTH);
    if (request.has(HTTPMessage::TRANSFER_ENCODING)) {
        if (hasLength)
            throw malformed("the header has both Content-Length and Transfer-Encoding");
        if (request.getVersion() == HTTPMessage::HTTP_1_0)
            throw malformed("HTTP/1.0 knows no Transfer-Encoding");
        const std::string coding = singleValue(request, HTTPMessage::TRANSFER_ENCODING);
        if (Poco::icompare(coding, HTTPMessage::CHUNKED_TRANSFER_ENCODING) != 0)
            throw HttpFault(HTTPResponse::HTTP_NOT_IMPLEMENTED,
                            "the only Transfer-Encoding understood is chunked");
        return {true, 0};
    }
    if (!hasLength)
        return {};
    const std::string length = singleValue(request, HTTPMessage::CONTENT_LENGTH);
    if (length.empty() ||
        !std::all_of(length.begin(), length.end(), [](char c) { return Poco::Ascii::isDigit(c); }))
        throw malformed("Content-Length is not a number");
    Poco::UInt64 value = 0;
    if (length.size() > 18 || !Poco::NumberParser::tryParseUnsigned64(length, value))
        throw HttpFault(HTTPResponse::HTTP_REQUEST_ENTITY_TOO_LARGE,
                        "Content-Length is beyond every limit");
    return {false, value};
}

bool wantsKeepAlive(const HTTPRequest& request) {
    if (request.hasToken(HTTPMessage::CONNECTION, "close"))
        return false;
    return request.getVersion() == HTTPMessage::HTTP_1_1 ||
           request.hasToken(HTTPMessage::CONNECTION, "keep-alive");
}

Target parseTarget(const std::string& uri) {
    try {
        std::string origin = uri;
        if (origin.rfind("http://", 0) == 0 || origin.rfind("https://", 0) == 0)
            origin = Poco::URI(uri).getPathAndQuery();
        if (origin.empty() || origin.front() != '/')
            throw malformed("the request's target is not a path that starts with /");
        origin.resize(std::min(origin.find('#'), origin.size()));
        const std::size_t mark = std::min(origin.find('?'), origin.size());
        Target target;
        Poco::URI::decode(origin.substr(0, mark), target.path);
        if (mark < origin.size())
            target.query = origin.substr(mark + 1);
        return target;
    } catch (const Poco::Exception& e) {
        throw malformed("the request's target is malformed: " + e.displayText());
    }
}

} // namespace ktr
