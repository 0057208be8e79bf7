#pragma once

#include "Checks.h"
#include "Device.h"
#include "Faults.h"
#include "Figures.h"
#include "MqttPeer.h"
#include "Problems.h"
#include "Queries.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>

namespace ktr::soak {

struct Options {
    int minutes = 0;
    std::uint32_t seed = 0;
    /// Where the host's log is kept if something failed.
    std::string keep;
};

/// One run, from the start of the host to its end.
class Soak {
public:
    /// `over` ends it early.
    Soak(Device& device_, const Options& options_, Problems& problems_, std::atomic<bool>& over_);

    void run();
    Figures figures() const;

private:
    void rest();
    void makeLoad(bool wanted);
    std::uint64_t eventsRaised() const;
    void goOn();
    void checkRestarts() const;
    void endHost();

    void addEvents(Figures& figures) const;
    void addFaults(Figures& figures) const;
    void addHoldings(Figures& figures) const;
    std::uint64_t mqttReceivedByPlugins() const;

    Device& device;
    const Options options;
    Problems& problems;
    std::atomic<bool>& over;
    const std::chrono::steady_clock::time_point end;
    Checks checks;
    Queries queries;
    MqttPeer mqtt;
    Faults faults;
    Quiet warm;
    Quiet last;
    int overflows = 0;
    std::chrono::milliseconds exitTook{0};
};

} // namespace ktr::soak
