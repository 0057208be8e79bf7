#pragma once

#include <Poco/Exception.h>
#include <Poco/Net/HTTPResponse.h>

#include <cstddef>
#include <string>

namespace ktr {

/// A request that the server itself refuses: the status to answer with, and why. One of Poco's
/// exceptions, so that its session keeps it where its streams swallow it.
class HttpFault : public Poco::Exception {
public:
    using Status = Poco::Net::HTTPResponse::HTTPStatus;

    HttpFault(Status status, const std::string& reason) : Poco::Exception(reason, status) {}

    Status status() const { return static_cast<Status>(code()); }

    const char* name() const noexcept override { return "HTTP fault"; }
    const char* className() const noexcept override { return "ktr::HttpFault"; }
    Poco::Exception* clone() const override { return new HttpFault(*this); }
    void rethrow() const override { throw HttpFault(*this); }
};

inline HttpFault bodyTooLarge(std::size_t limit) {
    return {Poco::Net::HTTPResponse::HTTP_REQUEST_ENTITY_TOO_LARGE,
            "the body is larger than " + std::to_string(limit) + " bytes"};
}

} // namespace ktr
