#include "support/ChildProcess.h"
#include "support/HostProcess.h"
#include "support/PuppetClient.h"

#include <Poco/DateTimeParser.h>

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

/// The time that a line of a log begins with, in seconds.
double timeOf(const std::string& stamp) {
    int timeZone = 0;
    const Poco::DateTime time = Poco::DateTimeParser::parse("%Y-%m-%dT%H:%M:%s%z", stamp, timeZone);
    return static_cast<double>(time.timestamp().epochMicroseconds()) / 1e6;
}

/// When `host` logged `text` at `level`, in seconds, oldest first; lines that only contain it do
/// not count.
std::vector<double> timesOf(const HostProcess& host, const std::string& level,
                            const std::string& text) {
    const std::string wanted = " " + level + " " + text;
    std::vector<double> times;
    std::istringstream in(host.err());
    for (std::string line; std::getline(in, line);) {
        const auto space = line.find(' ');
        if (space != std::string::npos && line.substr(space) == wanted)
            times.push_back(timeOf(line.substr(0, space)));
    }
    return times;
}

class SupervisionTest : public testing::Test {
protected:
    /// How often `service` was found to have ended with `code`.
    static std::size_t exits(const HostProcess& host, const std::string& service, int code) {
        return timesOf(host, "Information", exitText(service, code)).size();
    }
    static std::string exitText(const std::string& service, int code) {
        return "microservice " + service + " exited, code: " + std::to_string(code) +
               ", restart it";
    }
    static bool waitExits(const HostProcess& host, const std::string& service, int code,
                          std::size_t times = 1) {
        return waitUntil([&] { return exits(host, service, code) >= times; },
                         std::chrono::seconds(20));
    }

    /// `service` was started once and runs, and the host has nothing to say about it.
    void expectUndisturbed(const HostProcess& host, const std::string& service) const {
        const auto starts = root.startsOf(service);
        ASSERT_EQ(starts.size(), 1U);
        EXPECT_TRUE(isAlive(starts[0].pid));
        EXPECT_EQ(countOf(host.err(), service), 0);
    }

    /// Ends the host, which must end in order and leave nothing behind.
    void expectEndsInOrder(HostProcess& host) const {
        host.signal(SIGTERM);
        EXPECT_EQ(host.waitForExit(), 0) << host.err();
        EXPECT_THAT(processesBelow(root.path()), testing::IsEmpty());
    }

