#pragma once

#include "RawClient.h"

#include <Poco/Exception.h>
#include <Poco/Net/SocketAddress.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <utility>

namespace ktr::test {

/// A well-behaved client that goes on asking for `path`, each time on a connection of its own,
/// while others misbehave.
class GoodClient {
public:
    GoodClient(const Poco::Net::SocketAddress& server_, std::string path_)
        : server(server_), path(std::move(path_)), thread([this] { run(); }) {}
    ~GoodClient() { stop(); }
    GoodClient(const GoodClient&) = delete;
    GoodClient& operator=(const GoodClient&) = delete;

    /// How often it was answered.
    int answers() const { return answered; }

    /// Stops, and returns the longest time between a question and its answer, of status 200. A
    /// connection that ends without one costs the time that it took.
    std::chrono::milliseconds longestWait() {
        stop();
        return longest;
    }

private:
    using Clock = std::chrono::steady_clock;

    void stop() {
        {
            const std::lock_guard<std::mutex> lock(mutex);
            stopped = true;
        }
        changed.notify_all();
        if (thread.joinable())
            thread.join();
    }

    void run() {
        std::unique_lock<std::mutex> lock(mutex);
        do {
            lock.unlock();
            ask();
            lock.lock();
        } while (
            !changed.wait_for(lock, std::chrono::milliseconds(10), [this] { return stopped; }));
    }

    void ask() {
        const auto start = Clock::now();
        while (!isAnswered() && Clock::now() - start < std::chrono::seconds(20)) {
        }
        longest = std::max(
            longest, std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start));
        ++answered;
    }

    bool isAnswered() const {
        try {
            RawClient client(server);
            client.send("GET " + path + " HTTP/1.1\r\nHost: host\r\nConnection: close\r\n\r\n");
            return client.answer().rfind("HTTP/1.1 200", 0) == 0;
        } catch (const Poco::Exception&) {
            return false;
        }
    }

    const Poco::Net::SocketAddress server;
    const std::string path;
    std::atomic<int> answered{0};
    std::chrono::milliseconds longest{0};

    std::mutex mutex;
    std::condition_variable changed;
    bool stopped = false;
    std::thread thread;
};

} // namespace ktr::test
