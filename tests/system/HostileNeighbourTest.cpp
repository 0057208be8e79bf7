#include "PluginHost.h"

#include <cstdlib>
#include <sys/resource.h>

namespace ktr::test {
namespace {

using testing::HasSubstr;
using testing::IsEmpty;

const std::vector<std::string> kGood{"left", "right"};

std::string eventFor(const std::string& guid, bool rapid, int number) {
    return R"({"to":[")" + guid + "\"]" + (rapid ? R"(,"api":"pushTelemetry")" : "") +
           R"(,"number":)" + std::to_string(number) + "}";
}

/// Two good pairs of a plugin and its service, "left" and "right", beside whatever a test puts
/// there.
class NeighbourTest : public PluginHostTest {
protected:
    NeighbourTest() {
        unsigned short port = 42001;
        for (const std::string& guid : kGood) {
            root.addPlugin(guid);
            services[guid] = root.addService("guid=" + guid + "\nport=" + std::to_string(port++));
        }
    }

    /// A puppet "bad" with its service.
    void addBadPair(const std::string& conf, const std::string& ofService = "") {
        root.addPlugin("bad", conf);
        addServiceOf("bad", ofService);
    }
    std::string addServiceOf(const std::string& guid, const std::string& conf = "") {
        return root.addService("guid=" + guid + "\nport=42009\n" + conf);
    }

    int startsOf(const std::string& guid) const {
        try {
            return plugin(guid).state()->getValue<int>("starts");
        } catch (const Poco::Exception&) {
            return 0; // between a stop and a start
        }
    }

    void waitGoodStarted() const {
        for (const std::string& guid : kGood)
            ASSERT_TRUE(plugin(guid).waitStarted()) << host->err();
    }

    bool isDelivered(const std::string& event, const std::string& to) const {
        const auto messages = plugin(to).texts("messages");
        return std::count(messages.begin(), messages.end(), event) == 1;
    }

    /// Both plugins raise events for each other on both paths.
    void expectExchange() {
        for (const auto& [from, to] : {std::pair("left", "right"), std::pair("right", "left")})
            for (const bool rapid : {false, true}) {
                const std::string event = eventFor(to, rapid, ++events);
                plugin(from).raise(event);
                EXPECT_TRUE(waitUntil([&, to_ = to] { return isDelivered(event, to_); })) << event;
            }
    }

    /// The same where a neighbour has events dropped: some get through.
    void expectExchangeInTheEnd() {
        for (const auto& [from, to] : {std::pair("left", "right"), std::pair("right", "left")})
            for (const bool rapid : {false, true})
                EXPECT_TRUE(waitUntil(
                    [&, from_ = from, to_ = to] {
                        const std::string event = eventFor(to_, rapid, ++events);
                        plugin(from_).raise(event);
                        return waitUntil([&] { return isDelivered(event, to_); },
                                         std::chrono::milliseconds(100));
                    },
                    std::chrono::seconds(20)))
                    << host->err();
    }

    /// Raises one event on each path for somebody else.
    void bother(const std::string& guid) {
        for (const bool rapid : {false, true})
            plugin("left").raise(eventFor(guid, rapid, ++events));
    }

    /// Kills the services of `guids` and waits until they run again.
    void killServices(const std::vector<std::string>& guids) const {
        std::map<std::string, std::size_t> before;
        for (const std::string& guid : guids) {
            const auto starts = root.startsOf(services.at(guid));
            before[guid] = starts.size();
            kill(starts.back().pid, SIGKILL);
        }
        for (const std::string& guid : guids)
            EXPECT_TRUE(waitUntil([&] {
                return root.startsOf(services.at(guid)).size() > before[guid];
            })) << host->err();
    }

    /// Services that are killed come back and have their plugins started anew.
    void expectRelaunch(const std::vector<std::string>& guids = kGood) const {
        std::map<std::string, int> before;
        for (const std::string& guid : guids)
            before[guid] = startsOf(guid);
        killServices(guids);
        for (const std::string& guid : guids)
            EXPECT_TRUE(waitUntil([&] { return startsOf(guid) > before[guid]; })) << host->err();
    }

