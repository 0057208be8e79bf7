#pragma once

#include <Poco/Net/SocketAddress.h>

#include <string>

namespace ktr::bench {

/// How many requests a second the server answers over `connections` that stay open, each with its
/// next request as soon as it has its answer; about a second of the program wrk. Throws
/// Poco::Exception, also when a request fails.
double requestsPerSecond(const Poco::Net::SocketAddress& server, const std::string& target,
                         int connections);

} // namespace ktr::bench
