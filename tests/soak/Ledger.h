#pragma once

#include "Event.h"
#include "Problems.h"
#include "Shared.h"

#include <array>
#include <bitset>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <utility>

namespace ktr::soak {

/// Holds every event that was raised against the deliveries that came of it. Whatever is not
/// exactly one delivery to each recipient, in order, is a problem.
///
/// Order: a batch is delivered on one thread, its events in the order of their raising and each in
/// the order of its recipients. A thread that takes another batch takes one that was filled later.
/// So on any one thread the deliveries of a stream must go forward.
class Ledger {
public:
    using Clock = std::chrono::steady_clock;

    struct Count {
        std::uint64_t sent = 0;
        std::uint64_t delivered = 0;
    };

    Ledger(std::uint32_t seed_, Problems& problems_) : seed(seed_), problems(problems_) {}

    /// The stream's events up to this number were raised.
    void raised(std::uint32_t stream, std::uint64_t upTo);

    void delivered(const Delivery& delivery);

    /// Events that some recipient has not got yet.
    std::size_t outstanding() const;

    /// Each event outstanding that was raised longer ago than `age` is lost; it is told once.
    void tellLost(Clock::duration age = Clock::duration::zero());

    /// Of one path; `delivered` counts recipients, not events.
    const Count& count(std::uint32_t path) const { return counts.at(path); }

private:
    struct Pending {
        std::bitset<kPlugins> missing;
        Clock::time_point since;
    };
    struct Stream {
        std::uint64_t last = 0;
        std::map<std::uint64_t, Pending> pending;
    };
    using Step = std::pair<std::uint64_t, std::size_t>;

    bool settle(Stream& stream, const Delivery& delivery);
    void checkOrder(const Delivery& delivery, std::size_t position);

    const std::uint32_t seed;
    Problems& problems;
    std::array<Stream, kStreams> streams;
    std::array<Count, kPaths> counts;
    /// How far each thread has come in each stream: the event and its recipient.
    std::map<std::pair<std::int32_t, std::uint32_t>, Step> progress;
};

/// Takes what is new in the journal into the ledger.
void takeJournal(Shared& shared, Ledger& ledger, Problems& problems);

} // namespace ktr::soak
