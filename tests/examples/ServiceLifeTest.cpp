#include "examples/FakeHost.h"
#include "examples/ServiceProcess.h"

#include "support/TempDir.h"
#include "support/WaitUntil.h"

#include <Poco/Net/ServerSocket.h>

#include <gmock/gmock.h>

#include <csignal>
#include <string>

namespace ktr::example::test {
namespace {

using namespace std::chrono_literals;
using ktr::test::waitUntil;
using ::testing::HasSubstr;

/// What every example service owes the host, whatever it is written in.
class ServiceLifeTest : public ::testing::TestWithParam<const char*> {
protected:
    ServiceProcess run(const std::vector<std::string>& arguments) const {
        return ServiceProcess(exampleService(GetParam()), arguments, (dir / "output").string(),
                              {"KETRA_RECORDER_DB=" + (dir / "recorder.db").string()});
    }

    const ktr::test::TempDir dir;
};

INSTANTIATE_TEST_SUITE_P(Examples, ServiceLifeTest,
                         ::testing::Values("ketra-thermometer", "ketra-recorder",
                                           "ketra-heartbeat"),
                         [](const auto& tested) { return std::string(tested.param).substr(6); });

TEST_P(ServiceLifeTest, reportsUntilTheHostAcceptsAndThenNoMore) {
    FakeHost host(2);
    ServiceProcess service = run({std::to_string(host.port())});
    ASSERT_TRUE(waitUntil([&] { return host.count() == 3; }, 20s));
    for (const auto& report : host.reports()) {
        EXPECT_EQ("127.0.0.1", report.at("ip"));
        EXPECT_GT(std::stoi(report.at("port")), 1024);
        EXPECT_EQ(36U, report.at("guid").size());
        EXPECT_EQ(1U, report.count("type"));
    }
    ASSERT_TRUE(waitUntil(
        [&] { return service.output().find("reported to the host") != std::string::npos; }));
    EXPECT_EQ(3U, host.count());
}

TEST_P(ServiceLifeTest, endsWithinASecondOfSigtermWhileItWaitsForTheNextReport) {
    FakeHost host;
    ServiceProcess service = run({std::to_string(host.port())});
    ASSERT_TRUE(waitUntil(
        [&] { return service.output().find("reported to the host") != std::string::npos; }));
    service.signal(SIGTERM);
    EXPECT_EQ(0, service.waitForEnd(1s));
}

TEST_P(ServiceLifeTest, endsWithinASecondOfSigtermWhileTheHostDoesNotAnswer) {
    const Poco::Net::ServerSocket silent(Poco::Net::SocketAddress("127.0.0.1", 0));
    ServiceProcess service = run({std::to_string(silent.address().port())});
    ASSERT_TRUE(silent.poll(Poco::Timespan(10, 0), Poco::Net::Socket::SELECT_READ));
    service.signal(SIGTERM);
    EXPECT_EQ(0, service.waitForEnd(1s));
}

TEST_P(ServiceLifeTest, explainsItselfWithHelp) {
    ServiceProcess service = run({"--help"});
    EXPECT_EQ(0, service.waitForEnd());
    EXPECT_THAT(service.output(), HasSubstr(std::string("usage: ") + GetParam()));
}

TEST_P(ServiceLifeTest, refusesToRunWithoutThePortOfTheHost) {
    for (const std::vector<std::string>& arguments :
         std::vector<std::vector<std::string>>{{}, {"abc"}, {"0"}, {"65536"}, {""}, {"1", "2"}}) {
        ServiceProcess service = run(arguments);
        EXPECT_EQ(64, service.waitForEnd()) << (arguments.empty() ? "" : arguments[0]);
        EXPECT_THAT(service.output(), HasSubstr("wants the host's port"));
    }
}

} // namespace
} // namespace ktr::example::test