    /// Moves a service of addService into a subfolder.
    void moveTo(const std::string& folder, const std::string& service) const {
        std::filesystem::create_directories(root.services() / folder);
        for (const std::string& file : {service, service + ".conf"})
            std::filesystem::rename(root.services() / file, root.services() / folder / file);
    }

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

TEST_F(SupervisionTest, AnExitIsSeenWithinASecondAndAScan) {
    const std::string service = root.addService();
    const std::string good = root.addService();
    HostProcess host(root);
    ASSERT_TRUE(host.waitReady()) << host.err();
    kill(waitStart(service, 1).pid, SIGKILL);
    // from here on each one is killed just after a scan, so that the next scan is a whole period
    // off
    for (std::size_t number = 2; number < 5; ++number) {
        const auto start = waitStart(service, number);
        ASSERT_GT(start.pid, 0) << host.err();
        const auto killed = std::chrono::steady_clock::now();
        kill(start.pid, SIGKILL);
        ASSERT_GT(waitStart(service, number + 1).pid, 0) << host.err();
        EXPECT_LT(std::chrono::steady_clock::now() - killed, std::chrono::milliseconds(3500));
    }
    EXPECT_TRUE(waitExits(host, service, 265, 4));
    expectUndisturbed(host, good);
}

TEST_F(SupervisionTest, AServiceThatExitsOnEveryStartIsRelaunchedOnceAScanWithoutEnd) {
    const std::string crashing = root.addService("exit=5\nevery=yes");
    const std::string good = root.addService();
    HostProcess host(root);
    ASSERT_TRUE(host.waitReady()) << host.err();
    ASSERT_TRUE(waitExits(host, crashing, 5, 4)) << host.err();
    expectUndisturbed(host, good);
    const auto times = timesOf(host, "Information", exitText(crashing, 5));
    for (std::size_t i = 1; i < times.size(); ++i)
        EXPECT_GE(times[i] - times[i - 1], 0.99);
    expectEndsInOrder(host);
    // the first launch and one for each line; the last one may have been ended before it noted that
    const std::size_t lines = exits(host, crashing, 5);
    EXPECT_THAT(root.startsOf(crashing).size(), testing::AnyOf(lines, lines + 1));
}

TEST_F(SupervisionTest, AServiceThatExitsAfterAWhileIsRelaunchedOnce) {
    const std::string service = root.addService("exit=3\nafter=1500");
    const std::string good = root.addService();
    HostProcess host(root);
    ASSERT_TRUE(host.waitReady()) << host.err();
    const auto second = waitStart(service, 2);
    ASSERT_GT(second.pid, 0);
    EXPECT_EQ(second.directory, std::filesystem::path(KETRA_HOST).parent_path());
    EXPECT_EQ(second.arguments, std::to_string(host.port()));
    expectUndisturbed(host, good);
    expectEndsInOrder(host);
    EXPECT_EQ(exits(host, service, 3), 1U);
    EXPECT_EQ(root.startsOf(service).size(), 2U);
    for (const std::string& name : {service, good})
        EXPECT_THAT(timesOf(host, "Information", "microservice " + name + " running, stop it"),
                    testing::SizeIs(1));
}

TEST_F(SupervisionTest, AServiceEndedByASignalOfItsOwnIsRelaunchedWithTheSignalInTheLog) {
    const std::string service = root.addService("signal=" + std::to_string(SIGUSR1));
    const std::string good = root.addService();
    HostProcess host(root);
    ASSERT_TRUE(host.waitReady()) << host.err();
    EXPECT_GT(waitStart(service, 2).pid, 0);
    EXPECT_EQ(exits(host, service, 256 + SIGUSR1), 1U) << host.err();
    expectUndisturbed(host, good);
}

TEST_F(SupervisionTest, AServiceThatIgnoresSigtermIsKilledASecondLater) {
    const std::string stubborn = root.addService("ignore-term=yes");
    const std::string good = root.addService();
    HostProcess host(root);
    ASSERT_TRUE(host.waitReady()) << host.err();
    for (const std::string& name : {stubborn, good})
        ASSERT_GT(waitStart(name, 1).pid, 0);
    expectUndisturbed(host, good);
    const auto begin = std::chrono::steady_clock::now();
    expectEndsInOrder(host);
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::seconds(1));
    for (const std::string& name : {stubborn, good})
        EXPECT_THAT(timesOf(host, "Information", "microservice " + name + " running, stop it"),
                    testing::SizeIs(1));
    EXPECT_EQ(countOf(host.err(), "exited, code:"), 0);
}

// What a service had started may well bear its name: a relaunch must not end it.
TEST_F(SupervisionTest, ARelaunchEndsNothingByNameButTheNextHostDoes) {
    const std::string service = root.addService("grandchild=yes\nexit=4");
    const std::string good = root.addService();
    pid_t orphan = 0;
    {
        HostProcess host(root);
        ASSERT_TRUE(host.waitReady()) << host.err();
        ASSERT_GT(waitStart(service, 2).pid, 0);
        EXPECT_EQ(exits(host, service, 4), 1U);
        orphan = std::stoi(root.note(service, "grandchild"));
        EXPECT_TRUE(isAlive(orphan));
        expectUndisturbed(host, good);
        host.signal(SIGKILL);
        host.waitForExit();
    }
    ASSERT_TRUE(isAlive(orphan));
    HostProcess host(root);
    ASSERT_TRUE(host.waitReady()) << host.err();
    EXPECT_FALSE(isAlive(orphan));
}

