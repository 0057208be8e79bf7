#include "support/Broker.h"
#include "support/FreePort.h"
#include "support/HostProcess.h"
#include "support/PuppetClient.h"

#include "common/Guids.h"
#include "recorder/ReadingStore.h"

#include <Poco/Data/RecordSet.h>
#include <Poco/Data/SQLite/Connector.h>
#include <Poco/Data/Session.h>
#include <Poco/DateTimeFormatter.h>
#include <Poco/Timestamp.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <map>
#include <mutex>
#include <set>
#include <thread>

namespace ktr::test {
namespace {

using testing::IsEmpty;

const std::string kRecorder = example::kRecorderGuid;

/// A reading's number stands in its value and in its time, so that a torn or mixed up one shows.
std::string timeOf(int number) {
    const Poco::Timestamp time(Poco::Timestamp::TimeVal{1'714'521'600'000'000} + number * 1000LL);
    return Poco::DateTimeFormatter::format(time, "%Y-%m-%dT%H:%M:%S.%iZ");
}

std::string eventOf(int number) {
    const std::string path = number % 2 == 0 ? "" : R"("api":"pushTelemetry",)";
    return R"({"to":["taker",")" + kRecorder + "\"]," + path +
           R"("reading":{"source":"test","value":)" + std::to_string(number) +
           R"(,"unit":"1","time":")" + timeOf(number) + "\"}}";
}

Poco::JSON::Array::Ptr readingsOf(unsigned short port, int limit) {
    const auto answer = httpPost(port, "/recorder/readings", {{"limit", std::to_string(limit)}});
    if (answer.status != 200)
        return new Poco::JSON::Array;
    return answer.json()->getArray("readings");
}

/// Keeps a host busy until that, or the object, ends: events on both paths, readings, MQTT
/// messages, and clients that wait for nothing or stay in the middle of a request.
class Load {
public:
    Load(unsigned short port_, int firstReading) : port(port_), number(firstReading) {
        for (int i = 0; i < 10; ++i) {
            clients.emplace_back(Poco::Net::SocketAddress("127.0.0.1", port));
            const std::string begun = i % 2 == 0 ? "" : "POST /test/giver/state HTTP/1.1\r\nHost:";
            if (!begun.empty())
                clients.back().sendBytes(begun.data(), static_cast<int>(begun.size()));
        }
        threads.emplace_back([this] { untilTheEnd([this] { raise(); }); });
        threads.emplace_back([this] { untilTheEnd([this] { look(); }); });
    }
    ~Load() {
        ending = true;
        for (std::thread& thread : threads)
            thread.join();
    }
    Load(const Load&) = delete;
    Load& operator=(const Load&) = delete;

    /// The readings that the recorder has shown.
    std::set<int> seen() const {
        const std::lock_guard<std::mutex> lock(mutex);
        return shown;
    }

    bool waitSeen(std::size_t count) const {
        return waitUntil([&] { return seen().size() >= count; }, std::chrono::seconds(20));
    }

private:
    template <class Work>
    void untilTheEnd(Work work) {
        try {
            while (!ending)
                work();
        } catch (const Poco::Exception&) {
            // the host has ended
        }
    }

    void raise() {
        const PuppetClient giver(port, "giver");
        giver.raise(eventOf(number));
        if (number % 10 == 0)
            giver.publish("ketra-test/taker", std::to_string(number));
        ++number;
    }

    void look() {
        const auto readings = readingsOf(port, 100);
        const std::lock_guard<std::mutex> lock(mutex);
        for (std::size_t i = 0; i < readings->size(); ++i)
            shown.insert(readings->getObject(static_cast<unsigned>(i))->getValue<int>("value"));
    }

