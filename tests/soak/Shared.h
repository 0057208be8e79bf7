#pragma once

#include "Event.h"

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <fcntl.h>
#include <filesystem>
#include <new>
#include <stdexcept>
#include <string>
#include <sys/mman.h>
#include <unistd.h>

namespace ktr::soak {

/// Where a plugin is told to throw.
enum class Place : int { nowhere, message, start, stop };

/// One call of a plugin's onMessage.
struct Delivery {
    EventId id;
    std::uint32_t receiver = 0;
    /// The thread that it ran on.
    std::int32_t thread = 0;
};

struct PluginState {
    std::atomic<Place> throwNext;
    /// Objects made, or not made because the one before threw in stop: one for each notification.
    std::atomic<std::uint64_t> notifications;
    std::atomic<std::uint64_t> starts;
    /// Events whose text was not what was raised.
    std::atomic<std::uint64_t> altered;
    /// MQTT messages handed to the host's client, and taken from it.
    std::atomic<std::uint64_t> published;
    std::atomic<std::uint64_t> received;
};

/// Times are those of monotonicTime().
struct ServiceState {
    std::atomic<std::int32_t> pid;
    std::atomic<std::uint64_t> starts;
    std::atomic<std::int64_t> startedAt;
    std::atomic<std::int64_t> reportedAt;
    /// Set to have it flood its output, cleared by itself.
    std::atomic<bool> flood;
};

struct Slot {
    /// One more than the delivery's place in the journal, once it is written.
    std::atomic<std::uint64_t> turn;
    Delivery delivery;
};

/// What the driver, the plugins inside the host and the services tell each other: memory, so that
/// it works whatever happens to sockets, files and descriptors, and outlives whoever is killed.
struct Shared {
    static constexpr std::size_t kJournal = 1 << 16;

    std::uint32_t seed;
    /// While set, services do not report, and plugins raise no events and publish nothing.
    std::atomic<bool> noReports;
    std::atomic<bool> noEvents;
    /// Events raised, for each stream: counted just before the host gets it.
    std::array<std::atomic<std::uint64_t>, kStreams> sent;
    /// Events raised that have not reached their last recipient, for each path.
    std::array<std::atomic<int>, kPaths> undelivered;
    std::array<std::atomic<int>, kPaths> mostUndelivered;
    std::array<PluginState, kPlugins> plugins;
    std::array<ServiceState, kPlugins> services;

    // The journal of deliveries, in the order in which they began.
    std::atomic<std::uint64_t> written;
    std::atomic<std::uint64_t> read;
    std::array<Slot, kJournal> journal;

    void note(const Delivery& delivery) {
        const std::uint64_t place = written.fetch_add(1);
        Slot& slot = journal.at(place % kJournal);
        slot.delivery = delivery;
        slot.turn = place + 1;
    }

    /// Whether the reader of the journal keeps up.
    bool hasRoom() const { return written - read < kJournal / 2; }
};

inline std::int64_t monotonicTime() {
    return std::chrono::steady_clock::now().time_since_epoch() / std::chrono::milliseconds(1);
}

/// The file lies in the device's root, two folders above every plugin and service.
inline std::filesystem::path sharedFile(const std::filesystem::path& pluginOrService) {
    return pluginOrService.parent_path().parent_path() / "soak.shared";
}

/// The number at the end of a plugin's or service's name.
inline std::uint32_t numberOf(const std::filesystem::path& pluginOrService) {
    const std::string name = pluginOrService.stem();
    return static_cast<std::uint32_t>(std::stoul(name.substr(name.rfind('-') + 1)));
}

/// The file, mapped; stays so until the process ends, since threads may outlive everything else.
inline Shared& mapShared(const std::filesystem::path& file, bool create = false) {
    const int flags = create ? O_RDWR | O_CREAT | O_EXCL : O_RDWR;
    const int fd = open(file.c_str(), flags | O_CLOEXEC, 0600);
    if (fd < 0 || (create && ftruncate(fd, sizeof(Shared)) != 0))
        throw std::runtime_error("cannot open " + file.string());
    // all pages at once, so that they do not look like growth later
    void* const memory =
        mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_POPULATE, fd, 0);
    close(fd);
    if (memory == MAP_FAILED)
        throw std::runtime_error("cannot map " + file.string());
    return create ? *new (memory) Shared() : *static_cast<Shared*>(memory);
}

} // namespace ktr::soak
