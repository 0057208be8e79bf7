#pragma once

#include <cstddef>

namespace ktr::bench {

/// Watches how much of the process is resident. One at a time.
class PeakMemory {
public:
    /// Gives back what the heap does not use, and begins. Throws Poco::Exception if /proc tells
    /// nothing.
    PeakMemory();

    /// In bytes, from the beginning to the highest value since.
    std::size_t growth() const;

private:
    std::size_t before = 0;
};

} // namespace ktr::bench