    const unsigned short port;
    int number;
    std::vector<Poco::Net::StreamSocket> clients;
    mutable std::mutex mutex;
    std::set<int> shown;
    std::atomic<bool> ending{false};
    std::vector<std::thread> threads;
};

/// A device whose host is killed and started anew, always on the same port: three puppets with
/// their services, one of which reports without end, the recorder, a service that ignores SIGTERM
/// and two of one name.
class HostKilledTest : public testing::Test {
protected:
    HostKilledTest() {
        for (const char* guid : {"giver", "taker", "repeater"})
            root.addPlugin(guid);
        root.addService("guid=giver\nport=42001");
        root.addService("guid=taker\nport=42002");
        root.addService("guid=repeater\nport=42003\nrepeat=yes");
        stubborn = root.addService("ignore-term=yes");
        addTwins();
        addRecorder();
    }

    void startHost() {
        host.emplace(root, std::vector<std::string>{"--port=" + std::to_string(port),
                                                    "--mqtt-url=" + broker.url()});
    }

    PuppetClient plugin(const std::string& guid) const { return {port, guid}; }

    /// Kills the host; the services outlive it.
    void killHost() {
        host->signal(SIGKILL);
        ASSERT_EQ(host->waitForExit(), 256 + SIGKILL) << host->err();
        // a service that it had forked, but that is not executed yet, still holds its port
        ASSERT_TRUE(waitUntil([this] { return !isHostForked(); }));
        for (const pid_t pid : processesBelow(root.path()))
            leftovers.insert(pid);
    }

    /// Everything is as if the host had never been killed.
    void expectAllAtWork() {
        ASSERT_TRUE(host->waitReady()) << host->err();
        EXPECT_EQ(host->port(), port);
        for (const pid_t pid : leftovers)
            EXPECT_FALSE(isAlive(pid)) << pid;
        leftovers.clear();
        expectServicesOnceEach();
        expectPluginsStarted();
        expectEventsOnBothPaths();
        expectServicesOnceEach();
    }

    void waitPluginsStarted() const {
        for (const char* guid : {"giver", "taker"})
            ASSERT_TRUE(plugin(guid).waitStarted()) << host->err();
        ASSERT_TRUE(waitUntil([this] { return isServed("/recorder/readings"); })) << host->err();
    }

    /// All that the recorder has ever shown is still there, each as it was.
    void expectReadingsIntact(const std::set<int>& shown) const {
        const std::string file = root.path() / "data" / "recorder.db";
        example::ReadingStore store(file, 1'000'000);
        std::set<int> stored;
        for (const auto& reading : store.latest(1'000'000)) {
            const int number = static_cast<int>(std::lround(reading.value));
            EXPECT_EQ(reading.source, "test");
            EXPECT_EQ(reading.unit, "1");
            EXPECT_EQ(reading.time, timeOf(number));
            EXPECT_TRUE(stored.insert(number).second) << number;
        }
        EXPECT_TRUE(std::includes(stored.begin(), stored.end(), shown.begin(), shown.end()));
        EXPECT_EQ(integrityOf(file), "ok");
    }

    /// None of the host's sockets and pipes is in the hands of a service.
    void expectServicesHoldNothingOfTheHost() const {
        const std::set<std::string> own = channelsOf(host->pid());
        EXPECT_FALSE(own.empty());
        const auto services = processesBelow(root.path());
        EXPECT_GE(services.size(), 6U);
        for (const pid_t service : services)
            for (const std::string& channel : channelsOf(service))
                EXPECT_EQ(own.count(channel), 0U) << channel;
    }

    const std::uint16_t port = freePort();
    Broker broker;
    DeviceRoot root;
    std::string stubborn;
    std::optional<HostProcess> host;

private:
    void addTwins() {
        const std::string twin = root.addService();
        for (const char* folder : {"a", "b"}) {
            std::filesystem::create_directory(root.services() / folder);
            for (const std::string& file : {twin, twin + ".conf"})
                std::filesystem::copy(root.services() / file, root.services() / folder / file);
        }
        std::filesystem::remove(root.services() / twin);
    }

    void addRecorder() {
        std::filesystem::copy(KETRA_EXAMPLES_DIR "/plugins/libKetraPluginRecorder.so",
                              root.plugins());
        const std::string name = root.addService();
        std::filesystem::copy_file(KETRA_EXAMPLES_DIR "/microservices/ketra-recorder",
                                   root.services() / name,
                                   std::filesystem::copy_options::overwrite_existing);
    }

