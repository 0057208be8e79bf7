#pragma once

#include "Device.h"
#include "Problems.h"

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

namespace ktr::soak {

/// HTTP clients as nobody wants them. Each has to get an error for an answer, or the end of its
/// connection, in bounded time.
class BadClients {
public:
    BadClients(Device& device_, Problems& problems_) : device(device_), problems(problems_) {}
    ~BadClients() { join(); }
    BadClients(const BadClients&) = delete;
    BadClients& operator=(const BadClients&) = delete;

    /// One after the other.
    void sendRubbish(std::uint32_t seed);

    /// Sends half a request and waits, in the background.
    void stall(bool inBody);

    /// Opens more connections than the host serves and leaves them idle for a while.
    void crowd();

    /// Waits for those in the background.
    void join();

    std::uint64_t refused() const { return refusals; }

private:
    void send(const std::string& bytes, const std::string& what);

    Device& device;
    Problems& problems;
    std::atomic<std::uint64_t> refusals{0};
    std::vector<std::thread> stalled;
};

} // namespace ktr::soak