    void expectEnd(int code = 0) {
        const auto begin = std::chrono::steady_clock::now();
        host->signal(SIGTERM);
        EXPECT_EQ(host->waitForExit(), code) << host->err();
        // the host's own watch gives it ten seconds; a sanitizer looks for leaks behind that
        EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(20));
        EXPECT_THAT(processesBelow(root.path()), IsEmpty());
    }

    std::map<std::string, std::string> services;
    int events = 0;
};

// ---- plugins that cost nobody but themselves

struct Plugin {
    std::string name;
    /// Its fixture, or what the puppet "bad" is told.
    std::string fixture;
    std::string conf;
    std::string guid = "bad";
    bool dropsEvents = false;

    friend void PrintTo(const Plugin& plugin, std::ostream* out) { *out << plugin.name; }
};

Plugin fixturePlugin(std::string name, std::string guid, bool dropsEvents = false) {
    return {name, name, "", std::move(guid), dropsEvents};
}

Plugin puppet(std::string name, std::string conf) {
    return {std::move(name), "", std::move(conf)};
}

std::vector<Plugin> harmlessPlugins() {
    std::vector<Plugin> all{
        fixturePlugin("Bare", "bare"),
        fixturePlugin("EmptyGuid", ""),
        fixturePlugin("Minimal", "minimal"),
        fixturePlugin("NoGuid", ""),
        fixturePlugin("NoLoad", "no-load"),
        fixturePlugin("NoName", "no-name"),
        fixturePlugin("NoType", "no-type"),
        fixturePlugin("NoUnload", "no-unload"),
        fixturePlugin("Raises", "raises"),
        fixturePlugin("RegistersTwice", "twice"),
        fixturePlugin("Stranger", "stranger"),
        fixturePlugin("ThrowsPoco", "throws-poco"),
        fixturePlugin("ThrowsStd", "throws-std"),
        fixturePlugin("Unregisters-load", "unregisters-load"),
        fixturePlugin("Unregisters-start", "unregisters-start"),
        fixturePlugin("Floods", "floods", true),
        puppet("ThrowsAnIntInItsFactory", "factory=throw-int"),
        puppet("ThrowsAnIntInSetEventCallback", "callback=throw-int"),
        puppet("ThrowsAnIntInStart", "start=throw-int"),
        puppet("ThrowsAnIntInStop", "stop=throw-int"),
        puppet("ChangesTheDirectoryWhenLoaded", "load=change-directory"),
        puppet("ChangesTheDirectoryLater", "message=change-directory"),
        puppet("BlocksSignalsWhenLoaded", "load=block-signals"),
        puppet("BlocksSignalsLater", "message=block-signals"),
        puppet("ClosesStandardDescriptorsWhenLoaded", "load=close"),
        puppet("RaisesAHugeEvent", "start=huge"),
        puppet("WaitsForTheChildrenOfTheHost", "start=reap"),
    };
    for (const char* place :
         {"type", "name", "guid", "factory", "setEventCallback", "start", "stop", "onMessage"})
        for (const auto& [kind, prefix] :
             {std::pair("ThrowsStd-", "std-"), std::pair("ThrowsPoco-", "poco-")})
            all.push_back(fixturePlugin(std::string(kind) + place, std::string(prefix) + place));
    return all;
}

std::string withoutDashes(std::string name) {
    name.erase(std::remove(name.begin(), name.end(), '-'), name.end());
    return name;
}

class HarmlessPluginTest : public NeighbourTest, public testing::WithParamInterface<Plugin> {};

TEST_P(HarmlessPluginTest, CostsItsNeighboursNothing) {
    const Plugin& tested = GetParam();
    if (tested.fixture.empty()) {
        addBadPair(tested.conf);
    } else {
        addFixture(tested.fixture);
        addServiceOf(tested.guid);
    }
    startHost();
    waitGoodStarted();
    const auto exchange = [&] {
        bother(tested.guid);
        if (tested.dropsEvents)
            expectExchangeInTheEnd();
        else
            expectExchange();
    };
    exchange();
    expectRelaunch();
    exchange();
    expectEnd();
}