    /// Whether a process of this device's host runs the host's program.
    bool isHostForked() const {
        const auto isIt = [this](const std::filesystem::path& process) {
            std::error_code gone;
            return std::filesystem::read_symlink(process / "exe", gone) == KETRA_HOST &&
                   std::filesystem::read_symlink(process / "cwd", gone) == root.path();
        };
        const std::filesystem::directory_iterator processes("/proc");
        return std::any_of(begin(processes), end(processes), isIt);
    }

    /// How often each file below the services' folder runs.
    std::map<std::string, int> running() const {
        std::map<std::string, int> found;
        for (const pid_t pid : processesBelow(root.path())) {
            std::error_code gone;
            const auto file =
                std::filesystem::read_symlink("/proc/" + std::to_string(pid) + "/exe", gone);
            if (!gone)
                ++found[file];
        }
        return found;
    }

    void expectServicesOnceEach() const {
        std::map<std::string, int> once;
        for (const auto& entry : std::filesystem::recursive_directory_iterator(root.services()))
            if (entry.is_regular_file() && entry.path().extension() != ".conf")
                once[entry.path()] = 1;
        ASSERT_EQ(once.size(), 7U);
        // one of the twins ends the other, which is started again
        waitUntil([&] { return running() == once; });
        EXPECT_EQ(running(), once) << host->err();
    }

    bool isServed(const std::string& route) const {
        try {
            return httpPost(port, route).status == 200;
        } catch (const Poco::Exception&) {
            return false;
        }
    }

    void expectPluginsStarted() const {
        waitPluginsStarted();
        EXPECT_TRUE(plugin("repeater").waitStarted()) << host->err();
        // by its new service, and by no report of a leftover
        for (const char* guid : {"giver", "taker"})
            EXPECT_EQ(countOf(host->err(), std::string("starting plugin, guid: ") + guid), 1)
                << host->err();
        EXPECT_EQ(plugin("giver").state()->getValue<int>("port"), 42001);
        EXPECT_EQ(plugin("taker").state()->getValue<int>("port"), 42002);
        EXPECT_TRUE(
            waitUntil([this] { return plugin("giver").state()->getValue<bool>("mqttConnected"); },
                      std::chrono::seconds(20)))
            << host->err();
    }

    void expectEventsOnBothPaths() const {
        for (const char* api : {"", R"(,"api":"pushTelemetry")"}) {
            const std::string event = std::string(R"({"to":["taker"])") + api + "}";
            plugin("giver").raise(event);
            EXPECT_TRUE(waitUntil([&] {
                const auto messages = plugin("taker").texts("messages");
                return std::count(messages.begin(), messages.end(), event) == 1;
            })) << host->err();
        }
    }

    static std::set<std::string> channelsOf(pid_t pid) {
        std::set<std::string> found;
        std::error_code gone;
        const std::filesystem::path folder = "/proc/" + std::to_string(pid) + "/fd";
        for (std::filesystem::directory_iterator entry(folder, gone), end; !gone && entry != end;
             entry.increment(gone)) {
            std::error_code closed;
            const std::string target = std::filesystem::read_symlink(entry->path(), closed);
            if (target.rfind("socket:", 0) == 0 || target.rfind("pipe:", 0) == 0)
                found.insert(target);
        }
        return found;
    }

    static std::string integrityOf(const std::string& file) {
        using namespace Poco::Data::Keywords;
        std::string result;
        Poco::Data::Session session(Poco::Data::SQLite::Connector::KEY, file);
        session << "PRAGMA integrity_check", into(result), now;
        return result;
    }

