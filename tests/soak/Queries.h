#pragma once

#include "Device.h"
#include "Problems.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

namespace ktr::soak {

/// Asks the plugins on their HTTP routes, from several threads, while it lives. Whatever else is
/// done to the host, every question has to be answered in the end.
class Queries {
public:
    /// How long that may take: a descriptor short for a while, a plugin that threw in start until
    /// its service reports again.
    static constexpr std::chrono::seconds kPatience{15};

    Queries(Device& device_, Problems& problems_);
    ~Queries();
    Queries(const Queries&) = delete;
    Queries& operator=(const Queries&) = delete;

    /// Returns once none is under way.
    void pause();
    void resume();

    /// Whether `plugin` answers within kPatience.
    bool ask(std::uint32_t plugin);

    std::uint64_t answered() const { return answers; }
    /// Asked in vain before: no connection, or the plugin's route was not there.
    std::uint64_t askedAgain() const { return repeats; }

private:
    enum class Outcome { answered, again, wrong };

    void run(std::uint32_t seed);
    Outcome askOnce(std::uint32_t plugin, const std::string& value);

    Device& device;
    Problems& problems;
    std::atomic<std::uint64_t> answers{0};
    std::atomic<std::uint64_t> repeats{0};
    std::atomic<bool> ending{false};
    std::atomic<bool> paused{false};
    std::atomic<int> busy{0};
    std::vector<std::thread> threads;
};

} // namespace ktr::soak