INSTANTIATE_TEST_SUITE_P(Called, HarmlessPluginTest, testing::ValuesIn(harmlessPlugins()),
                         [](const auto& tested) { return withoutDashes(tested.param.name); });

// ---- plugins that take something away

/// The host with a puppet "bad", whose service reports.
class BadPairTest : public NeighbourTest {
protected:
    void startWith(const std::string& conf, const std::vector<std::string>& options = {}) {
        addBadPair(conf);
        startHost(options);
        waitGoodStarted();
    }

    /// With the good ones at work before "bad" starts, which has no service.
    void startBeforeBad(const std::string& conf) {
        root.addPlugin("bad", conf);
        startHost();
        waitGoodStarted();
        plugin("bad").report(42009);
    }

    /// Raises an event for "bad" that may end the host before it can answer.
    void provoke() const {
        try {
            plugin("left").raise(R"({"to":["bad"]})");
        } catch (const Poco::Exception&) {
            // gone already
        }
    }

    bool waitHeld(const std::string& where) const {
        return waitUntil([&] { return root.isHeld("bad", where); }, std::chrono::seconds(20));
    }
};

TEST_F(BadPairTest, ThatClosesStandardDescriptorsTakesTheLogButNoServicesOutput) {
    const std::string log = root.notes() / "log";
    startWith("start=close", {"--log-file=" + log});
    ASSERT_TRUE(waitHeld("start"));
    expectExchange();
    expectRelaunch();
    for (const std::string& guid : kGood)
        for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
            EXPECT_TRUE(std::filesystem::exists(
                "/proc/" + std::to_string(root.startsOf(services[guid]).back().pid) + "/fd/" +
                std::to_string(descriptor)));
    EXPECT_THAT(readFile(log), HasSubstr("restart it"));
    expectEnd();
}

TEST_F(BadPairTest, ThatTakesAllMemoryGetsAnExceptionAndTheOthersGoOn) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "a sanitizer ends the process instead, and needs terabytes of addresses";
#endif
    startWith("message=allocate");
    ASSERT_TRUE(plugin("bad").waitStarted());
    std::size_t pages = 0;
    std::ifstream("/proc/" + std::to_string(host->pid()) + "/statm") >> pages;
    const rlim_t limit = pages * static_cast<rlim_t>(sysconf(_SC_PAGESIZE)) + (256U << 20U);
    const rlimit addresses{limit, limit};
    ASSERT_EQ(prlimit(host->pid(), RLIMIT_AS, &addresses, nullptr), 0);
    bother("bad");
    EXPECT_TRUE(host->waitLogged(
        "exception in event callback, error: std::bad_alloc, message: [ERRFMT]\n", 2));
    expectExchange();
    expectRelaunch();
    expectExchange();
    expectEnd();
}

TEST_F(BadPairTest, ThatRaisesEventsWithoutEndFromItsStartDropsEventsAndHoldsTheEnd) {
    startWith("start=stream", {"--shutdown-timeout=2"});
    ASSERT_TRUE(waitHeld("start"));
    expectExchangeInTheEnd();
    expectRelaunch();
    expectExchangeInTheEnd();
    expectEnd(75);
    EXPECT_THAT(host->err(), HasSubstr("step 'finish plugin starts' hangs"));
}

TEST_F(BadPairTest, ThatBlocksInStartHoldsTheEndOnly) {
    startWith("start=hold", {"--shutdown-timeout=2"});
    ASSERT_TRUE(waitHeld("start"));
    bother("bad");
    expectExchange();
    expectRelaunch();
    expectExchange();
    expectEnd(75);
    EXPECT_THAT(host->err(), HasSubstr("step 'finish plugin starts' hangs"));
}