    std::set<pid_t> leftovers;
};

TEST_F(HostKilledTest, AtAnyMomentOfItsStartUpTheNextStartMends) {
    constexpr int rounds = 3;
    startHost();
    ASSERT_TRUE(host->waitReady()) << host->err();
    killHost();
    // with leftovers to end, as in the rounds
    startHost();
    ASSERT_TRUE(host->waitSignalsBlocked());
    const auto begin = std::chrono::steady_clock::now();
    ASSERT_TRUE(host->waitReady()) << host->err();
    const auto startUp = std::chrono::steady_clock::now() - begin;
    killHost();
    for (int round = 0; round < rounds; ++round) {
        SCOPED_TRACE(round);
        startHost();
        ASSERT_TRUE(host->waitSignalsBlocked());
        // not a wait for something: each round hits another moment
        std::this_thread::sleep_for(startUp * round / rounds);
        killHost();
    }
    startHost();
    expectAllAtWork();
}

TEST_F(HostKilledTest, AmongItsLaunchesTheNextStartMends) {
    // the n-th start of any service is the moment
    for (const std::size_t launches : {1U, 3U, 6U}) {
        SCOPED_TRACE(launches);
        const auto noted = [this] {
            std::size_t count = 0;
            for (const auto& entry : std::filesystem::directory_iterator(root.notes()))
                if (entry.path().extension() == ".starts")
                    count += readLines(entry.path()).size();
            return count;
        };
        const std::size_t before = noted();
        startHost();
        ASSERT_TRUE(
            waitUntil([&] { return noted() >= before + launches; }, std::chrono::seconds(20)));
        killHost();
    }
    startHost();
    expectAllAtWork();
}

TEST_F(HostKilledTest, RightAfterItWasReadyTheNextStartMends) {
    for (int round = 0; round < 2; ++round) {
        SCOPED_TRACE(round);
        startHost();
        ASSERT_TRUE(host->waitReady()) << host->err();
        killHost();
    }
    startHost();
    expectAllAtWork();
}

TEST_F(HostKilledTest, UnderLoadTheNextStartMendsAndNoReadingIsLost) {
    std::vector<std::unique_ptr<Load>> loads;
    std::set<int> shown;
    for (const std::size_t readings : {1U, 60U}) {
        SCOPED_TRACE(readings);
        startHost();
        ASSERT_TRUE(host->waitReady()) << host->err();
        waitPluginsStarted();
        // kept to the end: its clients' connections are still there when the next host starts
        loads.push_back(std::make_unique<Load>(port, static_cast<int>(readings) * 100'000));
        ASSERT_TRUE(loads.back()->waitSeen(readings)) << host->err();
        expectServicesHoldNothingOfTheHost();
        killHost();
        // who would hold the port is still there
        EXPECT_TRUE(isAlive(root.startsOf(stubborn).back().pid));
        shown.merge(loads.back()->seen());
    }
    startHost();
    expectAllAtWork();
    expectReadingsIntact(shown);
    plugin("giver").raise(eventOf(9'000'000));
    EXPECT_TRUE(waitUntil([this] {
        return readingsOf(port, 1)->size() == 1 &&
               readingsOf(port, 1)->getObject(0)->getValue<int>("value") == 9'000'000;
    })) << host->err();
    host->signal(SIGTERM);
    EXPECT_EQ(host->waitForExit(), 0) << host->err();
    EXPECT_THAT(processesBelow(root.path()), IsEmpty());
}

// As when the memory runs out, or in an emergency of another kind.
TEST_F(HostKilledTest, WithAllItsServicesTheNextStartMendsAndNoReadingIsLost) {
    std::set<int> shown;
    for (int round = 1; round < 3; ++round) {
        SCOPED_TRACE(round);
        startHost();
        ASSERT_TRUE(host->waitReady()) << host->err();
        waitPluginsStarted();
        const Load load(port, round * 100'000);
        ASSERT_TRUE(load.waitSeen(40)) << host->err();
        killHost();
        for (const pid_t pid : processesBelow(root.path()))
            kill(pid, SIGKILL);
        shown.merge(load.seen());
    }
    startHost();
    expectAllAtWork();
    expectReadingsIntact(shown);
}

} // namespace
} // namespace ktr::test
