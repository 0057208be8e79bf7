#pragma once

#include <filesystem>
#include <string>
#include <sys/types.h>

namespace ktr::cli {

/// A device's root in a temporary folder, for one plugin and its service, which lie there as links.
///
/// A process of its own removes it, and ends what is left of the service, however this process
/// ends: plugins crash while they are written.
class ThrowAwayRoot {
public:
    /// `service` is empty for none. Both are absolute. To be made while there is one thread only.
    /// Throws Failure.
    ThrowAwayRoot(const std::filesystem::path& plugin, const std::filesystem::path& service);
    /// Removes it.
    ~ThrowAwayRoot();
    ThrowAwayRoot(const ThrowAwayRoot&) = delete;
    ThrowAwayRoot& operator=(const ThrowAwayRoot&) = delete;

    /// Makes it the current directory.
    void enter() const;

    /// Removes the root of this process, if there is one, from any thread, for an end in disorder.
    static void removeOnly();

private:
    void remove();
    void makeTree(const std::filesystem::path& plugin, const std::filesystem::path& service) const;
    void startCleaner();

    std::filesystem::path folder;
    /// What the service is called, which nothing else on the machine is: the host ends by name what
    /// is left of its services.
    std::string serviceName;
    pid_t cleaner = -1;
    /// Its end tells the cleaner.
    int lifeLine = -1;
};

} // namespace ktr::cli
