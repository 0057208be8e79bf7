#pragma once

#include "HttpSession.h"

#include <Poco/Net/HTTPServerResponseImpl.h>

#include <ostream>

namespace ktr {

/// An answer that needs neither length nor chunked encoding to keep its connection open.
class HttpResponse : public Poco::Net::HTTPServerResponseImpl {
public:
    explicit HttpResponse(HttpSession& session_)
        : HTTPServerResponseImpl(session_), session(session_) {}

    std::ostream& send() override {
        const bool bodiless = getStatus() < HTTP_OK || getStatus() == HTTP_NO_CONTENT ||
                              getStatus() == HTTP_NOT_MODIFIED;
        if (bodiless)
            erase(CONTENT_TYPE);
        setChunkedTransferEncoding(!bodiless && !hasContentLength() && getVersion() == HTTP_1_1);
        session.expectMore(!bodiless && getContentLength() != 0);
        std::ostream& body = HTTPServerResponseImpl::send();
        session.expectMore(false);
        return body;
    }

    /// Whether the client needs no end of the connection to know where the answer ends.
    bool tellsItsEnd() const { return getChunkedTransferEncoding() || hasContentLength(); }

private:
    HttpSession& session;
};

} // namespace ktr
