#pragma once

#include <cstdint>
#include <string>

namespace ktr {

/// Where a web hook posts to.
struct WebHookTarget {
    bool https = false;
    std::string host;
    std::uint16_t port = 0;
    /// Path and query as they were written, for an encoded slash is not a slash.
    std::string resource;
    std::string user;
    std::string password;

    /// Without user, password and query, which may be secrets: for the log.
    std::string name() const;

    /// Throws Poco::InvalidArgumentException, naming what is wrong with `url`.
    static WebHookTarget parse(const std::string& url);
};

} // namespace ktr
