#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <fcntl.h>
#include <new>
#include <sys/mman.h>
#include <unistd.h>

namespace ktr::bench {

constexpr std::size_t kPlugins = 100;
/// Service number i reports the port kFirstPort + i, by which its plugin knows itself.
constexpr std::uint16_t kFirstPort = 20'000;
/// Stands in the plugin once; copy number i bears the number in place of the last four characters.
constexpr const char* kGuid = "b0070000-0000-4000-8000-00000000ffff";
constexpr std::size_t kGuidHead = 32;
/// The environment variable that names the file with the Storm.
constexpr const char* kStormVariable = "KETRA_BENCH_STORM";

/// What a plugin and its service note, in nanoseconds of the monotonic clock.
struct Notes {
    /// The service's main has begun.
    std::atomic<std::int64_t> launched{0};
    std::atomic<int> launches{0};
    /// The plugin's start has ended.
    std::atomic<std::int64_t> started{0};
    std::atomic<int> starts{0};
};

/// One boot, in memory that the program, the plugins inside the host and the services share.
struct Storm {
    /// How long each plugin's start takes.
    std::atomic<std::int64_t> startNanoseconds{0};
    std::array<Notes, kPlugins> notes;
};

inline std::int64_t monotonicTime() {
    return std::chrono::steady_clock::now().time_since_epoch() / std::chrono::nanoseconds(1);
}

/// The file, mapped until the process ends; null if that fails. `create` makes it.
inline Storm* mapStorm(const char* file, bool create = false) {
    const int fd = open(file, O_RDWR | O_CLOEXEC | (create ? O_CREAT | O_EXCL : 0), 0600);
    if (fd < 0 || (create && ftruncate(fd, sizeof(Storm)) != 0))
        return nullptr;
    void* const memory =
        mmap(nullptr, sizeof(Storm), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_POPULATE, fd, 0);
    close(fd);
    if (memory == MAP_FAILED)
        return nullptr;
    return create ? new (memory) Storm() : static_cast<Storm*>(memory);
}

} // namespace ktr::bench
