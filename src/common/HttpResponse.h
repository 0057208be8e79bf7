#pragma once

#include <Poco/Net/HTTPServerResponseImpl.h>

#include <ostream>

namespace ktr {

/// An answer that needs neither length nor chunked encoding to keep its connection open.
class HttpResponse : public Poco::Net::HTTPServerResponseImpl {
public:
    using HTTPServerResponseImpl::HTTPServerResponseImpl;

    std::ostream& send() override {
        const bool bodiless = getStatus() < HTTP_OK || getStatus() == HTTP_NO_CONTENT ||
                              getStatus() == HTTP_NOT_MODIFIED;
        if (bodiless)
            erase(CONTENT_TYPE);
        setChunkedTransferEncoding(!bodiless && !hasContentLength() && getVersion() == HTTP_1_1);
        return HTTPServerResponseImpl::send();
    }
};

} // namespace ktr
