#pragma once

#include <Poco/Net/HTTPRequest.h>

#include <cstdint>
#include <string>
#include <string_view>

namespace ktr {

/// Fills `request` from the header `text`, which ends with its blank line. Stricter than Poco's own
/// reading, which passes over malformed lines: two readers that disagree on where a request ends
/// let one client speak in another's name. Throws HttpFault.
void parseHttpHeader(std::string_view text, Poco::Net::HTTPRequest& request);

/// How the body of a request is delimited.
struct BodyFraming {
    bool chunked = false;
    std::uint64_t length = 0;
};
/// Throws HttpFault for a request that does not say it clearly.
BodyFraming bodyFraming(const Poco::Net::HTTPRequest& request);

/// Whether the client wants to send another request on the same connection.
bool wantsKeepAlive(const Poco::Net::HTTPRequest& request);

/// The request's target, taken apart. Throws HttpFault.
struct Target {
    /// Decoded.
    std::string path;
    /// As sent, without the "?".
    std::string query;
};
Target parseTarget(const std::string& uri);

} // namespace ktr