TEST_F(BadPairTest, ThatEvictsAnotherPluginTakesThatOneOnly) {
    startBeforeBad("start=evict\nvictim=left");
    ASSERT_TRUE(plugin("bad").waitStarted());
    // not asked for its state any more: the object went without a stop, its routes stay
    killServices({"left"});
    EXPECT_TRUE(host->waitLogged("report recieved plugin not found for guid, guid: left"));
    expectRelaunch({"right"});
    const std::string event = eventFor("right", false, ++events);
    plugin("right").raise(event);
    EXPECT_TRUE(waitUntil([&] { return isDelivered(event, "right"); }));
    expectEnd();
}

TEST_F(BadPairTest, ThatTakesTheReportRouteKeepsOthersFromBeingStartedAnew) {
    startBeforeBad("start=hijack");
    ASSERT_TRUE(plugin("bad").waitStarted());
    const int before = startsOf("left");
    killServices({"left"});
    EXPECT_TRUE(waitUntil([this] {
        return countOf(root.note(services["left"], "answers"), "mine") > 0;
    })) << host->err();
    EXPECT_EQ(startsOf("left"), before);
    expectExchange();
    expectEnd();
}

TEST_F(NeighbourTest, APluginOfTheSameGuidThatIsLoadedLaterTakesThePlace) {
    const auto folder = root.plugins() / "zz";
    std::filesystem::create_directory(folder);
    std::filesystem::copy_file(KETRA_PUPPET_PLUGIN, folder / "libKetraPluginPuppet-left.so");
    std::ofstream(folder / "left.conf") << "start=throw\n";
    startHost();
    ASSERT_TRUE(host->waitLogged("puppet left throws in start"));
    ASSERT_TRUE(plugin("right").waitStarted());
    EXPECT_FALSE(plugin("left").isStarted());
    expectRelaunch({"right"});
    expectEnd();
}

// ---- plugins that block under the registry's lock

/// Where "bad" blocks: held until it is let go, or for good.
class BlockingPluginTest : public BadPairTest, public testing::WithParamInterface<std::string> {
protected:
    /// Has "bad", whose service does not report, block at the place of the parameter.
    void block(const std::string& deed, int shutdownTimeout = 2) {
        const std::string& place = GetParam();
        root.addPlugin("bad", place + "=" + deed + "\n");
        startHost({"--shutdown-timeout=" + std::to_string(shutdownTimeout)});
        waitGoodStarted();
        expectExchange();
        plugin("bad").report(42009);
        if (place == "stop" || place == "message") {
            ASSERT_TRUE(plugin("bad").waitStarted()) << host->err();
        }
        if (place == "stop")
            plugin("bad").report(42009);
        if (place == "message")
            plugin("left").raise(R"({"to":["bad"]})");
        ASSERT_TRUE(waitHeld(place)) << host->err();
    }

    /// While the lock is held: services, reports, routes and the taking in of events go on, starts
    /// and deliveries wait. Returns an event that waits for "right".
    std::string expectOnlyStartsAndDeliveriesWait() {
        const int starts = startsOf("left");
        std::string event = eventFor("right", true, ++events);
        plugin("left").raise(event);
        const std::string accepted = R"({"code":0,"msg":"success"})";
        const int before = countOf(root.note(services["left"], "answers"), accepted);
        killServices({"left"});
        EXPECT_TRUE(waitUntil([&] {
            return countOf(root.note(services["left"], "answers"), accepted) > before;
        })) << host->err();
        for (const std::string& guid : kGood)
            EXPECT_TRUE(plugin(guid).isStarted());
        EXPECT_EQ(startsOf("left"), starts);
        EXPECT_FALSE(isDelivered(event, "right"));
        return event;
    }
};

TEST_P(BlockingPluginTest, HoldsUpStartsAndDeliveriesUntilItReturns) {
    // a sanitizer takes its time at the end
    block("hold", 10);
    const int starts = startsOf("left");
    const std::string event = expectOnlyStartsAndDeliveriesWait();
    root.letGo("bad", GetParam());
    EXPECT_TRUE(waitUntil([&] { return isDelivered(event, "right"); })) << host->err();
    EXPECT_TRUE(waitUntil([&] { return startsOf("left") > starts; })) << host->err();
    expectExchange();
    expectRelaunch();
    expectEnd();
}

