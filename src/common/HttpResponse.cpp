#include "HttpResponse.h"

#include "ktr/common/JsonAnswer.h"

#include <Poco/Exception.h>
#include <Poco/File.h>
#include <Poco/FileStream.h>
#include <Poco/NumberFormatter.h>
#include <Poco/StreamCopier.h>
#include <Poco/Timestamp.h>

#include <sstream>
#include <string_view>

namespace ktr {
namespace {

using Poco::Net::HTTPRequest;

constexpr std::size_t kHeldBack = 32'768;

} // namespace

HttpResponse::Body::int_type HttpResponse::Body::overflow(int_type c) {
    if (traits_type::eq_int_type(c, traits_type::eof()))
        return traits_type::not_eof(c);
    const char single = traits_type::to_char_type(c);
    owner.add(&single, 1);
    return owner.trouble.empty() ? c : traits_type::eof();
}

std::streamsize HttpResponse::Body::xsputn(const char* data, std::streamsize size) {
    owner.add(data, static_cast<std::size_t>(size));
    return owner.trouble.empty() ? size : 0;
}

int HttpResponse::Body::sync() {
    owner.pass(false);
    return owner.trouble.empty() ? 0 : -1;
}

HttpResponse::HttpResponse(ClientSocket& socket_, const HTTPRequest& request, bool keepAlive)
    : socket(socket_), head(request.getMethod() == HTTPRequest::HTTP_HEAD) {
    setVersion(request.getVersion());
    setDate(Poco::Timestamp());
    setKeepAlive(keepAlive);
}

// the body has been asked for and read before the handler runs
void HttpResponse::sendContinue() {}

std::ostream& HttpResponse::send() {
    if (stream)
        throw Poco::IllegalStateException("the answer was begun already");
    return stream.emplace(&body);
}

void HttpResponse::sendFile(const std::string& path, const std::string& mediaType) {
    const Poco::File file(path);
    Poco::FileInputStream content(path, std::ios::in);
    setContentLength64(static_cast<Poco::Int64>(file.getSize()));
    setContentType(mediaType);
    std::ostream& out = send();
    if (!head)
        Poco::StreamCopier::copyStream(content, out);
}

void HttpResponse::sendBuffer(const void* data, std::size_t size) {
    setContentLength64(static_cast<Poco::Int64>(size));
    send().write(static_cast<const char*>(data), static_cast<std::streamsize>(size));
}

void HttpResponse::redirect(const std::string& uri, HTTPStatus status) {
    setStatusAndReason(status);
    set("Location", uri);
    setContentLength(0);
    send();
}

void HttpResponse::requireAuthentication(const std::string& realm) {
    setStatusAndReason(HTTP_UNAUTHORIZED);
    set("WWW-Authenticate", "Basic realm=\"" + realm + "\"");
}

bool HttpResponse::sent() const {
    return stream.has_value();
}

void HttpResponse::finish() {
    if (finished)
        return;
    finished = true;
    pass(true);
    if (trouble.empty() && framing == Framing::length && !withoutBody() && owed > 0)
        trouble = "the answer is shorter than its Content-Length";
}

bool HttpResponse::replaceByError(HTTPStatus status, const std::string& message) {
    if (onWire)
        return false;
    const bool keepAlive = getKeepAlive();
    clear();
    setDate(Poco::Timestamp());
    setKeepAlive(keepAlive);
    setStatusAndReason(status);
    trouble.clear();
    finished = false;
    owed = 0;
    pending = makeJsonDefault(-1, message);
    return true;
}

bool HttpResponse::connectionUsable() const {
    return finished && trouble.empty() && framing != Framing::close && getKeepAlive();
}

void HttpResponse::add(const char* data, std::size_t size) {
    std::string_view left(data, size);
    while (!left.empty() && trouble.empty()) {
        const std::string_view piece = left.substr(0, kHeldBack - pending.size());
        pending += piece;
        left.remove_prefix(piece.size());
        if (pending.size() == kHeldBack)
            pass(false);
    }
}

bool HttpResponse::withoutBody() const {
    return head || getStatus() < HTTP_OK || getStatus() == HTTP_NO_CONTENT ||
           getStatus() == HTTP_NOT_MODIFIED;
}

void HttpResponse::pass(bool last) {
    if (!trouble.empty())
        return;
    // a stream swallows what its buffer throws
    try {
        passPending(last);
    } catch (const Poco::Exception& e) {
        trouble = e.displayText();
    } catch (const std::exception& e) {
        trouble = e.what();
    }
}

void HttpResponse::passPending(bool last) {
    std::string out;
    if (!onWire) {
        if (head && !last) {
            // its length is still to be told, and nothing else of it
            owed += pending.size();
            pending.clear();
            return;
        }
        beginWire(last);
        std::ostringstream header;
        write(header);
        out = header.str();
    }
    out += frame(last);
    onWire = true;
    socket.send(out);
}

void HttpResponse::beginWire(bool last) {
    if (socket.stopping())
        setKeepAlive(false);
    setChunkedTransferEncoding(false);
    if (!has(CONTENT_TYPE) && owed + pending.size() > 0)
        setContentType("application/json");
    if (withoutBody()) {
        if (head && !hasContentLength())
            setContentLength64(static_cast<Poco::Int64>(owed + pending.size()));
        if (!head)
            setContentLength64(UNKNOWN_CONTENT_LENGTH);
        framing = Framing::none;
        return;
    }
    if (last && !hasContentLength())
        setContentLength64(static_cast<Poco::Int64>(pending.size()));
    if (hasContentLength()) {
        owed = static_cast<std::uint64_t>(getContentLength64());
        framing = Framing::length;
    } else if (getVersion() == HTTP_1_1) {
        setChunkedTransferEncoding(true);
        framing = Framing::chunks;
    } else {
        setKeepAlive(false);
        framing = Framing::close;
    }
}

/// What is pending, as it travels.
std::string HttpResponse::frame(bool last) {
    std::string content;
    content.swap(pending);
    if (framing == Framing::none)
        return {};
    if (framing == Framing::length) {
        if (content.size() > owed) {
            trouble = "the answer is longer than its Content-Length";
            content.resize(owed);
        }
        owed -= content.size();
        return content;
    }
    if (framing == Framing::close)
        return content;
    std::string chunks;
    if (!content.empty())
        chunks = Poco::NumberFormatter::formatHex(content.size()) + "\r\n" + content + "\r\n";
    if (last)
        chunks += "0\r\n\r\n";
    return chunks;
}

} // namespace ktr
