// What the host tells the service manager that has started it.

#include "support/Certificates.h"
#include "support/HostProcess.h"
#include "support/Ipv6.h"
#include "support/NotifySocket.h"
#include "support/OwnAddress.h"
#include "support/PuppetClient.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <thread>

namespace ktr::test {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsSupersetOf;
using testing::Not;
using testing::StartsWith;

const std::string kAlive = "WATCHDOG=1";
const std::string kStopping = "STOPPING=1";
const std::string kServerStalls = "the web API does not answer";
const std::string kLockStalls = "a plugin holds the registry's lock";

bool isReady(const std::string& message) {
    return message.rfind("READY=1\n", 0) == 0;
}

bool hasWatchdog(pid_t pid) {
    for (const auto& task :
         std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task"))
        if (readFile(task.path() / "comm") == "watchdog\n")
            return true;
    return false;
}

class NotifyTest : public testing::Test {
protected:
    /// The messages up to now, without those of the watchdog.
    std::vector<std::string> told() {
        std::vector<std::string> messages = manager.messages();
        messages.erase(std::remove(messages.begin(), messages.end(), kAlive), messages.end());
        return messages;
    }

    bool waitTold(const std::string& message) {
        return waitUntil([&] { return testing::Matches(Contains(message))(manager.messages()); },
                         std::chrono::seconds(20));
    }

    int pings() {
        const auto messages = manager.messages();
        return static_cast<int>(std::count(messages.begin(), messages.end(), kAlive));
    }

    bool waitPings(int further) {
        const int wanted = pings() + further;
        return waitUntil([&] { return pings() >= wanted; }, std::chrono::seconds(20));
    }

    bool waitReady() {
        return waitUntil(
            [&] {
                const auto messages = manager.messages();
                return std::any_of(messages.begin(), messages.end(), isReady);
            },
            std::chrono::seconds(30));
    }

    DeviceRoot root;
    NotifySocket manager;
};

TEST_F(NotifyTest, IsReadyWhenPluginsAndServicesAreUpAndThePortIsServed) {
    root.addPlugin("slow", "load=hold\n");
    root.addService();
    HostProcess host(root);
    ASSERT_TRUE(waitUntil([&] { return root.isHeld("slow", "load"); })) << host.err();
    EXPECT_EQ(told().back(), "STATUS=load plugins");
    EXPECT_THAT(told(), Not(Contains(StartsWith("READY"))));
    root.letGo("slow", "load");
    ASSERT_TRUE(host.waitReady()) << host.err();
    ASSERT_TRUE(waitReady());
    const auto messages = told();
    EXPECT_THAT(messages, IsSupersetOf({"STATUS=bind", "STATUS=start services", "STATUS=serve"}));
    EXPECT_EQ(messages.back(), "READY=1\nSTATUS=ketra-host ready on http://127.0.0.1:" +
                                   std::to_string(host.port()));
    EXPECT_EQ(httpPost(host.port(), "/index/api/all/report").status, 200);
}

TEST_F(NotifyTest, SaysThatItStopsBeforeItDoes) {
    root.addPlugin("puppet", "stop=hold\n");
    HostProcess host(root);
    ASSERT_TRUE(host.waitReady()) << host.err();
    PuppetClient(host.port(), "puppet").report(41000);
    ASSERT_TRUE(PuppetClient(host.port(), "puppet").waitStarted()) << host.err();
    EXPECT_THAT(told(), Not(Contains(kStopping)));
    host.signal(SIGTERM);
    ASSERT_TRUE(waitUntil([&] { return root.isHeld("puppet", "stop"); })) << host.err();
    auto messages = told();
    messages.erase(messages.begin(), std::find_if(messages.begin(), messages.end(), isReady));
    EXPECT_THAT(messages, ElementsAre(StartsWith("READY=1"), kStopping, "STATUS=stop services",
                                      "STATUS=stop serving", "STATUS=finish plugin starts",
                                      "STATUS=unload plugins"));
    root.letGo("puppet", "stop");
    EXPECT_EQ(host.waitForExit(), 0) << host.err();
}

TEST_F(NotifyTest, IsNeverReadyWhenTheStartUpFails) {
    HostProcess first(root);
    ASSERT_TRUE(first.waitReady()) << first.err();
    NotifySocket other;
    const DeviceRoot otherRoot;
    HostProcess host(otherRoot, {"--port=" + std::to_string(first.port())});
    EXPECT_EQ(host.waitForExit(), 71) << host.err();
    const auto messages = other.messages();
    EXPECT_THAT(messages, IsSupersetOf({std::string("STATUS=bind"), kStopping}));
    EXPECT_TRUE(std::none_of(messages.begin(), messages.end(), isReady));
}

TEST_F(NotifyTest, IsNeverReadyWhenItIsToldToEndBefore) {
    root.addPlugin("slow", "load=hold\n");
    HostProcess host(root);
    ASSERT_TRUE(waitUntil([&] { return root.isHeld("slow", "load"); })) << host.err();
    host.signal(SIGTERM);
    root.letGo("slow", "load");
    EXPECT_EQ(host.waitForExit(), 0) << host.err();
    const auto messages = manager.messages();
    EXPECT_THAT(messages, Contains(kStopping));
    EXPECT_TRUE(std::none_of(messages.begin(), messages.end(), isReady));
}

TEST_F(NotifyTest, RunsWhenNobodyListensAndSaysSoOnce) {
    const Variable nowhere("NOTIFY_SOCKET", (root.notes() / "no-socket").string());
    HostProcess host(root);
    ASSERT_TRUE(host.waitReady()) << host.err();
    host.signal(SIGTERM);
    EXPECT_EQ(host.waitForExit(), 0);
    EXPECT_EQ(countOf(host.err(), "the service manager cannot be told"), 1) << host.err();
}

TEST_F(NotifyTest, ServicesSeeNothingOfIt) {
    const Variable watchdog("WATCHDOG_USEC", "60000000");
    const std::string service = root.addService("exit=3");
    HostProcess host(root);
    ASSERT_TRUE(host.waitReady()) << host.err();
    // the second is launched by supervision
    ASSERT_TRUE(waitUntil([&] { return root.startsOf(service).size() == 2; }));
    const auto environment = [](pid_t pid) {
        return readFile("/proc/" + std::to_string(pid) + "/environ");
    };
    ASSERT_THAT(environment(host.pid()), HasSubstr("NOTIFY_SOCKET="));
    const std::string seen = environment(root.startsOf(service)[1].pid);
    EXPECT_THAT(seen, HasSubstr("PATH="));
    EXPECT_THAT(seen, Not(HasSubstr("NOTIFY_SOCKET")));
    EXPECT_THAT(seen, Not(HasSubstr("WATCHDOG")));
    EXPECT_TRUE(hasWatchdog(host.pid()));
}

TEST_F(NotifyTest, WithoutAWatchdogNobodyLooks) {
    HostProcess host(root);
    ASSERT_TRUE(host.waitReady()) << host.err();
    EXPECT_FALSE(hasWatchdog(host.pid()));
}

TEST_F(NotifyTest, WithoutAServiceManagerNobodyLooks) {
    const Variable watchdog("WATCHDOG_USEC", "60000000");
    unsetenv("NOTIFY_SOCKET");
    HostProcess host(root);
    ASSERT_TRUE(host.waitReady()) << host.err();
    EXPECT_FALSE(hasWatchdog(host.pid()));
    EXPECT_EQ(told().size(), 0U);
}

class WatchdogTest : public NotifyTest {
protected:
    /// Starts a host whose only plugin, "puppet", holds the lock with its next message.
    void startWithHolder(const std::vector<std::string>& options = {}) {
        root.addPlugin("puppet", "message=hold\n");
        host.emplace(root, options);
        ASSERT_TRUE(host->waitReady()) << host->err();
        puppet.emplace(host->port(), "puppet");
        puppet->report(41000);
        ASSERT_TRUE(puppet->waitStarted()) << host->err();
    }

    void holdLock() {
        puppet->raise(R"({"to":["puppet"]})");
        ASSERT_TRUE(waitUntil([&] { return root.isHeld("puppet", "message"); })) << host->err();
    }

    /// Expects no ping from one complaint to the next but one.
    void expectSilence(const std::string& complaint) {
        ASSERT_TRUE(host->waitLogged(complaint)) << host->err();
        const int before = pings();
        ASSERT_TRUE(host->waitLogged(complaint, 3)) << host->err();
        EXPECT_EQ(pings(), before);
    }

    const Variable time{"WATCHDOG_USEC", "2000000"};
    std::optional<HostProcess> host;
    std::optional<PuppetClient> puppet;
};

TEST_F(WatchdogTest, TellsAgainAndAgainThatTheHostIsAliveAndLogsNothing) {
    root.addPlugin("puppet");
    host.emplace(root);
    ASSERT_TRUE(host->waitReady()) << host->err();
    ASSERT_TRUE(waitPings(1)) << host->err();
    const std::string log = host->err();
    ASSERT_TRUE(waitPings(5)) << host->err();
    EXPECT_EQ(host->err(), log);
    host->signal(SIGTERM);
    EXPECT_EQ(host->waitForExit(), 0) << host->err();
}

TEST_F(WatchdogTest, IsSilentWhileAPluginHoldsTheRegistrysLock) {
    startWithHolder();
    ASSERT_TRUE(waitPings(1));
    holdLock();
    expectSilence(kLockStalls);
    root.letGo("puppet", "message");
    EXPECT_TRUE(waitPings(3));
    host->signal(SIGTERM);
    EXPECT_EQ(host->waitForExit(), 0) << host->err();
}

TEST_F(WatchdogTest, IsSilentWhileHandlersHoldAllConnections) {
    const auto config = root.notes() / "ketra.properties";
    std::ofstream(config) << "http.connections = 1\n";
    startWithHolder({"--config=" + config.string()});
    holdLock();
    // waits for the lock, on the only connection
    std::thread leaving([&] { puppet->leave(); });
    expectSilence(kServerStalls);
    root.letGo("puppet", "message");
    EXPECT_TRUE(waitPings(3));
    leaving.join();
}

TEST_F(WatchdogTest, EndsWithTheHostThoughItWaitsForTheLock) {
    startWithHolder();
    holdLock();
    ASSERT_TRUE(host->waitLogged(kLockStalls));
    host->signal(SIGTERM);
    ASSERT_TRUE(waitTold("STATUS=unload plugins"));
    EXPECT_TRUE(waitUntil([&] { return !hasWatchdog(host->pid()); }));
    root.letGo("puppet", "message");
    EXPECT_EQ(host->waitForExit(), 0) << host->err();
}

/// The ways to be bound and to ask clients who they are: none of it concerns the watchdog.
class GuardedWatchdogTest : public WatchdogTest {
protected:
    void expectPingsFrom(const std::string& address) {
        const Certificates certificates;
        const auto token = root.notes() / "token";
        std::ofstream(token) << std::string(32, 'x') << "\n";
        std::filesystem::permissions(token, std::filesystem::perms::owner_read);
        host.emplace(root, std::vector<std::string>{"--bind=" + address, "--allow=198.51.100.1",
                                                    "--api-token-file=" + token.string(),
                                                    "--tls-cert=" + certificates.certificateFile(),
                                                    "--tls-key=" + certificates.keyFile()});
        ASSERT_TRUE(waitReady()) << host->err();
        const std::string log = host->err();
        ASSERT_TRUE(waitPings(2)) << host->err();
        EXPECT_EQ(host->err(), log);
    }
};

TEST_F(GuardedWatchdogTest, ReachesAHostOnAllAddresses) {
    expectPingsFrom("0.0.0.0");
}

TEST_F(GuardedWatchdogTest, ReachesAHostOnAllAddressesOfIpv6) {
    if (!hasIpv6())
        GTEST_SKIP() << "no IPv6 here";
    expectPingsFrom("::");
}

TEST_F(GuardedWatchdogTest, ReachesAHostOnAnOutsideAddress) {
    const auto address = ownAddress(Poco::Net::IPAddress::IPv4);
    if (!address)
        GTEST_SKIP() << "this machine has no address but loopback";
    expectPingsFrom(address->toString());
}

TEST_F(GuardedWatchdogTest, ReachesAHostOnAnOutsideAddressOfIpv6) {
    const auto address = ownAddress(Poco::Net::IPAddress::IPv6);
    if (!address)
        GTEST_SKIP() << "this machine has no IPv6 address but loopback";
    expectPingsFrom(address->toString());
}

} // namespace
} // namespace ktr::test