// The launch of the second ends the first by its name.
TEST_F(SupervisionTest, OfTwoServicesOfOneFileNameBothRunInTheEnd) {
    const std::string service = root.addService();
    const std::string between = root.addService("ignore-term=yes");
    const std::string good = root.addService();
    moveTo("a", service);
    moveTo("b", between);
    std::filesystem::copy(root.services() / "a", root.services() / "c");
    const auto secondNotes = root.notes() / "second";
    std::filesystem::create_directory(secondNotes);
    std::ofstream(root.services() / "c" / (service + ".conf"))
        << "out=" << secondNotes.string() << "\n";
    root.addPlugin("puppet", "load=hold\n");

    HostProcess host(root);
    ASSERT_TRUE(waitUntil([&] { return root.isHeld("puppet", "load"); })) << host.err();
    // It comes too late to be ended with an earlier host's leftovers; the launch of the one between
    // ends it, which takes a second: the first of the two bears its name by then.
    const ChildProcess leftover({root.services() / "b" / between}, "/dev/null");
    ASSERT_GT(waitStart(between, 1).pid, 0);
    root.letGo("puppet", "load");
    ASSERT_TRUE(host.waitReady()) << host.err();
    ASSERT_TRUE(waitExits(host, service, 256 + SIGTERM)) << host.err();
    const auto isRelaunched = [&] {
        const auto starts = root.startsOf(service);
        return !starts.empty() && isAlive(starts.back().pid) &&
               starts.back().directory == std::filesystem::path(KETRA_HOST).parent_path();
    };
    EXPECT_TRUE(waitUntil(isRelaunched)) << host.err();
    EXPECT_THAT(readLines(secondNotes / (service + ".starts")),
                testing::ElementsAre(testing::HasSubstr("|" + root.path().string() + "|")));
    EXPECT_EQ(processesBelow(root.path()).size(), 4U);
    expectUndisturbed(host, good);
    expectEndsInOrder(host);
    EXPECT_EQ(exits(host, service, 256 + SIGTERM), 1U);
    EXPECT_THAT(timesOf(host, "Information", "microservice " + service + " running, stop it"),
                testing::SizeIs(2));
}

TEST_F(SupervisionTest, AFileThatIsNotExecutableIsNoService) {
    const std::string data = root.addService();
    std::filesystem::permissions(root.services() / data, std::filesystem::perms::owner_read);
    const std::string good = root.addService();
    HostProcess host(root);
    ASSERT_TRUE(host.waitReady()) << host.err();
    // a scan, and a relaunch would be made by now
    kill(waitStart(good, 1).pid, SIGKILL);
    ASSERT_GT(waitStart(good, 2).pid, 0);
    EXPECT_TRUE(root.startsOf(data).empty());
    EXPECT_EQ(countOf(host.err(), data), 0) << host.err();
}

TEST_F(SupervisionTest, WithoutServicesTheHostSaysSoAndTakesReports) {
    const std::string data = root.addService();
    std::filesystem::permissions(root.services() / data, std::filesystem::perms::owner_read);
    HostProcess host(root);
    ASSERT_TRUE(host.waitReady()) << host.err();
    EXPECT_THAT(timesOf(host, "Error", "microservice empty..."), testing::SizeIs(1));
    EXPECT_EQ(PuppetClient(host.port(), "anybody").report(41000).body,
              "{\"code\":0,\"msg\":\"success\"}");
    expectEndsInOrder(host);
}

TEST_F(SupervisionTest, AnExecutableFileThatCannotRunIsTriedAtEveryScan) {
    const std::string broken = root.addService();
    std::ofstream(root.services() / broken) << "#!/no/such/interpreter\n";
    const std::string good = root.addService();
    HostProcess host(root);
    ASSERT_TRUE(host.waitReady()) << host.err();
    EXPECT_TRUE(waitExits(host, broken, 72, 2)) << host.err();
    expectUndisturbed(host, good);
    expectEndsInOrder(host);
}

TEST_F(SupervisionTest, AServiceThatWritesALotHoldsNothingUp) {
    root.addPlugin("good");
    constexpr int size = 500'000;
    const std::string talker = root.addService("output=" + std::to_string(size));
    const std::string good = root.addService("guid=good\nport=41000");
    HostProcess host(root);
    ASSERT_TRUE(host.waitReady()) << host.err();
    EXPECT_TRUE(PuppetClient(host.port(), "good").waitStarted());
    // what a service writes goes where the host writes
    const std::string line = talker + " has a lot to say\n";
    const int lines = static_cast<int>((size + line.size() - 1) / line.size());
    EXPECT_TRUE(waitUntil(
        [&] { return countOf(host.out(), line) == lines && countOf(host.err(), line) == lines; },
        std::chrono::seconds(20)));
    expectUndisturbed(host, good);
    expectEndsInOrder(host);
    EXPECT_THAT(timesOf(host, "Information", "microservice " + talker + " running, stop it"),
                testing::SizeIs(1));
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

TEST_F(SupervisionTest, ASecondHostOnTheSamePortEndsNoService) {
    const std::string service = root.addService();
    HostProcess host(root);
    ASSERT_TRUE(host.waitReady()) << host.err();
    const auto start = waitStart(service, 1);
    HostProcess second(root, {"--port=" + std::to_string(host.port())});
    EXPECT_EQ(second.waitForExit(), 71) << second.err();
    EXPECT_EQ(countOf(second.err(), "ended what was running as"), 0) << second.err();
    EXPECT_TRUE(isAlive(start.pid));
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
