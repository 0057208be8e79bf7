#pragma once

#include "Shared.h"

#include "support/HostProcess.h"

#include <chrono>
#include <string>
#include <vector>

namespace ktr::bench {

/// A root with kPlugins plugins and their services. Whatever still runs below it ends with it.
class Device {
public:
    Device();

    struct Boot {
        /// Seconds since the host was started.
        double firstLaunch = 0;
        double lastLaunch = 0;
        double lastStart = 0;
        /// Plugins that were not started.
        int lost = 0;
        /// Posts of the web hook beyond or short of one.
        int hooksAmiss = 0;
    };

    /// Starts the host, has all plugins started, and ends it. Throws std::runtime_error if the host
    /// does not come up or does not end in order.
    Boot boot(std::chrono::nanoseconds start);

    /// Launches the executables of the services one after the other, and ends them. Returns the
    /// seconds between the beginnings of the first one's main and the last one's. Throws
    /// std::runtime_error if one does not begin.
    double launchAll();

private:
    void copyPlugins() const;
    void copyServices();
    void reset(std::chrono::nanoseconds start);
    bool allLaunched() const;
    bool allStarted() const;
    Boot outcome(std::int64_t since) const;

    test::DeviceRoot root;
    Storm& storm;
    std::vector<std::string> services;
};

} // namespace ktr::bench
