#include "ktr/MSManager.h"

#include "support/LogCapture.h"
#include "support/TempDir.h"
#include "support/WaitUntil.h"
#include "support/fakes/FakeCommon.h"
#include "support/fakes/FakeHttp.h"

#include <Poco/Exception.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <dlfcn.h>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <tuple>
#include <unistd.h>

namespace {

std::atomic<bool> forkFails{false};

} // namespace

// Takes the place of the C library's, to which it hands on: no process can be made while forkFails.
extern "C" KTR_API pid_t fork() noexcept {
    using Function = pid_t (*)();
    static const auto real = reinterpret_cast<Function>(dlsym(RTLD_NEXT, "fork"));
    if (forkFails) {
        errno = EAGAIN;
        return -1;
    }
    return real();
}

namespace ktr {
namespace {

using namespace test;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

constexpr auto kCritical = Poco::Message::PRIO_CRITICAL;
constexpr auto kError = Poco::Message::PRIO_ERROR;
constexpr auto kInformation = Poco::Message::PRIO_INFORMATION;
constexpr unsigned short kPort = 8123;

/// One start of a service, as it wrote it down itself.
struct Start {
    pid_t pid = 0;
    std::string arguments;
    std::string directory;
};

/// Services that are little shell scripts in a folder of their own. All of them are gone when the
/// object is.
class Services {
public:
    Services() {
        prefix = folder.path().filename().string() + "-";
        // A launch closes every descriptor up to the limit, one by one.
        getrlimit(RLIMIT_NOFILE, &formerLimit);
        const rlimit small{256, formerLimit.rlim_max};
        setrlimit(RLIMIT_NOFILE, &small);
    }
    ~Services() {
        for (const std::string& path : paths)
            for (const Start& start : starts(path))
                end(start.pid);
        setrlimit(RLIMIT_NOFILE, &formerLimit);
    }
    Services(const Services&) = delete;
    Services& operator=(const Services&) = delete;

    /// A service that notes its start and then runs `body`.
    std::string add(const std::string& name, const std::string& body) {
        std::string path = (folder / (prefix + name)).string();
        std::filesystem::create_directories(std::filesystem::path(path).parent_path());
        std::ofstream(path) << "#!/bin/sh\ncd -P . && echo \"$$ $#:$1 $PWD\" >> \"$0.starts\"\n"
                            << body << "\n";
        std::filesystem::permissions(path, std::filesystem::perms::owner_all);
        paths.push_back(path);
        return path;
    }
    /// A service that stays until it is ended.
    std::string addStaying(const std::string& name) {
        std::string path = add(name, R"(read ignored < "$0.fifo")");
        mkfifo((path + ".fifo").c_str(), S_IRUSR | S_IWUSR);
        return path;
    }

    static std::vector<Start> starts(const std::string& path) {
        std::vector<Start> found;
        std::ifstream file(path + ".starts");
        for (Start start; file >> start.pid >> start.arguments >> start.directory;)
            found.push_back(start);
        return found;
    }
    /// Waits for the `count`-th start of `path` and answers it.
    static Start awaitStart(const std::string& path, std::size_t count = 1) {
        if (!waitUntil([&] { return starts(path).size() >= count; }))
            throw std::runtime_error("service was not started: " + path);
        return starts(path)[count - 1];
    }

    const TempDir folder;

private:
    static void end(pid_t pid) {
        siginfo_t state{};
        if (waitid(P_PID, static_cast<id_t>(pid), &state, WEXITED | WNOHANG | WNOWAIT) != 0)
            return; // no child of ours, or not any more
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }

    std::string prefix;
    std::vector<std::string> paths;
    rlimit formerLimit{};
};

/// Waits until the child `pid` has ended, and leaves it to be reaped.
void awaitExit(pid_t pid) {
    siginfo_t state{};
    ASSERT_EQ(waitid(P_PID, static_cast<id_t>(pid), &state, WEXITED | WNOWAIT), 0);
}

bool runs(pid_t pid) {
    siginfo_t state{};
    return waitid(P_PID, static_cast<id_t>(pid), &state, WEXITED | WNOHANG | WNOWAIT) == 0 &&
           state.si_pid == 0;
}

std::string ownDirectory() {
    return std::filesystem::read_symlink("/proc/self/exe").parent_path().string();
}

class MSManagerTest : public testing::Test {
protected:
    MSManagerTest() {
        fakes::reset();
        fakes::setCurrentPath(services.folder.path().string());
        manager.hostPort = kPort;
    }
    ~MSManagerTest() override {
        forkFails = false;
        fakes::failCleanById(nullptr);
    }

    std::string directory() const { return services.folder.path().string(); }

    ProcessProperty& launch(const std::string& path) {
        manager.launchOne(path, directory());
        return *manager.processes.back();
    }

    std::vector<std::tuple<Poco::Message::Priority, std::string>> lines() const {
        std::vector<std::tuple<Poco::Message::Priority, std::string>> found;
        for (const Poco::Message& message : log.messages()) {
            found.emplace_back(message.getPriority(), message.getText());
            EXPECT_STREQ(message.getSourceFile(), "src/pluginmgr/MSManager") << message.getText();
            EXPECT_GT(message.getSourceLine(), 0) << message.getText();
        }
        return found;
    }

