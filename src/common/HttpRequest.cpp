#include "HttpRequest.h"

#include "ChunkedBody.h"
#include "HttpFault.h"
#include "HttpSyntax.h"

#include <Poco/Ascii.h>
#include <Poco/Exception.h>
#include <Poco/Net/HTTPServerParams.h>
#include <Poco/Net/HTTPServerSession.h>
#include <Poco/Net/HTTPStream.h>
#include <Poco/String.h>
#include <Poco/URI.h>

#include <algorithm>
#include <array>

namespace ktr {
namespace {

using Poco::Net::HTTPResponse;

HttpFault malformed(const std::string& reason) {
    return {HTTPResponse::HTTP_BAD_REQUEST, reason};
}

bool isToken(const std::string& text) {
    return !text.empty() && std::all_of(text.begin(), text.end(), isTokenCharacter);
}

bool isNumber(const std::string& text) {
    return !text.empty() &&
           std::all_of(text.begin(), text.end(), [](char c) { return Poco::Ascii::isDigit(c); });
}

} // namespace

HttpRequest::HttpRequest(Poco::Net::HTTPServerResponseImpl& response,
                         Poco::Net::HTTPServerSession& session, Poco::Net::HTTPServerParams& params)
    : HTTPServerRequestImpl(response, session, &params) {}

void HttpRequest::check() const {
    if (getVersion().rfind("HTTP/", 0) != 0 || !isToken(getMethod()))
        throw malformed("the request line is not METHOD TARGET VERSION");
    if (getVersion() != HTTP_1_0 && getVersion() != HTTP_1_1)
        throw HttpFault(HTTPResponse::HTTP_VERSION_NOT_SUPPORTED, "use HTTP/1.1 or HTTP/1.0");
    int framings = 0;
    for (const auto& field : *this)
        if (Poco::icompare(field.first, CONTENT_LENGTH) == 0 ||
            Poco::icompare(field.first, TRANSFER_ENCODING) == 0)
            ++framings;
    if (framings > 1)
        throw malformed("the header tells the body's length more than once");
    if (hasContentLength() && !isNumber(get(CONTENT_LENGTH)))
        throw malformed("Content-Length is not a number");
    if (has(TRANSFER_ENCODING) && getVersion() == HTTP_1_0)
        throw malformed("HTTP/1.0 knows no Transfer-Encoding");
    if (has(TRANSFER_ENCODING) && !getChunkedTransferEncoding())
        throw HttpFault(HTTPResponse::HTTP_NOT_IMPLEMENTED,
                        "the only Transfer-Encoding understood is chunked");
}

void HttpRequest::readBody(std::size_t limit) {
    if (hasContentLength() && static_cast<Poco::UInt64>(getContentLength64()) > limit)
        throw bodyTooLarge(limit);
    if (getExpectContinue() && getVersion() == HTTP_1_1)
        response().sendContinue();
    if (getChunkedTransferEncoding()) {
        Poco::Net::HTTPStreamBuf source(session(), std::ios::in);
        content = ChunkedBody(source).read(limit);
    } else if (hasContentLength()) {
        readAll(*HTTPServerRequestImpl::stream().rdbuf());
    }
}

/// From the buffer, for a stream swallows what its buffer throws.
void HttpRequest::readAll(std::streambuf& source) {
    std::array<char, 4096> piece;
    while (const auto size = source.sgetn(piece.data(), piece.size()))
        content.append(piece.data(), static_cast<std::size_t>(size));
}

bool HttpRequest::wantsKeepAlive() const {
    // what came together with the last of the chunks went with their buffer
    if (getChunkedTransferEncoding() || hasToken(CONNECTION, "close"))
        return false;
    return getVersion() == HTTP_1_1 || hasToken(CONNECTION, "keep-alive");
}

Target::Target(const std::string& uri) {
    try {
        std::string origin = uri;
        if (origin.rfind("http://", 0) == 0 || origin.rfind("https://", 0) == 0)
            origin = Poco::URI(uri).getPathAndQuery();
        if (origin.empty() || origin.front() != '/')
            throw malformed("the request's target is not a path that starts with /");
        origin.resize(std::min(origin.find('#'), origin.size()));
        const std::size_t mark = std::min(origin.find('?'), origin.size());
        Poco::URI::decode(origin.substr(0, mark), path);
        if (mark < origin.size())
            query = origin.substr(mark + 1);
    } catch (const Poco::SyntaxException& e) {
        throw malformed("the request's target is malformed: " + e.displayText());
    }
}

} // namespace ktr
