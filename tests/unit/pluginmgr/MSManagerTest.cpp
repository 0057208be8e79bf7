#include "MSManagerUnderTest.h"

#include "support/Locks.h"
#include "support/fakes/FakeHttp.h"

#include <array>
#include <cstdlib>
#include <fcntl.h>

namespace ktr {
namespace {

using namespace test;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

using MSManagerTest = MSManagerFixture;

// ---- start

TEST_F(MSManagerTest, IsOneForTheProcess) {
    EXPECT_EQ(&MSManager::instance(), &MSManager::instance());
}

TEST_F(MSManagerTest, BeginsEmptyAndNeitherRunningNorStopped) {
    const MSManager fresh;
    EXPECT_EQ(fresh.reportRoute, "/index/api/all/report");
    EXPECT_EQ(fresh.hostIp, "");
    EXPECT_EQ(fresh.hostPort, 0);
    EXPECT_THAT(fresh.processes, IsEmpty());
    EXPECT_FALSE(fresh.checkThread.joinable());
    EXPECT_FALSE(fresh.running);
    EXPECT_THAT(fresh.properties, IsEmpty());
    EXPECT_FALSE(fresh.stopped);
}

TEST_F(MSManagerTest, LaunchesWhatIsListedInOrderThenStopsWhatStillRuns) {
    const std::string first = services.addStaying("b");
    const std::string gone = services.add("gone", "exit 0");
    const std::string last = services.addStaying("a");
    fakes::setFiles({first, gone, last});
    manager.start("192.168.0.7", 65535);
    EXPECT_EQ(manager.hostIp, "192.168.0.7");
    EXPECT_THAT(lines(), IsEmpty());

    const auto listings = fakes::listings();
    ASSERT_THAT(listings, SizeIs(1));
    EXPECT_EQ(listings[0].directory, directory() + "/microservices");
    EXPECT_EQ(static_cast<int>(listings[0].type), 0);
    EXPECT_EQ(listings[0].filter, "");
    EXPECT_TRUE(listings[0].outWasEmpty);
    EXPECT_THAT(fakes::cleanedNames(), ElementsAre(name(first), name(gone), name(last)));
    std::vector<std::string> paths;
    for (const auto& process : manager.processes)
        paths.push_back(process->path);
    EXPECT_THAT(paths, ElementsAre(first, gone, last));
    for (const auto& process : manager.processes) {
        const Start start = Services::awaitStart(process->path);
        EXPECT_EQ(start.pid, process->handle.id());
        EXPECT_EQ(start.arguments, "1:65535");
        EXPECT_EQ(start.directory, directory());
    }

    const auto pidOf = [](const std::string& path) {
        return static_cast<unsigned int>(Services::awaitStart(path).pid);
    };
    awaitExit(static_cast<pid_t>(pidOf(gone)));
    manager.stop();
    EXPECT_THAT(lines(), ElementsAre(stopping(first), stopping(last)));
    EXPECT_THAT(fakes::cleanedIds(), ElementsAre(pidOf(first), pidOf(last)));
    EXPECT_THAT(manager.processes, IsEmpty());
    EXPECT_FALSE(manager.checkThread.joinable());
    EXPECT_EQ(Services::starts(gone).size(), 1U);
    manager.stop();
    EXPECT_THAT(log.messages(), SizeIs(2));
}

TEST_F(MSManagerTest, WithoutServicesStillAnswersReports) {
    manager.start("", 80);
    EXPECT_THAT(lines(), ElementsAre(std::tuple(kError, "microservice empty...")));
    EXPECT_FALSE(manager.checkThread.joinable());
    const auto routes = fakes::routes();
    ASSERT_THAT(routes, SizeIs(1));
    EXPECT_EQ(routes[0].route, "/index/api/all/report");
    fakes::FakeResponse response;
    fakes::FakeRequest request("/index/api/all/report", response);
    routes[0].handler(request, response,
                      {{"ip", "1.1.1.1"}, {"port", "2000"}, {"type", "1"}, {"guid", "g"}});
    EXPECT_EQ(response.body(), R"({"code":0,"msg":"success"})");
    EXPECT_FALSE(manager.getMSProperty("g").isNull());
    manager.stop();
    EXPECT_TRUE(manager.stopped);
    EXPECT_FALSE(manager.running);
}

TEST_F(MSManagerTest, StoresItsArgumentsBeforeARegistrationCanFail) {
    fakes::setFiles({services.add("a", "exit 0")});
    fakes::failRegistration(std::make_exception_ptr(Poco::InvalidArgumentException("route")));
    manager.start("1.2.3.4", 99);
    EXPECT_EQ(manager.hostIp, "1.2.3.4");
    EXPECT_EQ(manager.hostPort, 99);
    EXPECT_THAT(lines(), ElementsAre(std::tuple(kError, "Invalid argument: route")));
    EXPECT_THAT(fakes::listings(), IsEmpty());
    EXPECT_THAT(manager.processes, IsEmpty());
}

TEST_F(MSManagerTest, LogsAListingOrAPathThatFails) {
    fakes::setFiles({services.add("a", "exit 0")});
    fakes::failListing(std::make_exception_ptr(std::runtime_error("disk gone")));
    manager.start("", 1);
    fakes::failCurrentPath(std::make_exception_ptr(Poco::SystemException("deleted")));
    manager.start("", 1);
    EXPECT_THAT(lines(), ElementsAre(std::tuple(kError, "disk gone"),
                                     std::tuple(kError, "System exception: deleted")));
    EXPECT_THAT(fakes::routes(), SizeIs(2));
    EXPECT_THAT(manager.processes, IsEmpty());
    EXPECT_FALSE(manager.checkThread.joinable());
}

TEST_F(MSManagerTest, PassesOverAServiceThatCannotBeLaunched) {
    const std::string first = services.add("a", "exit 0");
    const std::string second = services.add("b", "exit 0");
    const std::string third = services.addStaying("c");
    system::failForks(true);
    manager.launchOne(first, directory());
    system::failForks(false);
    fakes::onCleanByName([](const std::string&) { throw std::runtime_error("no /proc"); });
    manager.launchOne(second, directory());
    fakes::onCleanByName(nullptr);
    manager.launchOne(third, directory());
    EXPECT_THAT(lines(), ElementsAre(noFork(kError, first), std::tuple(kError, "no /proc")));
    ASSERT_THAT(manager.processes, SizeIs(1));
    EXPECT_EQ(manager.processes.front()->path, third);
    Services::awaitStart(third);
    EXPECT_THAT(Services::starts(second), IsEmpty());
}

TEST_F(MSManagerTest, EndsALeftoverBeforeItLaunchesEachService) {
    const std::string first = services.add("a", "exit 0");
    const std::string second = services.add("b", "exit 0");
    std::vector<std::string> order;
    fakes::onCleanByName([&](const std::string& cleaned) { order.push_back(cleaned); });
    system::onFork([&] { order.emplace_back("launch"); });
    launch(first);
    launch(second);
    EXPECT_THAT(order, ElementsAre(name(first), "launch", name(second), "launch"));
    for (const std::string& path : {first, second})
        Services::awaitStart(path);
}

TEST_F(MSManagerTest, RegistersTheRouteFirstAndStartsSupervisionLast) {
    const std::string path = services.add("a", "exit 0");
    fakes::setFiles({path});
    int seen = 0;
    fakes::onCleanByName([&](const std::string&) {
        ++seen;
        EXPECT_THAT(fakes::routes(), SizeIs(1));
        EXPECT_THAT(fakes::listings(), SizeIs(1));
        // the fake's own reference and this one: the router was given back
        EXPECT_EQ(WebApiBasic::instance().use_count(), 2);
    });
    system::onFork([&] {
        ++seen;
        EXPECT_FALSE(manager.checkThread.joinable());
        EXPECT_THAT(manager.processes, IsEmpty());
    });
    manager.start("", kPort);
    EXPECT_EQ(seen, 2);
    EXPECT_TRUE(manager.checkThread.joinable());
    Services::awaitStart(path);
}

TEST_F(MSManagerTest, ListsNothingWithoutAPath) {
    fakes::failCurrentPath(std::make_exception_ptr(Poco::SystemException("deleted")));
    manager.start("", kPort);
    EXPECT_THAT(fakes::listings(), IsEmpty());
    EXPECT_THAT(fakes::routes(), SizeIs(1));
}

TEST_F(MSManagerTest, KeepsWhatItLaunchedWhenNoThreadCanBeMade) {
    const std::string path = services.addStaying("a");
    fakes::setFiles({path});
    system::failThreads(true);
    manager.start("", kPort);
    EXPECT_THAT(lines(),
                ElementsAre(std::tuple(kError, std::string("Resource temporarily unavailable"))));
    EXPECT_FALSE(manager.checkThread.joinable());
    EXPECT_FALSE(manager.running);
    EXPECT_FALSE(manager.stopped);
    ASSERT_THAT(manager.processes, SizeIs(1));
    EXPECT_TRUE(runs(Services::awaitStart(path).pid));
    manager.stop();
    EXPECT_THAT(fakes::cleanedIds(), SizeIs(1));
}

TEST_F(MSManagerTest, LetsOutWhatIsNoExceptionObject) {
    const std::string path = services.add("a", "exit 0");
    fakes::setFiles({path, path});
    fakes::onCleanByName([](const std::string&) { throw 1; });
    EXPECT_THROW(manager.start("", kPort), int);
    EXPECT_THAT(fakes::cleanedNames(), SizeIs(1));
    EXPECT_THAT(manager.processes, IsEmpty());
    EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(MSManagerTest, GoesOnWhereTheLevelHidesItsLines) {
    cachedLogger().setLevel("none");
    manager.start("", kPort);
    EXPECT_THAT(fakes::routes(), SizeIs(1));
    fakes::failListing(std::make_exception_ptr(std::runtime_error("disk gone")));
    manager.start("", kPort);
    fakes::failCurrentPath(std::make_exception_ptr(Poco::SystemException("deleted")));
    manager.start("", kPort);
    EXPECT_THAT(fakes::routes(), SizeIs(3));
    const std::string path = services.addStaying("a");
    system::failForks(true);
    manager.launchOne(path, directory());
    system::failForks(false);
    fakes::onCleanByName([](const std::string&) { throw std::runtime_error("no /proc"); });
    manager.launchOne(path, directory());
    EXPECT_THAT(manager.processes, IsEmpty());
    fakes::onCleanByName(nullptr);
    launch(path);
    Services::awaitStart(path);
    EXPECT_THAT(log.messages(), IsEmpty());
}

TEST_F(MSManagerTest, FilesAServiceWithoutTheProcessLock) {
    const BrokenMutex broken(manager.processMutex);
    const std::string path = services.add("a", "exit 0");
    launch(path);
    EXPECT_THAT(lines(), IsEmpty());
    Services::awaitStart(path);
}

TEST_F(MSManagerTest, LaunchesWhateverFileIsListed) {
    const std::string data = services.add("data.txt", "exit 0");
    std::filesystem::permissions(data, std::filesystem::perms::owner_read);
    ProcessProperty& process = launch((services.folder / "no such file").string());
    awaitExit(process.handle.id());
    launch(data);
    EXPECT_THAT(manager.processes, SizeIs(2));
    EXPECT_THAT(fakes::cleanedNames(), ElementsAre("no such file", name(data)));
    EXPECT_THAT(lines(), IsEmpty());
    for (const auto& each : manager.processes)
        waitpid(each->handle.id(), nullptr, 0);
    manager.processes.clear();
}

TEST_F(MSManagerTest, GivesThePortWithoutLeadingZeros) {
    constexpr std::array<unsigned short, 3> kPorts = {0, 7, 65535};
    for (const unsigned short port : kPorts) {
        const std::string path = services.add("port" + std::to_string(port), "exit 0");
        manager.hostPort = port;
        launch(path);
        EXPECT_EQ(Services::awaitStart(path).arguments, "1:" + std::to_string(port));
    }
}

TEST_F(MSManagerTest, AServiceInheritsEnvironmentAndOutput) {
    setenv("KETRA_TEST_INHERITED", "as it was", 1);
    const std::string path = services.add(
        "a", "echo \"$KETRA_TEST_INHERITED\" > \"$0.env.new\"; mv \"$0.env.new\" \"$0.env\"\n"
             "read ignored < \"$0.fifo\"");
    mkfifo((path + ".fifo").c_str(), S_IRUSR | S_IWUSR);
    launch(path);
    const auto pid = std::to_string(Services::awaitStart(path).pid);
    ASSERT_TRUE(waitUntil([&] { return std::filesystem::exists(path + ".env"); }));
    std::string inherited;
    std::getline(std::ifstream(path + ".env"), inherited);
    EXPECT_EQ(inherited, "as it was");
    for (const char* output : {"1", "2"})
        EXPECT_EQ(std::filesystem::read_symlink("/proc/" + pid + "/fd/" + output),
                  std::filesystem::read_symlink(std::string("/proc/self/fd/") + output));
    unsetenv("KETRA_TEST_INHERITED");
}

TEST_F(MSManagerTest, KeepsBothEntriesOfOneFileNameAndRestartsTheOneThatWasEnded) {
    const std::string path = services.addStaying("same");
    ProcessProperty& first = launch(path);
    const Start start = Services::awaitStart(path);
    fakes::onCleanByName([&](const std::string&) { kill(start.pid, SIGKILL); });
    ProcessProperty& second = launch(path);
    Services::awaitStart(path, 2);
    awaitExit(start.pid);
    EXPECT_THAT(manager.processes, SizeIs(2));
    manager.restartIfExited(first, failedRelaunches);
    manager.restartIfExited(second, failedRelaunches);
    EXPECT_THAT(lines(), ElementsAre(exited(path, "265")));
    EXPECT_EQ(Services::awaitStart(path, 3).pid, first.handle.id());
}

// ---- the state in which services start

/// The line of /proc/PID/status that begins with `field`, without it.
std::string status(pid_t pid, const std::string& field) {
    std::ifstream file("/proc/" + std::to_string(pid) + "/status");
    for (std::string word; file >> word;)
        if (word == field + ":") {
            file >> word;
            return word;
        }
    return "no " + field;
}

class ServiceStateTest : public MSManagerTest {
protected:
    ServiceStateTest() {
        sigset_t terminate;
        sigemptyset(&terminate);
        sigaddset(&terminate, SIGTERM);
        sigaddset(&terminate, SIGUSR1);
        pthread_sigmask(SIG_BLOCK, &terminate, &formerMask);
        struct sigaction ignore {};
        ignore.sa_handler = SIG_IGN;
        sigaction(SIGPIPE, &ignore, &formerPipe);
        sigaction(SIGHUP, &ignore, &formerHangUp);
        formerInput = fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 10);
        std::array<int, 2> ends{};
        if (pipe(ends.data()) == 0) {
            dup2(ends[0], STDIN_FILENO);
            close(ends[0]);
            inputWriter = ends[1];
        }
    }
    ~ServiceStateTest() override {
        pthread_sigmask(SIG_SETMASK, &formerMask, nullptr);
        sigaction(SIGPIPE, &formerPipe, nullptr);
        sigaction(SIGHUP, &formerHangUp, nullptr);
        close(inputWriter);
        if (formerInput >= 0) {
            dup2(formerInput, STDIN_FILENO);
            close(formerInput);
        } else {
            close(STDIN_FILENO);
        }
    }

    static void expectCleanState(pid_t pid) {
        EXPECT_EQ(status(pid, "SigBlk"), "0000000000000000");
        EXPECT_EQ(status(pid, "SigIgn"), "0000000000000000");
        EXPECT_EQ(getpgid(pid), pid);
        EXPECT_EQ(std::filesystem::read_symlink("/proc/" + std::to_string(pid) + "/fd/0"),
                  "/dev/null");
    }

    sigset_t formerMask{};
    struct sigaction formerPipe {};
    struct sigaction formerHangUp {};
    int formerInput = -1;
    int inputWriter = -1;
};

TEST_F(ServiceStateTest, IsCleanWhateverTheHostBlocksAndIgnores) {
    const std::string path = services.addStaying("a");
    ProcessProperty& process = launch(path);
    expectCleanState(Services::awaitStart(path).pid);
    // and once more after a restart
    kill(process.handle.id(), SIGTERM);
    awaitExit(process.handle.id());
    manager.restartIfExited(process, failedRelaunches);
    EXPECT_THAT(lines(), ElementsAre(exited(path, "271")));
    expectCleanState(Services::awaitStart(path, 2).pid);
}

TEST_F(ServiceStateTest, IsCleanWithoutAStandardInputOfTheHost) {
    close(STDIN_FILENO);
    const std::string path = services.addStaying("a");
    launch(path);
    expectCleanState(Services::awaitStart(path).pid);
}

TEST_F(ServiceStateTest, LeavesTheHostAndItsOtherForksAsTheyAre) {
    const std::string path = services.addStaying("a");
    launch(path);
    Services::awaitStart(path);
    sigset_t mask;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    EXPECT_EQ(sigismember(&mask, SIGTERM), 1);
    struct sigaction action {};
    sigaction(SIGPIPE, nullptr, &action);
    EXPECT_EQ(action.sa_handler, SIG_IGN);
    const pid_t other = fork();
    if (other == 0)
        _exit(getpgrp() == getpgid(getppid()) ? 0 : 1);
    int code = 0;
    ASSERT_EQ(waitpid(other, &code, 0), other);
    EXPECT_EQ(code, 0);
}

// ---- the end

TEST_F(MSManagerTest, TheDestructorStops) {
    const std::string path = services.addStaying("a");
    Start start;
    {
        MSManager other;
        other.launchOne(path, directory());
        start = Services::awaitStart(path);
    }
    EXPECT_THAT(fakes::cleanedIds(), ElementsAre(static_cast<unsigned int>(start.pid)));
    EXPECT_FALSE(runs(start.pid));
}

TEST_F(MSManagerTest, AStartAfterStopLaunchesButNeitherSupervisesNorEnds) {
    const std::string path = services.addStaying("a");
    const std::string dying = services.add("dying", "exit 0");
    Start start;
    {
        MSManager other;
        other.stop();
        fakes::setFiles({path, dying});
        other.start("", kPort);
        start = Services::awaitStart(path);
        other.stop();
        EXPECT_THAT(other.processes, SizeIs(2));
        other.checkThread.join(); // it ends by itself, before its first scan
        awaitExit(Services::awaitStart(dying).pid);
    }
    EXPECT_TRUE(runs(start.pid));
    EXPECT_THAT(Services::starts(dying), SizeIs(1));
    EXPECT_THAT(fakes::cleanedIds(), IsEmpty());
    EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(MSManagerTest, TheDestructorEndsQuietlyAfterAStartThatFollowedStop) {
    const std::string path = services.add("a", "exit 0");
    fakes::setFiles({path});
    {
        MSManager other;
        other.stop();
        other.start("", kPort);
        EXPECT_TRUE(other.checkThread.joinable());
        awaitExit(Services::awaitStart(path).pid);
    }
    EXPECT_THAT(lines(), IsEmpty());
}

using MSManagerDeathTest = MSManagerTest;

TEST_F(MSManagerDeathTest, ASecondStartWithoutStopEndsTheProcess) {
    const std::string path = services.add("a", "exit 0");
    fakes::setFiles({path});
    EXPECT_DEATH(
        {
            manager.start("", kPort);
            manager.start("", kPort);
        },
        "");
    Services::awaitStart(path, 2);
}

TEST_F(MSManagerDeathTest, TheOneManagerEndsItsServicesWithTheProcess) {
    const std::string path = services.addStaying("a");
    EXPECT_EXIT(
        {
            MSManager::instance().launchOne(path, directory());
            Services::awaitStart(path);
            std::exit(0);
        },
        testing::ExitedWithCode(0), "");
    // reaped by the process that ended, and nobody's by now
    EXPECT_EQ(kill(Services::awaitStart(path).pid, SIGKILL), -1);
}

TEST_F(MSManagerDeathTest, AnExceptionThatEscapesTheStopOfTheDestructorEndsTheProcess) {
    const std::string path = services.addStaying("a");
    EXPECT_DEATH(
        {
            MSManager other;
            other.launchOne(path, directory());
            fakes::onCleanById([](unsigned int pid) {
                kill(static_cast<pid_t>(pid), SIGKILL);
                throw 1;
            });
        },
        "");
}

} // namespace
} // namespace ktr
