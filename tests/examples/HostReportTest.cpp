#include "common/HostReport.h"

#include "examples/FakeHost.h"
#include "support/WaitUntil.h"

#include <Poco/Net/ServerSocket.h>

#include <gmock/gmock.h>

#include <chrono>
#include <optional>

namespace ktr::example {
namespace {

using namespace std::chrono_literals;

ReportTiming quick() {
    ReportTiming timing;
    timing.firstDelay = 1ms;
    timing.maxDelay = 4ms;
    timing.repeat = 1h;
    return timing;
}

const ServiceAddress kService{"test", "127.0.0.1", 4711, -3, "g u&i=d"};

TEST(HostReportTest, tellsAddressTypeAndGuid) {
    test::FakeHost host;
    const HostReport report(host.port(), kService, quick());
    ASSERT_TRUE(ktr::test::waitUntil([&] { return host.count() > 0; }));
    const test::FakeHost::Report expected{
        {"ip", "127.0.0.1"}, {"port", "4711"}, {"type", "-3"}, {"guid", "g u&i=d"}};
    EXPECT_EQ(expected, host.reports().at(0));
}

TEST(HostReportTest, repeatsUntilTheHostAccepts) {
    test::FakeHost host(3);
    {
        const HostReport report(host.port(), kService, quick());
        ASSERT_TRUE(ktr::test::waitUntil([&] { return host.count() == 4; }));
    }
    EXPECT_EQ(4U, host.count());
}

TEST(HostReportTest, reportsAgainAtIntervals) {
    test::FakeHost host;
    ReportTiming timing = quick();
    timing.repeat = 1ms;
    const HostReport report(host.port(), kService, timing);
    EXPECT_TRUE(ktr::test::waitUntil([&] { return host.count() >= 5; }));
}

TEST(HostReportTest, saysOnceThatTheHostDoesNotAnswer) {
    Poco::Net::ServerSocket socket(Poco::Net::SocketAddress("127.0.0.1", 0));
    ::testing::internal::CaptureStderr();
    {
        const HostReport report(socket.address().port(), kService, quick());
        for (int attempt = 0; attempt < 4; ++attempt)
            socket.acceptConnection().close();
    }
    const std::string said = ::testing::internal::GetCapturedStderr();
    EXPECT_THAT(said, ::testing::HasSubstr("failed, will be repeated"));
    EXPECT_EQ(said.find("failed, will"), said.rfind("failed, will")) << said;
}

TEST(HostReportTest, endsAtOnceWhileTheHostDoesNotAnswer) {
    // connections are made, but nobody takes them
    const Poco::Net::ServerSocket silent(Poco::Net::SocketAddress("127.0.0.1", 0));
    std::optional<HostReport> report;
    report.emplace(silent.address().port(), kService, quick());
    ASSERT_TRUE(silent.poll(Poco::Timespan(10, 0), Poco::Net::Socket::SELECT_READ));
    const auto begin = std::chrono::steady_clock::now();
    report.reset();
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 1s);
}

} // namespace
} // namespace ktr::example
