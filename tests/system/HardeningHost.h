#pragma once

#include "support/GoodClient.h"
#include "support/HostProcess.h"
#include "support/RawClient.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <filesystem>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace ktr::test {

/// A host that clients mistreat while a good one is served. In the end the good one has never
/// waited for long, the host holds what it held before, and ends in order.
class HardeningTest : public testing::Test {
protected:
    /// Answers without parameters too, and does nothing then.
    static constexpr const char* kReport = "/index/api/all/report";
    static constexpr const char* kMissing = "/no/such/route";

    void SetUp() override {
        host.emplace(root);
        ASSERT_TRUE(host->waitReady()) << host->err();
        address = Poco::Net::SocketAddress("127.0.0.1", host->port());
        {
            // idle threads go a second later: those of the last few clients may still be there
            std::array<RawClient, 4> few{RawClient(address), RawClient(address), RawClient(address),
                                         RawClient(address)};
            for (RawClient& client : few) {
                client.send(get(kReport));
                client.answer();
            }
            threads = count("task");
            descriptors = count("fd") - few.size();
        }
        good.emplace(address, kReport);
    }

    void TearDown() override {
        if (!good)
            return;
        EXPECT_TRUE(waitUntil([this] { return good->answers() >= 3; }));
        EXPECT_LT(good->longestWait(), patience);
        EXPECT_TRUE(waitUntil([this] { return count("fd") <= descriptors; }))
            << count("fd") << " of " << descriptors;
        EXPECT_TRUE(waitUntil([this] { return count("task") <= threads; }))
            << count("task") << " of " << threads;
        host->signal(SIGTERM);
        EXPECT_EQ(host->waitForExit(), 0) << host->err();
    }

    static std::string get(const std::string& target) {
        return "GET " + target + " HTTP/1.1\r\n\r\n";
    }

    std::size_t count(const std::string& what) const {
        const std::string folder = "/proc/" + std::to_string(host->pid()) + "/" + what;
        const std::filesystem::directory_iterator begin(folder);
        return static_cast<std::size_t>(std::distance(begin, {}));
    }

    DeviceRoot root;
    std::optional<HostProcess> host;
    Poco::Net::SocketAddress address;
    std::size_t threads = 0;
    std::size_t descriptors = 0;
    std::optional<GoodClient> good;
#ifdef __SANITIZE_THREAD__
    // that one slows everything down by ten, more than a thousand clients do
    std::chrono::milliseconds patience{5000};
#else
    std::chrono::milliseconds patience{1000};
#endif
};

} // namespace ktr::test
