#include "common/Service.h"

#include "common/HostReport.h"

#include <Poco/Exception.h>
#include <Poco/NumberParser.h>

#include <array>
#include <csignal>
#include <iostream>
#include <optional>
#include <string>

namespace ktr::example {

namespace {

constexpr int kExitUsage = 64;
constexpr int kExitSoftware = 70;

std::string usage(const ServiceInfo& info) {
    return "usage: " + info.name + " HOST-PORT\n\n" + info.purpose +
           "\nHOST-PORT is the port of the host at 127.0.0.1, which starts its services so.\n";
}

std::optional<unsigned short> parsePort(const std::string& text) {
    unsigned port = 0;
    const bool digits = text.find_first_not_of("0123456789") == std::string::npos;
    if (!digits || !Poco::NumberParser::tryParseUnsigned(text, port) || port < 1 || port > 65535)
        return std::nullopt;
    return static_cast<unsigned short>(port);
}

/// The signals that end us: blocked in every thread, taken by main alone.
sigset_t blockEndSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    return signals;
}

int serve(const ServiceInfo& info, unsigned short hostPort, const sigset_t& signals,
          const std::function<Endpoints()>& makeEndpoints) {
    const JsonServer server(makeEndpoints());
    const HostReport report(hostPort,
                            {info.name, "127.0.0.1", server.port(), info.type, info.guid});
    std::cerr << info.name + ": serving on http://127.0.0.1:" + std::to_string(server.port()) + "\n"
              << std::flush;
    int received = 0;
    sigwait(&signals, &received);
    return 0;
}

} // namespace

int runService(int argc, char** argv, const ServiceInfo& info,
               const std::function<Endpoints()>& makeEndpoints) {
    const sigset_t signals = blockEndSignals();
    const std::string argument = argc == 2 ? argv[1] : "";
    if (argument == "--help" || argument == "-h") {
        std::cout << usage(info);
        return 0;
    }
    const auto hostPort = parsePort(argument);
    if (!hostPort) {
        std::cerr << info.name + ": wants the host's port, 1 to 65535, as its only argument\n" +
                         usage(info);
        return kExitUsage;
    }
    try {
        return serve(info, *hostPort, signals, makeEndpoints);
    } catch (const Poco::Exception& e) {
        std::cerr << info.name + ": " + e.displayText() + "\n";
    } catch (const std::exception& e) {
        std::cerr << info.name + ": " + e.what() + "\n";
    }
    return kExitSoftware;
}

} // namespace ktr::example
