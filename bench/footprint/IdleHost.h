#pragma once

#include "support/HostProcess.h"

namespace ktr::bench {

/// A host without plugins and services that has nothing to do.
class IdleHost {
public:
    /// Throws std::runtime_error if the host does not come up and to rest.
    IdleHost();

    struct Memory {
        /// Bytes in memory, and those of them that no file backs, such as the heap.
        double resident = 0;
        double anonymous = 0;
    };
    Memory memory() const;

    struct Threads {
        int all = 0;
        /// Beside the main thread, those that bear the program's name and nothing of their own.
        int nameless = 0;
    };
    Threads threads() const;

    int descriptors() const;

    /// Shared libraries that are mapped.
    int libraries() const;

private:
    bool isAtRest() const;
    std::filesystem::path proc() const;

    test::DeviceRoot root;
    test::HostProcess host;
};

} // namespace ktr::bench
