#pragma once

#include "Problems.h"
#include "Shared.h"

#include <array>
#include <cstdint>
#include <mutex>
#include <unordered_map>

namespace ktr::soak {

/// Holds what the plugins published against what arrived, for the times between two restarts of
/// the broker: then every message arrives exactly once. Around a restart messages may be lost in
/// the broker, or come twice. Thread-safe.
class MqttLedger {
public:
    using Numbers = std::array<std::uint64_t, kPlugins>;

    explicit MqttLedger(Problems& problems_) : problems(problems_) {}

    void arrived(std::uint32_t plugin, std::uint64_t number);

    /// Everything works: what is published from now on counts. `published`: the last number of
    /// each plugin.
    void beginCalm(const Numbers& published);

    /// Whether all that was published up to these numbers, and counts, has arrived.
    bool hasAll(const Numbers& published) const;

    /// Tells what has not arrived, or more than once. Nothing counts from now on.
    void endCalm(const Numbers& published);

    std::uint64_t total() const;

private:
    void check(std::uint32_t plugin, std::uint64_t first, std::uint64_t last);
    std::uint64_t timesLocked(std::uint32_t plugin, std::uint64_t number) const;

    Problems& problems;
    mutable std::mutex mutex;
    // guarded by mutex
    std::uint64_t count = 0;
    Numbers before{};
    std::array<std::unordered_map<std::uint64_t, std::uint64_t>, kPlugins> seen;
};

} // namespace ktr::soak
