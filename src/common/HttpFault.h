#pragma once

#include <Poco/Net/HTTPResponse.h>

#include <stdexcept>
#include <string>

namespace ktr {

/// A request that the server itself refuses: the status to answer with, and why.
class HttpFault : public std::runtime_error {
public:
    using Status = Poco::Net::HTTPResponse::HTTPStatus;

    HttpFault(Status status_, const std::string& reason)
        : std::runtime_error(reason), status(status_) {}

    const Status status;
};

} // namespace ktr