TEST_P(BlockingPluginTest, CannotHoldTheEndWhenItNeverReturns) {
    block("hold");
    expectOnlyStartsAndDeliveriesWait();
    expectEnd(75);
    EXPECT_THAT(host->err(), HasSubstr(" hangs: not ended 2 s after the host was told to"));
}

// The lock is not recursive.
TEST_P(BlockingPluginTest, IsWhatUnregistersItselfThere) {
    block("leave");
    expectOnlyStartsAndDeliveriesWait();
    expectEnd(75);
}

TEST_P(BlockingPluginTest, IsWhatRegistersItselfAgainThere) {
    block("register");
    expectOnlyStartsAndDeliveriesWait();
    expectEnd(75);
}

INSTANTIATE_TEST_SUITE_P(In, BlockingPluginTest,
                         testing::Values("factory", "callback", "stop", "message"),
                         [](const auto& tested) { return tested.param; });

// ---- plugins that end the host

class ExitingPluginTest : public BadPairTest, public testing::WithParamInterface<std::string> {
protected:
    // ThreadSanitizer would hold up the end for a second, in which supervision goes on
    ExitingPluginTest() {
        const char* options = std::getenv("TSAN_OPTIONS");
        const std::string more =
            std::string(options != nullptr ? options : "") + ":atexit_sleep_ms=0";
        setenv("TSAN_OPTIONS", more.c_str(), 1);
    }
};

