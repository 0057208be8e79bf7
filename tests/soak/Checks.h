#pragma once

#include "Device.h"
#include "HostWatch.h"
#include "Ledger.h"
#include "Problems.h"

#include <array>
#include <atomic>
#include <cstdint>
#include <mutex>
#include <thread>

namespace ktr::soak {

/// What the host holds while nothing is asked of it.
struct Quiet {
    /// Bytes that the whole process has allocated.
    std::uint64_t heap = 0;
    Holdings holdings;
    /// Reports that it has acted upon so far.
    std::uint64_t reports = 0;
};

/// Checks, from a thread of its own, what has to be so throughout the soak; and by compareQuiet
/// what may not grow. Sets `over` when the host has ended by itself.
class Checks {
public:
    Checks(Device& device_, Problems& problems_, std::atomic<bool>& over_);
    ~Checks() { finish(); }
    Checks(const Checks&) = delete;
    Checks& operator=(const Checks&) = delete;

    /// Waits until every event that was raised has been delivered, and tells those that have not.
    /// Nobody may raise any.
    void settleEvents();

    /// Takes the measures while nobody makes load.
    Quiet measureQuiet() const;
    /// As above, but not before descriptors and threads have come down to those of `goal`, or that
    /// has taken too long.
    Quiet measureQuiet(const Quiet& goal) const;

    /// Tells what has grown.
    void compareQuiet(const Quiet& before, const Quiet& after) const;

    /// Ends the thread; the host may end now.
    void finish();

    Ledger::Count count(std::uint32_t path) const;
    const HostWatch& watch() const { return hostWatch; }

private:
    void run();
    std::uint64_t heap() const;
    std::uint64_t reports() const;
    void compare(const char* what, std::uint64_t before, std::uint64_t after,
                 std::uint64_t allowed) const;

    Device& device;
    Problems& problems;
    std::atomic<bool>& over;
    HostWatch hostWatch;
    mutable std::mutex mutex;
    // guarded by mutex
    Ledger ledger;
    std::atomic<bool> ending{false};
    std::thread thread;
};

/// How much memory a notification takes that is never given back, as it is for each report.
std::uint64_t notificationBytes();

} // namespace ktr::soak
