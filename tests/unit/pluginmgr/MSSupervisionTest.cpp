#include "MSManagerUnderTest.h"

#include "support/Locks.h"
#include "support/LogHook.h"

#include <cerrno>

namespace ktr {
namespace {

using namespace test;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

using MSSupervisionTest = MSManagerFixture;

// ---- supervision

TEST_F(MSSupervisionTest, RestartsWithTheSameArgumentInTheDirectoryOfTheHostsExecutable) {
    const std::string path = services.add("a", "[ -e \"$0.once\" ] && read i < \"$0.fifo\"\n"
                                               ": > \"$0.once\"\nexit 3");
    mkfifo((path + ".fifo").c_str(), S_IRUSR | S_IWUSR);
    ProcessProperty& process = launch(path);
    awaitExit(process.handle.id());
    manager.restartIfExited(process, failedRelaunches);
    const Start start = Services::awaitStart(path, 2);
    EXPECT_EQ(start.pid, process.handle.id());
    EXPECT_EQ(start.arguments, "1:" + std::to_string(kPort));
    EXPECT_EQ(start.directory, std::filesystem::canonical(ownDirectory()));
    manager.restartIfExited(process, failedRelaunches);
    EXPECT_THAT(lines(), ElementsAre(exited(path, "3")));
    EXPECT_THAT(fakes::cleanedNames(), SizeIs(1)); // none before the relaunch
}

TEST_F(MSSupervisionTest, TriesAFailedRelaunchAgain) {
    const std::string path = services.add("a", "exit 3");
    ProcessProperty& process = launch(path);
    const pid_t former = process.handle.id();
    awaitExit(former);
    system::failForks(true);
    manager.restartIfExited(process, failedRelaunches);
    manager.restartIfExited(process, failedRelaunches);
    EXPECT_EQ(process.handle.id(), former);
    system::failForks(false);
    manager.restartIfExited(process, failedRelaunches);
    EXPECT_THAT(lines(), ElementsAre(exited(path, "3"), noFork(kCritical, path), exited(path, "3"),
                                     noFork(kCritical, path), exited(path, "3")));
    EXPECT_NE(process.handle.id(), former);
    EXPECT_EQ(Services::awaitStart(path, 2).pid, process.handle.id());
    EXPECT_THAT(failedRelaunches, IsEmpty());
}

TEST_F(MSSupervisionTest, RestartsWhatSomebodyElseReapedWithOneCriticalLine) {
    const std::string path = services.addStaying("a");
    ProcessProperty& process = launch(path);
    const Start start = Services::awaitStart(path);
    kill(start.pid, SIGKILL);
    ASSERT_EQ(waitpid(start.pid, nullptr, 0), start.pid);
    system::failForks(true);
    manager.restartIfExited(process, failedRelaunches);
    system::failForks(false);
    manager.restartIfExited(process, failedRelaunches);
    manager.restartIfExited(process, failedRelaunches);
    EXPECT_THAT(lines(), ElementsAre(noWait(start.pid), exited(path, "-2"), noFork(kCritical, path),
                                     exited(path, "-2")));
    EXPECT_EQ(Services::awaitStart(path, 2).pid, process.handle.id());
}

TEST_F(MSSupervisionTest, RestartsAFileThatCannotBeExecuted) {
    const std::string path = services.add("a", "exit 0");
    std::ofstream(path, std::ios::trunc) << "#!/nonexistent/interpreter\n";
    ProcessProperty& process = launch(path);
    awaitExit(process.handle.id());
    manager.restartIfExited(process, failedRelaunches);
    EXPECT_THAT(lines(), ElementsAre(exited(path, "72")));
    waitpid(process.handle.id(), nullptr, 0);
}

TEST_F(MSSupervisionTest, SupervisesOnceASecondWithoutEnd) {
    const std::string dying = services.add("dying", "exit 9");
    const std::string staying = services.addStaying("staying");
    const std::string last = services.addStaying("last");
    fakes::setFiles({dying, staying, last});
    const auto begin = std::chrono::steady_clock::now();
    manager.start("", kPort);
    {
        const std::lock_guard<std::mutex> lock(manager.processMutex);
        manager.processes.insert(std::next(manager.processes.begin()),
                                 Poco::SharedPtr<ProcessProperty>());
    }
    const pid_t ended = Services::awaitStart(last).pid;
    kill(ended, SIGKILL);
    Services::awaitStart(dying, 2);
    const auto first = std::chrono::steady_clock::now() - begin;
    EXPECT_GE(first, std::chrono::seconds(1));
    EXPECT_EQ(Services::awaitStart(last, 2).directory, std::filesystem::canonical(ownDirectory()));
    Services::awaitStart(dying, 3);
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::seconds(2));
    EXPECT_TRUE(manager.running);
    manager.stop();
    EXPECT_EQ(log.count("microservice " + name(last) + " exited, code: 265, restart it"), 1);
    EXPECT_EQ(log.count("microservice " + name(staying) + " exited"), 0);
    EXPECT_EQ(log.count("microservice " + name(dying) + " exited, code: 9, restart it"), 2);
    EXPECT_EQ(log.count("microservice " + name(staying) + " running, stop it"), 1);
    EXPECT_EQ(log.count("microservice " + name(last) + " running, stop it"), 1);
    EXPECT_THAT(log.texts(kCritical), IsEmpty());
    EXPECT_THAT(manager.processes, IsEmpty());
    EXPECT_FALSE(manager.running);
}

// The following run the supervision on the test's own thread; the time that it sleeps passes at
// once.

TEST_F(MSSupervisionTest, SleepsASecondBeforeEveryScanWithoutTheLock) {
    const std::string path = services.add("a", "exit 9");
    awaitExit(launch(path).handle.id());
    std::vector<std::string> order;
    system::onFork([&] { order.emplace_back("launch"); });
    system::replaceSleep([&](const std::timespec& time) {
        order.push_back("sleep " + std::to_string(time.tv_sec) + " " +
                        std::to_string(time.tv_nsec));
        EXPECT_TRUE(isFree(manager.processMutex));
        EXPECT_TRUE(manager.running);
        awaitExit(manager.processes.front()->handle.id());
        manager.running = order.size() < 5;
        return true;
    });
    manager.processCheckThread();
    EXPECT_THAT(order, ElementsAre("sleep 1 0", "launch", "sleep 1 0", "launch", "sleep 1 0"));
    EXPECT_THAT(lines(), ElementsAre(exited(path, "9"), exited(path, "9")));
    EXPECT_TRUE(isFree(manager.processMutex));
}

TEST_F(MSSupervisionTest, SleepsOnAfterASignal) {
    std::vector<long> times;
    system::replaceSleep([&](std::timespec& time) {
        times.push_back(time.tv_sec * 1000 + time.tv_nsec / 1000000);
        time = {0, 400000000};
        manager.running = times.size() < 2;
        return times.size() > 1;
    });
    manager.processCheckThread();
    EXPECT_THAT(times, ElementsAre(1000, 400));
}

TEST_F(MSSupervisionTest, HoldsTheLockThroughAWholeScanAndKeepsTheOrder) {
    const std::string first = services.add("a", "exit 1");
    const std::string second = services.add("b", "exit 2");
    awaitExit(launch(first).handle.id());
    awaitExit(launch(second).handle.id());
    const auto before = manager.processes;
    int calls = 0;
    const auto expectLocked = [&] {
        ++calls;
        EXPECT_FALSE(isFree(manager.processMutex));
    };
    const LogHook hook([&](const Poco::Message& message) {
        expectLocked();
        manager.running = message.getText().find("code: 2") == std::string::npos;
    });
    system::onFork(expectLocked);
    system::replaceSleep([](const std::timespec&) { return true; });
    manager.processCheckThread();
    EXPECT_EQ(calls, 4);
    EXPECT_THAT(lines(), ElementsAre(exited(first, "1"), exited(second, "2")));
    EXPECT_EQ(manager.processes, before);
    for (const std::string& path : {first, second})
        Services::awaitStart(path, 2);
}

TEST_F(MSSupervisionTest, LeavesTheScanBetweenEntriesOnceItIsToEnd) {
    for (const bool stopFlag : {false, true}) {
        const std::string first = services.add("first" + std::to_string(stopFlag), "exit 0");
        const std::string second = services.add("second" + std::to_string(stopFlag), "exit 0");
        awaitExit(launch(first).handle.id());
        awaitExit(launch(second).handle.id());
        int sleeps = 0;
        const LogHook hook([&](const Poco::Message&) {
            if (stopFlag)
                manager.stopped = true;
            else
                manager.running = false;
        });
        system::replaceSleep([&](const std::timespec&) {
            ++sleeps;
            return true;
        });
        manager.processCheckThread();
        EXPECT_EQ(sleeps, 1);
        EXPECT_EQ(manager.running, stopFlag);
        EXPECT_EQ(log.count(name(first)), 1);
        EXPECT_EQ(log.count(name(second)), 0);
        awaitExit(manager.processes.front()->handle.id());
        manager.processes.clear();
    }
}

TEST_F(MSSupervisionTest, EndsBeforeItsFirstSleepOnceItIsStopped) {
    const BrokenMutex broken(manager.processMutex);
    int sleeps = 0;
    system::replaceSleep([&](const std::timespec&) { return ++sleeps > 0; });
    manager.stopped = true;
    manager.processCheckThread();
    EXPECT_EQ(sleeps, 0);
    EXPECT_TRUE(manager.running); // set by the thread all the same
}

TEST_F(MSSupervisionTest, GoesOnWithTheOthersAfterAFailureAndTriesAgainAtTheNextScan) {
    const std::string first = services.add("a", "exit 3");
    const std::string second = services.addStaying("b");
    ProcessProperty& process = launch(first);
    awaitExit(process.handle.id());
    launch(second);
    const pid_t killed = Services::awaitStart(second).pid;
    kill(killed, SIGKILL);
    awaitExit(killed);
    int forks = 0;
    int sleeps = 0;
    system::onFork([&] { system::failForks(++forks == 1); });
    system::replaceSleep([&](const std::timespec&) {
        manager.running = ++sleeps < 3;
        return true;
    });
    manager.processCheckThread();
    EXPECT_THAT(lines(), ElementsAre(exited(first, "3"), noFork(kCritical, first),
                                     exited(second, "265"), exited(first, "3")));
    EXPECT_EQ(Services::awaitStart(first, 2).pid, process.handle.id());
    EXPECT_EQ(Services::awaitStart(second, 2).pid, manager.processes.back()->handle.id());
}

TEST_F(MSSupervisionTest, LogsAStandardExceptionWithItsText) {
    ProcessProperty& process = launch(services.add("a", "exit 3"));
    const pid_t former = process.handle.id();
    awaitExit(former);
    const LogHook hook([](const Poco::Message& message) {
        if (message.getPriority() == kInformation)
            throw std::runtime_error("log full");
    });
    manager.restartIfExited(process, failedRelaunches);
    EXPECT_THAT(log.texts(kCritical), ElementsAre("log full"));
    EXPECT_EQ(process.handle.id(), former);
}

TEST_F(MSSupervisionTest, LetsOutWhatIsNoExceptionObjectAndUnlocks) {
    awaitExit(launch(services.add("a", "exit 3")).handle.id());
    const LogHook hook([](const Poco::Message&) { throw 1; });
    system::replaceSleep([&, sleeps = 0](const std::timespec&) mutable {
        manager.running = ++sleeps < 2;
        return true;
    });
    EXPECT_THROW(manager.processCheckThread(), int);
    EXPECT_THAT(log.texts(kCritical), IsEmpty());
    EXPECT_TRUE(isFree(manager.processMutex));
}

TEST_F(MSSupervisionTest, RestartsAlsoWhereTheLevelHidesItsLines) {
    cachedLogger().setLevel("none");
    const std::string path = services.addStaying("a");
    ProcessProperty& process = launch(path);
    const pid_t former = Services::awaitStart(path).pid;
    kill(former, SIGKILL);
    ASSERT_EQ(waitpid(former, nullptr, 0), former);
    system::failForks(true);
    manager.restartIfExited(process, failedRelaunches);
    EXPECT_EQ(process.handle.id(), former);
    system::failForks(false);
    manager.restartIfExited(process, failedRelaunches);
    EXPECT_EQ(Services::awaitStart(path, 2).pid, process.handle.id());
    EXPECT_THAT(log.messages(), IsEmpty());
}

TEST_F(MSSupervisionTest, LetsOutAFailureToLock) {
    const BrokenMutex broken(manager.processMutex);
    system::replaceSleep([&, sleeps = 0](const std::timespec&) mutable {
        manager.running = ++sleeps < 2;
        return true;
    });
    EXPECT_THROW(manager.processCheckThread(), std::system_error);
    EXPECT_THAT(lines(), IsEmpty());
}

// ---- stop

TEST_F(MSSupervisionTest, StopWithoutStartOnlySetsTheFlags) {
    manager.stop();
    manager.stop();
    EXPECT_TRUE(manager.stopped);
    EXPECT_FALSE(manager.running);
    EXPECT_THAT(lines(), IsEmpty());
    EXPECT_THAT(fakes::cleanedIds(), IsEmpty());
}

TEST_F(MSSupervisionTest, StopPassesOverNullAndReapedEntriesAndReachesTheOthers) {
    const std::string reaped = services.addStaying("reaped");
    const std::string last = services.addStaying("last");
    const pid_t pid = launch(reaped).handle.id();
    kill(pid, SIGKILL);
    ASSERT_EQ(waitpid(pid, nullptr, 0), pid);
    manager.processes.emplace_back(nullptr);
    launch(last);
    const Start start = Services::awaitStart(last);
    manager.stop();
    EXPECT_THAT(lines(), ElementsAre(noWait(pid), stopping(last)));
    EXPECT_THAT(fakes::cleanedIds(), ElementsAre(static_cast<unsigned int>(start.pid)));
    EXPECT_FALSE(runs(start.pid));
    EXPECT_THAT(manager.processes, IsEmpty());
}

TEST_F(MSSupervisionTest, StopEndsServicesAlsoWhereTheLevelHidesItsLine) {
    const std::string path = services.addStaying("a");
    launch(path);
    const Start start = Services::awaitStart(path);
    cachedLogger().setLevel(Poco::Message::PRIO_NOTICE);
    manager.stop();
    EXPECT_THAT(lines(), IsEmpty());
    EXPECT_FALSE(runs(start.pid));
    EXPECT_THAT(fakes::cleanedIds(), SizeIs(1));
}

TEST_F(MSSupervisionTest, StopEndsWithAFailureAlsoWhereTheLevelHidesItsLine) {
    cachedLogger().setLevel("none");
    const std::string path = services.addStaying("a");
    for (const auto& failure : {std::make_exception_ptr(Poco::NoPermissionException("kill")),
                                std::make_exception_ptr(std::runtime_error("no kill"))}) {
        launch(path);
        fakes::failCleanById(failure);
        manager.stopped = false;
        manager.stop();
        EXPECT_FALSE(manager.processes.empty());
    }
    EXPECT_THAT(log.messages(), IsEmpty());
    Services::awaitStart(path, 2);
}

TEST_F(MSSupervisionTest, StopEndsWithTheFirstFailureAndNeverRetries) {
    const std::string first = services.addStaying("a");
    const std::string second = services.addStaying("b");
    launch(first);
    Services::awaitStart(first);
    launch(second);
    const Start start = Services::awaitStart(second);
    fakes::failCleanById(std::make_exception_ptr(Poco::NoPermissionException("kill")));
    manager.stop();
    EXPECT_THAT(lines(),
                ElementsAre(stopping(first), std::tuple(kCritical, "No permission: kill")));
    EXPECT_THAT(manager.processes, SizeIs(2));
    EXPECT_TRUE(runs(start.pid));
    EXPECT_TRUE(manager.processMutex.try_lock());
    manager.processMutex.unlock();
    fakes::failCleanById(nullptr);
    manager.stop();
    EXPECT_TRUE(runs(start.pid));
    EXPECT_THAT(log.messages(), SizeIs(2));
}

TEST_F(MSSupervisionTest, StopLogsAStandardExceptionWithItsText) {
    const std::string path = services.addStaying("a");
    launch(path);
    Services::awaitStart(path);
    fakes::failCleanById(std::make_exception_ptr(std::runtime_error("no kill")));
    manager.stop();
    EXPECT_THAT(lines(), ElementsAre(stopping(path), std::tuple(kCritical, "no kill")));
}

TEST_F(MSSupervisionTest, StopWaitsForARunningScanWithTheFlagsSet) {
    const std::string path = services.add("a", "exit 3");
    const std::string other = services.addStaying("b");
    fakes::setFiles({path, other});
    std::atomic<bool> scanning{false};
    std::atomic<bool> stopEnded{false};
    const LogHook hook([&](const Poco::Message& message) {
        if (message.getText().find("restart it") == std::string::npos)
            return;
        scanning = true;
        // The scan does not end before the stop begins, and so the stop cannot end before the scan.
        EXPECT_TRUE(waitUntil([&] { return static_cast<const volatile bool&>(manager.stopped); }));
        EXPECT_FALSE(stopEnded);
        EXPECT_THAT(fakes::cleanedIds(), IsEmpty());
    });
    manager.start("", kPort);
    EXPECT_TRUE(waitUntil([&] { return scanning.load(); }));
    manager.stop();
    stopEnded = true;
    EXPECT_THAT(manager.processes, IsEmpty());
    EXPECT_FALSE(manager.checkThread.joinable());
}

TEST_F(MSSupervisionTest, StopLogsThenEndsEachServiceUnderTheLockAndForgetsThemLast) {
    const std::string first = services.addStaying("a");
    const std::string second = services.addStaying("b");
    launch(first);
    Services::awaitStart(first);
    launch(second);
    Services::awaitStart(second);
    std::vector<std::string> order;
    const auto note = [&](const std::string& what) {
        order.push_back(what);
        EXPECT_FALSE(isFree(manager.processMutex));
        EXPECT_THAT(manager.processes, SizeIs(2));
        EXPECT_TRUE(manager.stopped);
    };
    const LogHook hook([&](const Poco::Message&) { note("log"); });
    fakes::onCleanById([&](unsigned int) { note("end"); });
    manager.stop();
    EXPECT_THAT(order, ElementsAre("log", "end", "log", "end"));
    EXPECT_THAT(manager.processes, IsEmpty());
    EXPECT_TRUE(isFree(manager.processMutex));
}

TEST_F(MSSupervisionTest, StopLogsAFailureToLockAfterItJoinedAndStaysStopped) {
    const std::string path = services.addStaying("a");
    launch(path);
    manager.checkThread = std::thread([] {});
    {
        const BrokenMutex broken(manager.processMutex);
        manager.stop();
    }
    EXPECT_THAT(lines(), ElementsAre(std::tuple(kCritical, std::string(BrokenMutex::kText))));
    EXPECT_FALSE(manager.checkThread.joinable()); // joined before the lock is taken
    EXPECT_TRUE(manager.stopped);
    EXPECT_FALSE(manager.running);
    EXPECT_THAT(manager.processes, SizeIs(1));
    EXPECT_THAT(fakes::cleanedIds(), IsEmpty());
    Services::awaitStart(path);
}

TEST_F(MSSupervisionTest, StopLetsOutWhatIsNoExceptionObjectAndUnlocks) {
    const std::string path = services.addStaying("a");
    launch(path);
    Services::awaitStart(path);
    fakes::onCleanById([](unsigned int) { throw 1; });
    EXPECT_THROW(manager.stop(), int);
    EXPECT_THAT(lines(), ElementsAre(stopping(path)));
    EXPECT_THAT(manager.processes, SizeIs(1));
    EXPECT_TRUE(isFree(manager.processMutex));
}

} // namespace
} // namespace ktr
