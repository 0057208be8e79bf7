#pragma once

#include "Problems.h"
#include "Shared.h"

#include <chrono>
#include <cstdint>
#include <map>
#include <sys/types.h>

namespace ktr::soak {

/// What a process holds.
struct Holdings {
    std::uint64_t residentKib = 0;
    std::uint64_t peakKib = 0;
    /// Resident memory that is no file's.
    std::uint64_t ownKib = 0;
    std::uint64_t threads = 0;
    std::uint64_t descriptors = 0;
};

Holdings holdingsOf(pid_t pid);

/// Watches the host from outside while the soak runs.
class HostWatch {
public:
    HostWatch(pid_t pid_, Problems& problems_) : pid(pid_), problems(problems_) {}

    /// To be called again and again.
    void look();

    std::uint64_t mostThreads() const { return threads; }
    std::uint64_t mostDescriptors() const { return descriptors; }
    std::uint64_t peakKib() const { return peak; }

private:
    using Clock = std::chrono::steady_clock;

    void lookForZombies();

    const pid_t pid;
    Problems& problems;
    std::uint64_t threads = 0;
    std::uint64_t descriptors = 0;
    std::uint64_t peak = 0;
    /// Children that wait to be reaped, since when.
    std::map<pid_t, Clock::time_point> zombies;
};

} // namespace ktr::soak
