#pragma once

#include "LogDisk.h"
#include "Problems.h"
#include "Shared.h"

#include "support/Broker.h"
#include "support/HostProcess.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace ktr::soak {

/// The most connections that the host is told to serve at a time.
constexpr int kConnections = 64;

/// What the soak runs on: a device's root with the plugins and services, a broker, the host's log
/// on a disk of its own, and the real host.
class Device {
public:
    Device(std::uint32_t seed, bool mayMount);

    /// Whether the host is ready and every plugin has started.
    bool start();

    unsigned short port() const { return host->port(); }
    pid_t pid() const { return host->pid(); }
    bool isRunning() { return !host->waitForExit(std::chrono::milliseconds(0)); }

    /// Sends SIGTERM; the exit code if the host ends within `limit`.
    std::optional<int> end(std::chrono::milliseconds limit);

    /// What is left of the host and its services.
    std::vector<pid_t> leftovers() const { return test::processesBelow(root.path()); }

    /// What the services wrote into the host's output grows without end otherwise.
    void dropOutput() const;

    /// The last lines of the log, and what the host wrote besides.
    std::string tailOfLog() const;
    void keepLog(const std::filesystem::path& folder) const;

    /// Lines of the log that tell that the host gave up events.
    int overflows() const;

    static std::string brokerClient() { return "ketra-soak-driver"; }

private:
    void layOut(std::uint32_t seed);
    std::vector<std::filesystem::path> logFiles() const;

    test::DeviceRoot root;

public:
    Shared& shared;
    const LogDisk disk;
    test::Broker broker;

private:
    std::optional<test::HostProcess> host;
};

} // namespace ktr::soak
