#include "support/HostProcess.h"
#include "support/PuppetClient.h"

#include <Poco/Net/ServerSocket.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <sys/stat.h>
#include <thread>

namespace ktr::test {
namespace {

using testing::HasSubstr;
using testing::Not;

class ShutdownTest : public testing::Test {
protected:
    void expectNothingLeft() const { EXPECT_TRUE(processesBelow(root.path()).empty()); }

    /// Waits until each of the services has started.
    bool waitServices(const std::vector<std::string>& services) const {
        return waitUntil([&] {
            return std::all_of(services.begin(), services.end(), [&](const std::string& service) {
                return !root.startsOf(service).empty();
            });
        });
    }

    DeviceRoot root;
};

class SignalTest : public ShutdownTest, public testing::WithParamInterface<int> {};

TEST_P(SignalTest, EndsTheHostInOrder) {
    root.addPlugin("puppet");
    const std::string service = root.addService("guid=puppet");
    HostProcess host(root);
    ASSERT_TRUE(host.waitReady()) << host.err();
    ASSERT_TRUE(PuppetClient(host.port(), "puppet").waitStarted()) << host.err();

    host.signal(GetParam());
    EXPECT_EQ(host.waitForExit(), 0) << host.err();
    expectNothingLeft();
    const std::string log = host.err();
    EXPECT_THAT(log, HasSubstr("microservice " + service + " running, stop it"));
    EXPECT_THAT(log, HasSubstr("----end PluginUnLoadAll-plugin: puppet"));
    EXPECT_LT(log.find("running, stop it"), log.find("----before PluginUnLoadAll-plugin"));
}

INSTANTIATE_TEST_SUITE_P(Each, SignalTest, testing::Values(SIGINT, SIGTERM, SIGHUP),
                         [](const auto& tested) { return sigabbrev_np(tested.param); });

TEST_F(ShutdownTest, LeavesNoServiceAndNoGrandchild) {
    const std::string parent = root.addService("grandchild=yes");
    const std::string stubborn = root.addService("ignore-term=yes");
    const std::string stubbornParent = root.addService("ignore-term=yes\ngrandchild=yes");
    HostProcess host(root);
    ASSERT_TRUE(host.waitReady()) << host.err();
    ASSERT_TRUE(waitServices({parent, stubborn, stubbornParent}));
    EXPECT_EQ(processesBelow(root.path()).size(), 5U);
    host.signal(SIGTERM);
    EXPECT_EQ(host.waitForExit(), 0) << host.err();
    expectNothingLeft();
}

TEST_F(ShutdownTest, FurtherSignalsChangeNothing) {
    root.addPlugin("puppet", "stop=hold\n");
    const std::string service = root.addService("guid=puppet");
    HostProcess host(root);
    ASSERT_TRUE(host.waitReady()) << host.err();
    ASSERT_TRUE(PuppetClient(host.port(), "puppet").waitStarted()) << host.err();
    host.signal(SIGTERM);
    host.signal(SIGINT);
    host.signal(SIGTERM);
    ASSERT_TRUE(waitUntil([&] { return root.isHeld("puppet", "stop"); }));
    host.signal(SIGTERM);
    host.signal(SIGINT);
    EXPECT_FALSE(host.waitForExit(std::chrono::milliseconds(100)));
    root.letGo("puppet", "stop");
    EXPECT_EQ(host.waitForExit(), 0) << host.err();
    expectNothingLeft();
}

TEST_F(ShutdownTest, ASignalWhilePluginsLoadEndsTheStartUpAfterThatStep) {
    root.addPlugin("slow", "load=hold\n");
    const std::string service = root.addService();
    HostProcess host(root);
    ASSERT_TRUE(waitUntil([&] { return root.isHeld("slow", "load"); })) << host.err();
    host.signal(SIGTERM);
    EXPECT_FALSE(host.waitForExit(std::chrono::milliseconds(100)));
    root.letGo("slow", "load");
    EXPECT_EQ(host.waitForExit(), 0) << host.err();
    EXPECT_EQ(host.out(), "");
    EXPECT_TRUE(root.startsOf(service).empty());
    EXPECT_THAT(host.err(), HasSubstr("----end PluginUnLoadAll-plugin"));
}

TEST_F(ShutdownTest, ASignalAtAnyMomentOfTheStartUpEndsTheHostInOrder) {
    root.addPlugin("puppet");
    const std::string service = root.addService("guid=puppet\ngrandchild=yes");
    constexpr int rounds = 8;
    std::chrono::microseconds startUp{};
    {
        HostProcess host(root);
        ASSERT_TRUE(host.waitSignalsBlocked());
        const auto begin = std::chrono::steady_clock::now();
        ASSERT_TRUE(host.waitReady()) << host.err();
        startUp = std::chrono::duration_cast<std::chrono::microseconds>(
            std::chrono::steady_clock::now() - begin);
    }
    for (int round = 0; round < rounds; ++round) {
        SCOPED_TRACE(round);
        HostProcess host(root);
        ASSERT_TRUE(host.waitSignalsBlocked());
        // not a wait for something: each round hits another moment
        std::this_thread::sleep_for(startUp * round / rounds);
        host.signal(SIGTERM);
        EXPECT_EQ(host.waitForExit(), 0) << host.err();
        expectNothingLeft();
    }
}

TEST_F(ShutdownTest, APluginThatHangsInStopCannotHoldTheHost) {
    root.addPlugin("stuck", "stop=hold\n");
    const std::string service = root.addService("guid=stuck");
    HostProcess host(root, {"--shutdown-timeout=2"});
    ASSERT_TRUE(host.waitReady()) << host.err();
    ASSERT_TRUE(PuppetClient(host.port(), "stuck").waitStarted()) << host.err();
    const auto begin = std::chrono::steady_clock::now();
    host.signal(SIGTERM);
    EXPECT_EQ(host.waitForExit(), 75);
    const auto took = std::chrono::steady_clock::now() - begin;
    EXPECT_GE(took, std::chrono::milliseconds(1900));
    EXPECT_LT(took, std::chrono::seconds(8));
    EXPECT_THAT(host.err(), HasSubstr("\nketra-host: step 'unload plugins' hangs"));
    EXPECT_THAT(host.err(), HasSubstr(" Fatal "));
    expectNothingLeft();
}

TEST_F(ShutdownTest, APluginThatHangsInStartCannotHoldTheHost) {
    root.addPlugin("stuck", "start=hold\n");
    HostProcess host(root, {"--shutdown-timeout=1"});
    ASSERT_TRUE(host.waitReady()) << host.err();
    PuppetClient(host.port(), "stuck").report(41000);
    ASSERT_TRUE(waitUntil([&] { return root.isHeld("stuck", "start"); }));
    host.signal(SIGTERM);
    EXPECT_EQ(host.waitForExit(), 75);
    EXPECT_THAT(host.err(), HasSubstr("step 'finish plugin starts' hangs"));
}

TEST_F(ShutdownTest, APluginThatHangsInPluginLoadCannotHoldTheHost) {
    root.addPlugin("stuck", "load=hold\n");
    HostProcess host(root, {"--shutdown-timeout=1"});
    ASSERT_TRUE(waitUntil([&] { return root.isHeld("stuck", "load"); })) << host.err();
    host.signal(SIGTERM);
    EXPECT_EQ(host.waitForExit(), 75);
    EXPECT_THAT(host.err(), HasSubstr("step 'load plugins' hangs"));
}

TEST_F(ShutdownTest, TheWatchKillsServicesThatAreNotEndedInTime) {
    std::vector<std::string> services;
    services.reserve(4);
    for (int i = 0; i < 4; ++i)
        services.push_back(root.addService("ignore-term=yes\ngrandchild=yes"));
    HostProcess host(root, {"--shutdown-timeout=1"});
    ASSERT_TRUE(host.waitReady()) << host.err();
    ASSERT_TRUE(waitServices(services));
    host.signal(SIGTERM);
    EXPECT_EQ(host.waitForExit(), 75);
    EXPECT_THAT(host.err(), HasSubstr("step 'stop services' hangs"));
    EXPECT_TRUE(waitUntil([this] { return processesBelow(root.path()).empty(); },
                          std::chrono::milliseconds(500)));
}

TEST_F(ShutdownTest, TheWatchWorksWhenNobodyReadsTheOutput) {
    // a full pipe blocks whoever logs
    const auto pipe = root.notes() / "pipe";
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    const int end = open(pipe.c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_GE(end, 0);
    root.addPlugin("stuck", "load=hold\n");
    HostProcess host(root, {"--shutdown-timeout=1", "--log-file=" + pipe.string()});
    ASSERT_TRUE(waitUntil([&] { return root.isHeld("stuck", "load"); })) << host.err();
    const std::string filler(4096, 'x');
    fcntl(end, F_SETFL, O_NONBLOCK);
    while (write(end, filler.data(), filler.size()) > 0)
        continue;
    host.signal(SIGTERM);
    EXPECT_EQ(host.waitForExit(), 75);
    EXPECT_THAT(host.err(), HasSubstr("step 'load plugins' hangs"));
    close(end);
}

TEST_F(ShutdownTest, APluginThatThrowsInStopIsLoggedAndTheHostEnds) {
    root.addPlugin("thrower", "stop=throw\n");
    HostProcess host(root);
    ASSERT_TRUE(host.waitReady()) << host.err();
    const PuppetClient plugin(host.port(), "thrower");
    plugin.report(41000);
    ASSERT_TRUE(plugin.waitStarted());
    host.signal(SIGTERM);
    EXPECT_EQ(host.waitForExit(), 0) << host.err();
    EXPECT_THAT(host.err(), HasSubstr("puppet thrower throws in stop"));
}

TEST_F(ShutdownTest, AnUnansweringWebHookDoesNotUseUpTheTime) {
    const Poco::Net::ServerSocket silent(Poco::Net::SocketAddress("127.0.0.1", 0));
    root.addPlugin("puppet");
    HostProcess host(root, {"--shutdown-timeout=3",
                            "--webhook-url=http://" + silent.address().toString() + "/"});
    ASSERT_TRUE(host.waitReady()) << host.err();
    PuppetClient(host.port(), "puppet").report(41000);
    ASSERT_TRUE(host.waitLogged("edge reportServerStarted"));
    host.signal(SIGTERM);
    EXPECT_EQ(host.waitForExit(), 0) << host.err();
    EXPECT_THAT(host.err(), Not(HasSubstr("hangs")));
}

} // namespace
} // namespace ktr::test
