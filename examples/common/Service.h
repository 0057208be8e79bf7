#pragma once

#include "common/JsonServer.h"

#include <functional>
#include <string>

namespace ktr::example {

struct ServiceInfo {
    std::string name;
    /// One sentence for --help.
    std::string purpose;
    int type = 0;
    std::string guid;
};

/// The whole life of a microservice: reads the host's port from the arguments, serves what
/// `makeEndpoints` returns, reports itself to the host, and ends cleanly at SIGTERM or SIGINT.
/// To be called first thing in main, before there are threads. Returns the exit code: 0, 64 for bad
/// arguments, 70 when it cannot run; standard error says why.
int runService(int argc, char** argv, const ServiceInfo& info,
               const std::function<Endpoints()>& makeEndpoints);

} // namespace ktr::example
