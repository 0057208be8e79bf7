#pragma once

#include <filesystem>

namespace ktr::soak {

/// Gives the calling process mounts of its own, which end with it and its children, however they
/// end. To be called while there is one thread. False if the system does not allow it.
bool makeMountsPrivate();

/// A small disk of its own for the host's log, where one can be mounted; else a plain folder, which
/// cannot be filled.
class LogDisk {
public:
    LogDisk(std::filesystem::path folder, bool mayMount);
    ~LogDisk();
    LogDisk(const LogDisk&) = delete;
    LogDisk& operator=(const LogDisk&) = delete;

    bool canBeFilled() const { return mounted; }
    std::filesystem::path logFile() const { return folder / "ketra.log"; }

    /// Leaves no byte free, until free().
    void fill() const;
    void free() const;

private:
    std::filesystem::path filler() const { return folder / "filler"; }

    const std::filesystem::path folder;
    bool mounted = false;
};

} // namespace ktr::soak