    static std::string name(const std::string& path) {
        return std::filesystem::path(path).filename().string();
    }
    static std::tuple<Poco::Message::Priority, std::string> exited(const std::string& path,
                                                                   const std::string& code) {
        return {kInformation,
                "microservice " + name(path) + " exited, code: " + code + ", restart it"};
    }
    static std::tuple<Poco::Message::Priority, std::string> stopping(const std::string& path) {
        return {kInformation, "microservice " + name(path) + " running, stop it"};
    }
    static std::tuple<Poco::Message::Priority, std::string> noFork(Poco::Message::Priority priority,
                                                                   const std::string& path) {
        return {priority, "System exception: Cannot fork process for: " + path};
    }
    static std::tuple<Poco::Message::Priority, std::string> noWait(pid_t pid) {
        return {kCritical, "System exception: Cannot wait for process: " + std::to_string(pid)};
    }

    Services services; // outlives the manager, which ends them first
    const LogCapture log;
    MSManager manager;
    MSManager::ExitCodes failedRelaunches;
};

// ---- start

TEST_F(MSManagerTest, IsOneForTheProcess) {
    EXPECT_EQ(&MSManager::instance(), &MSManager::instance());
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
    forkFails = true;
    manager.launchOne(first, directory());
    forkFails = false;
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

TEST_F(MSManagerTest, EndsALeftoverBeforeItLaunches) {
    const std::string path = services.addStaying("a");
    std::size_t startsAtCleaning = 1;
    fakes::onCleanByName(
        [&](const std::string&) { startsAtCleaning = Services::starts(path).size(); });
    launch(path);
    EXPECT_EQ(startsAtCleaning, 0U);
    Services::awaitStart(path);
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

// ---- supervision

TEST_F(MSManagerTest, RestartsWithTheSameArgumentInTheDirectoryOfTheHostsExecutable) {
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

TEST_F(MSManagerTest, TriesAFailedRelaunchAgain) {
    const std::string path = services.add("a", "exit 3");
    ProcessProperty& process = launch(path);
    const pid_t former = process.handle.id();
    awaitExit(former);
    forkFails = true;
    manager.restartIfExited(process, failedRelaunches);
    manager.restartIfExited(process, failedRelaunches);
    EXPECT_EQ(process.handle.id(), former);
    forkFails = false;
    manager.restartIfExited(process, failedRelaunches);
    EXPECT_THAT(lines(), ElementsAre(exited(path, "3"), noFork(kCritical, path), exited(path, "3"),
                                     noFork(kCritical, path), exited(path, "3")));
    EXPECT_NE(process.handle.id(), former);
    EXPECT_EQ(Services::awaitStart(path, 2).pid, process.handle.id());
    EXPECT_THAT(failedRelaunches, IsEmpty());
}

TEST_F(MSManagerTest, RestartsWhatSomebodyElseReapedWithOneCriticalLine) {
    const std::string path = services.addStaying("a");
    ProcessProperty& process = launch(path);
    const Start start = Services::awaitStart(path);
    kill(start.pid, SIGKILL);
    ASSERT_EQ(waitpid(start.pid, nullptr, 0), start.pid);
    forkFails = true;
    manager.restartIfExited(process, failedRelaunches);
    forkFails = false;
    manager.restartIfExited(process, failedRelaunches);
    manager.restartIfExited(process, failedRelaunches);
    EXPECT_THAT(lines(), ElementsAre(noWait(start.pid), exited(path, "-2"), noFork(kCritical, path),
                                     exited(path, "-2")));
    EXPECT_EQ(Services::awaitStart(path, 2).pid, process.handle.id());
}

TEST_F(MSManagerTest, RestartsAFileThatCannotBeExecuted) {
    const std::string path = services.add("a", "exit 0");
    std::ofstream(path, std::ios::trunc) << "#!/nonexistent/interpreter\n";
    ProcessProperty& process = launch(path);
    awaitExit(process.handle.id());
    manager.restartIfExited(process, failedRelaunches);
    EXPECT_THAT(lines(), ElementsAre(exited(path, "72")));
    waitpid(process.handle.id(), nullptr, 0);
}

TEST_F(MSManagerTest, SupervisesOnceASecondWithoutEnd) {
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

// ---- stop

TEST_F(MSManagerTest, StopWithoutStartOnlySetsTheFlags) {
    manager.stop();
    manager.stop();
    EXPECT_TRUE(manager.stopped);
    EXPECT_FALSE(manager.running);
    EXPECT_THAT(lines(), IsEmpty());
    EXPECT_THAT(fakes::cleanedIds(), IsEmpty());
}

TEST_F(MSManagerTest, StopPassesOverNullAndReapedEntriesAndReachesTheOthers) {
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

TEST_F(MSManagerTest, StopEndsServicesAlsoWhereTheLevelHidesItsLine) {
    const std::string path = services.addStaying("a");
    launch(path);
    const Start start = Services::awaitStart(path);
    cachedLogger().setLevel(Poco::Message::PRIO_NOTICE);
    manager.stop();
    EXPECT_THAT(lines(), IsEmpty());
    EXPECT_FALSE(runs(start.pid));
    EXPECT_THAT(fakes::cleanedIds(), SizeIs(1));
}

TEST_F(MSManagerTest, StopEndsWithTheFirstFailureAndNeverRetries) {
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

TEST_F(MSManagerTest, StopLogsAStandardExceptionWithItsText) {
    const std::string path = services.addStaying("a");
    launch(path);
    Services::awaitStart(path);
    fakes::failCleanById(std::make_exception_ptr(std::runtime_error("no kill")));
    manager.stop();
    EXPECT_THAT(lines(), ElementsAre(stopping(path), std::tuple(kCritical, "no kill")));
}

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

} // namespace
} // namespace ktr