// exit() ran on the plugin's thread, and hung there for ever, or told with 0 that all is well.
TEST_P(ExitingPluginTest, EndsTheHostAtOnceWithACodeOfItsOwn) {
    const std::string& place = GetParam();
    addBadPair(place + "=exit");
    host.emplace(root);
    if (place == "message" || place == "stop") {
        ASSERT_TRUE(host->waitReady()) << host->err();
        waitGoodStarted();
        ASSERT_TRUE(plugin("bad").waitStarted()) << host->err();
        if (place == "message")
            provoke();
        else
            plugin("bad").report(42009);
    }
    EXPECT_EQ(host->waitForExit(), 70) << host->err();
    EXPECT_THAT(host->err(), HasSubstr("\nketra-host: somebody within the host"));
    EXPECT_THAT(host->err(), HasSubstr(" Fatal somebody within the host"));
    EXPECT_THAT(processesBelow(root.path()), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(In, ExitingPluginTest,
                         testing::Values("load", "factory", "callback", "start", "message", "stop"),
                         [](const auto& tested) { return tested.param; });

class CrashingPluginTest : public BadPairTest, public testing::WithParamInterface<std::string> {};

TEST_P(CrashingPluginTest, EndsTheHostAndTheNextStartMends) {
    startWith("message=" + GetParam());
    ASSERT_TRUE(plugin("bad").waitStarted());
    provoke();
    EXPECT_EQ(host->waitForExit(), 256 + SIGABRT);
    const auto leftovers = processesBelow(root.path());
    EXPECT_EQ(leftovers.size(), 3U);
    startHost();
    waitGoodStarted();
    for (const pid_t leftover : leftovers)
        EXPECT_FALSE(isAlive(leftover));
    expectExchange();
    expectEnd();
}

INSTANTIATE_TEST_SUITE_P(By, CrashingPluginTest, testing::Values("abort", "throw-in-thread"),
                         [](const auto& tested) { return withoutDashes(tested.param); });

TEST_F(NeighbourTest, APluginWhoseStaticConstructorThrowsEndsTheHost) {
    addFixture("ThrowsStd-static");
    host.emplace(root);
    EXPECT_EQ(host->waitForExit(), 256 + SIGABRT) << host->err();
    EXPECT_EQ(host->out(), "");
    EXPECT_THAT(processesBelow(root.path()), IsEmpty());
}

TEST_F(BadPairTest, ThatUnblocksSignalsTakesTheHostItsOrderlyEnd) {
    startWith("load=unblock-signals");
    host->signal(SIGTERM);
    EXPECT_EQ(host->waitForExit(), 256 + SIGTERM);
    EXPECT_EQ(processesBelow(root.path()).size(), 3U);
}

// ---- services

struct Service {
    const char* name;
    /// What the puppet that it is is told.
    const char* conf;
    /// Makes of the puppet's file something else.
    std::function<void(const std::filesystem::path&)> spoil = [](const auto&) {};
    bool dropsEvents = false;

    friend void PrintTo(const Service& service, std::ostream* out) { *out << service.name; }
};

std::vector<Service> badServices() {
    using std::filesystem::perms;
    return {
        {"ExitsAtOnce", "exit=0\nevery=yes"},
        {"IsKilledByASignal", "signal=9\nevery=yes"},
        {"StopsItself", "signal=19"},
        {"IgnoresSigterm", "ignore-term=yes"},
        {"ForksAGrandchild", "grandchild=yes\nignore-term=yes"},
        {"FloodsItsOutput", "output=20000000"},
        {"ReportsWithoutEnd", "guid=bad\nport=42009\nrepeat=yes"},
        {"ReportsABadPort", "guid=bad\nport=99999"},
        {"ReportsAReservedPort", "guid=bad\nport=80"},
        {"ReportsNobodysGuid", "guid=nobody\nport=42009\nrepeat=yes"},
        {"IsNotExecutable", "",
         [](const auto& file) { permissions(file, perms::owner_read | perms::owner_write); }},
        {"HasNoInterpreter", "",
         [](const auto& file) { std::ofstream(file) << "#!/no/such/interpreter\n"; }},
        {"IsEmpty", "", [](const auto& file) { resize_file(file, 0); }},
        {"IsTruncated", "", [](const auto& file) { resize_file(file, file_size(file) / 2); }},
    };
}

class BadServiceTest : public NeighbourTest, public testing::WithParamInterface<Service> {};

TEST_P(BadServiceTest, CostsItsNeighboursNothing) {
    const Service& tested = GetParam();
    root.addPlugin("bad");
    tested.spoil(root.services() / root.addService(tested.conf));
    startHost();
    waitGoodStarted();
    bother("bad");
    expectExchange();
    expectRelaunch();
    expectExchange();
    expectEnd();
}

INSTANTIATE_TEST_SUITE_P(That, BadServiceTest, testing::ValuesIn(badServices()),
                         [](const auto& tested) { return tested.param.name; });

// Nothing tells one service from another but what it says.
TEST_F(NeighbourTest, AServiceMayReportForAPluginThatIsNotItsOwn) {
    root.addService("guid=left\nport=42666\nrepeat=yes");
    startHost();
    EXPECT_TRUE(host->waitReady());
    EXPECT_TRUE(waitUntil([this] {
        try {
            return plugin("left").state()->getValue<int>("port") == 42666;
        } catch (const Poco::Exception&) {
            return false;
        }
    }));
    ASSERT_TRUE(plugin("right").waitStarted());
    expectRelaunch({"right"});
    expectEnd();
}

TEST_F(NeighbourTest, AServiceMayEndTheHostAndTheNextStartMends) {
    root.addService("kill-host=9");
    host.emplace(root);
    EXPECT_EQ(host->waitForExit(), 256 + SIGKILL);
    startHost();
    waitGoodStarted();
    expectExchange();
    expectEnd();
}

// What leaves the service's process group is nobody's any more.
TEST_F(NeighbourTest, WhatAServiceStartsInASessionOfItsOwnOutlivesTheHost) {
    const std::string service = root.addService("grandchild=session");
    startHost();
    waitGoodStarted();
    ASSERT_TRUE(waitUntil([&] { return !root.note(service, "grandchild").empty(); }));
    const pid_t grandchild = std::stoi(root.note(service, "grandchild"));
    host->signal(SIGTERM);
    EXPECT_EQ(host->waitForExit(), 0) << host->err();
    EXPECT_EQ(processesBelow(root.path()), std::vector{grandchild});
    // but it bears the service's name
    startHost();
    EXPECT_FALSE(isAlive(grandchild));
}

} // namespace
} // namespace ktr::test
