#pragma once

#include <Poco/Net/SocketAddress.h>
#include <Poco/Timespan.h>

#include <string>

namespace ktr::cli {

/// What a service tells the host about itself.
struct ServiceReport {
    /// Where it serves.
    std::string ip = "127.0.0.1";
    unsigned short port = 0;
    int type = 1;
    std::string guid;
};

struct HostAnswer {
    int status = 0;
    /// As it came.
    std::string body;
    /// The body is a JSON object.
    bool isJson = false;
    /// The host has the report.
    bool isTaken = false;
    /// Why not, in the host's words if it has some.
    std::string reason;
};

/// Sends one report to the host. Any answer is returned; none within `timeout`, which counts for
/// the connection and again for what follows, throws a Poco::Exception, as one without an end does.
HostAnswer sendReport(const Poco::Net::SocketAddress& host, const ServiceReport& report,
                      const Poco::Timespan& timeout);

} // namespace ktr::cli
