#include "support/HostProcess.h"
#include "support/PuppetClient.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace ktr::test {
namespace {

/// The set `name` of /proc/PID/status, without the two signals below SIGRTMIN that the C library
/// keeps to itself: posix_spawn, which runs the host here, has them ignored, and no program can
/// tell or change that.
unsigned long long signalSet(pid_t pid, const std::string& name) {
    constexpr unsigned long long reserved = (1ULL << 31) | (1ULL << 32);
    for (const std::string& line : readLines("/proc/" + std::to_string(pid) + "/status"))
        if (line.rfind(name + ":", 0) == 0)
            return std::stoull(line.substr(name.size() + 1), nullptr, 16) & ~reserved;
    return ~0ULL;
}

class SupervisionTest : public testing::Test {
protected:
    /// Waits for start number `number` (from 1) of `service`.
    DeviceRoot::Start waitStart(const std::string& service, std::size_t number) const {
        waitUntil([&] { return root.startsOf(service).size() >= number; },
                  std::chrono::seconds(20));
        const auto starts = root.startsOf(service);
        return starts.size() < number ? DeviceRoot::Start{} : starts[number - 1];
    }

    static void expectCleanStart(pid_t pid) {
        EXPECT_EQ(signalSet(pid, "SigBlk"), 0U);
        EXPECT_EQ(signalSet(pid, "SigIgn"), 0U);
        EXPECT_EQ(getpgid(pid), pid);
        EXPECT_EQ(std::filesystem::read_symlink("/proc/" + std::to_string(pid) + "/fd/0"),
                  "/dev/null");
    }

    DeviceRoot root;
};

TEST_F(SupervisionTest, AServiceStartsInTheRootWithThePortAndNothingInherited) {
    const std::string service = root.addService();
    HostProcess host(root);
    ASSERT_TRUE(host.waitReady()) << host.err();
    const auto start = waitStart(service, 1);
    ASSERT_GT(start.pid, 0);
    EXPECT_EQ(start.directory, root.path());
    EXPECT_EQ(start.arguments, std::to_string(host.port()));
    expectCleanStart(start.pid);
    for (const auto& entry :
         std::filesystem::directory_iterator("/proc/" + std::to_string(start.pid) + "/fd"))
        EXPECT_LE(std::stoi(entry.path().filename()), 2);
}

TEST_F(SupervisionTest, AServiceKilledIsRelaunchedReportsAndItsPluginStartsAnew) {
    root.addPlugin("puppet");
    const std::string service = root.addService("guid=puppet\nport=42000");
    HostProcess host(root);
    ASSERT_TRUE(host.waitReady()) << host.err();
    ASSERT_TRUE(PuppetClient(host.port(), "puppet").waitStarted()) << host.err();

    kill(waitStart(service, 1).pid, SIGKILL);
    EXPECT_TRUE(host.waitLogged("microservice " + service + " exited, code: 265, restart it"));
    const auto second = waitStart(service, 2);
    ASSERT_GT(second.pid, 0);
    EXPECT_EQ(second.directory, std::filesystem::path(KETRA_HOST).parent_path());
    EXPECT_EQ(second.arguments, std::to_string(host.port()));
    expectCleanStart(second.pid);
    EXPECT_TRUE(host.waitLogged("started plugin, guid: puppet", 2));
}

TEST_F(SupervisionTest, AServiceThatExitsIsRelaunched) {
    const std::string service = root.addService("exit=3");
    HostProcess host(root);
    ASSERT_TRUE(host.waitReady()) << host.err();
    EXPECT_TRUE(host.waitLogged("microservice " + service + " exited, code: 3, restart it"));
    const auto second = waitStart(service, 2);
    ASSERT_GT(second.pid, 0);
    EXPECT_TRUE(isAlive(second.pid));
}

TEST_F(SupervisionTest, WhatAnEarlierHostLeftBehindIsEndedBeforeTheLaunch) {
    const std::string service = root.addService("ignore-term=yes");
    pid_t leftover = 0;
    {
        HostProcess killed(root);
        ASSERT_TRUE(killed.waitReady()) << killed.err();
        leftover = waitStart(service, 1).pid;
        killed.signal(SIGKILL);
        killed.waitForExit();
    }
    ASSERT_TRUE(isAlive(leftover));
    HostProcess host(root);
    ASSERT_TRUE(host.waitReady()) << host.err();
    const auto second = waitStart(service, 2);
    EXPECT_TRUE(isAlive(second.pid));
    EXPECT_FALSE(isAlive(leftover));
}

TEST_F(SupervisionTest, TheHostLimitsItsDescriptorsSensibly) {
    HostProcess host(root);
    ASSERT_TRUE(host.waitReady()) << host.err();
    EXPECT_THAT(
        readFile("/proc/" + std::to_string(host.pid()) + "/limits"),
        testing::ContainsRegex("Max open files +([1-9][0-9]{0,2}|[1-3][0-9]{3}|40[0-9]{2}) "));
}

} // namespace
} // namespace ktr::test
