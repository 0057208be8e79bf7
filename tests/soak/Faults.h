#pragma once

#include "BadClients.h"
#include "Device.h"
#include "MqttPeer.h"
#include "Problems.h"
#include "Queries.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <random>
#include <string>
#include <vector>

namespace ktr::soak {

/// What is done to the host and to what it works with. Each kind waits until what it did is
/// mended, and tells if that takes too long.
class Faults {
public:
    struct Restarts {
        std::uint64_t count = 0;
        std::chrono::milliseconds slowest{0};
    };

    /// `interrupted` ends what runs as soon as possible.
    Faults(Device& device_, Queries& queries_, MqttPeer& mqtt_, Problems& problems_,
           const std::atomic<bool>& interrupted_);

    /// Each kind once, in random order.
    void runEach();

    /// One at random every few seconds of each sort: those of services and plugins, and beside them
    /// those of what is around the host.
    void runUntil(std::chrono::steady_clock::time_point end);

    /// The host has served as many connections as it may, so that it has all its threads.
    void crowd() { clients.crowd(); }

    /// How often each kind was done.
    std::map<std::string, int> counts() const;
    const Restarts& restarts() const { return restarted; }
    std::uint64_t refused() const { return clients.refused(); }

private:
    struct Kind {
        std::string name;
        std::function<void()> work;
    };
    /// Runs on one thread.
    struct Sort {
        std::vector<Kind> kinds;
        std::minstd_rand random;
    };

    Sort ofServices();
    Sort ofSurroundings();
    void eachOf(Sort& sort);
    void someOf(Sort& sort, std::chrono::steady_clock::time_point end);
    void inBothSorts(const std::function<void(Sort&)>& work);
    void run(const Kind& kind);

    void killService();
    void stopService();
    void flood();
    void throwIn(Place place);
    void restartBroker();
    void fillDisk();
    void takeDescriptors();

    std::uint32_t anyOf(std::minstd_rand& random) const;
    void killAndAwait(std::uint32_t service);
    void awaitReport(std::uint32_t service);
    void pause(std::chrono::milliseconds time) const;

    Device& device;
    Queries& queries;
    MqttPeer& mqtt;
    Problems& problems;
    const std::atomic<bool>& interrupted;
    BadClients clients;
    Restarts restarted;
    Sort services;
    Sort surroundings;

    mutable std::mutex mutex;
    // guarded by mutex
    std::map<std::string, int> done;
};

} // namespace ktr::soak
