#include "ktr/common/ProcessControl.h"

#include "support/LogCapture.h"
#include "support/TempDir.h"
#include "support/WaitUntil.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <memory>
#include <poll.h>
#include <spawn.h>
#include <stdexcept>
#include <string>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace ktr {
namespace {

namespace fs = std::filesystem;
using test::LogCapture;
using test::TempDir;
using test::waitUntil;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

/// Tells of one process whether it still runs, whoever waits for it.
class Watch {
public:
    explicit Watch(pid_t pid) : fd(static_cast<int>(syscall(SYS_pidfd_open, pid, 0))) {
        if (fd < 0)
            throw std::runtime_error("no process to watch");
    }
    ~Watch() { close(fd); }
    Watch(const Watch&) = delete;
    Watch& operator=(const Watch&) = delete;

    bool runs() const {
        pollfd wanted{fd, POLLIN, 0};
        return poll(&wanted, 1, 0) == 0;
    }
    void send(int signal) const { syscall(SYS_pidfd_send_signal, fd, signal, nullptr, 0); }
    int descriptor() const { return fd; }

private:
    int fd;
};

enum class Group { Ours, Own };

/// A process that the test started; ended with the object, and by the end of its input if the test
/// itself ends before.
class Puppet {
public:
    Puppet(const fs::path& file, const std::vector<std::string>& arguments,
           Group group = Group::Ours)
        : own(group == Group::Own) {
        std::array<int, 2> toChild{};
        std::array<int, 2> fromChild{};
        if (pipe2(toChild.data(), O_CLOEXEC) != 0 || pipe2(fromChild.data(), O_CLOEXEC) != 0)
            throw std::runtime_error("no pipe");
        input = toChild[1];
        output = fromChild[0];
        spawn(file, arguments, toChild[0], fromChild[1]);
        close(toChild[0]);
        close(fromChild[1]);
        watch = std::make_unique<Watch>(id);
        firstLine = readLine();
        if (firstLine.compare(0, 5, "ready") != 0)
            throw std::runtime_error(file.string() + " did not get ready: " + firstLine);
    }
    ~Puppet() {
        siginfo_t seen{};
        // a group can be named only while its leader has not been waited for
        if (own && waitid(P_PIDFD, static_cast<id_t>(watch->descriptor()), &seen,
                          WEXITED | WNOHANG | WNOWAIT) == 0)
            kill(-id, SIGKILL);
        watch->send(SIGKILL);
        waitid(P_PIDFD, static_cast<id_t>(watch->descriptor()), &seen, WEXITED);
        close(input);
        close(output);
    }
    Puppet(const Puppet&) = delete;
    Puppet& operator=(const Puppet&) = delete;

    pid_t pid() const { return id; }
    unsigned int unsignedPid() const { return static_cast<unsigned int>(id); }
    pid_t grandchild() const { return std::stoi(firstLine.substr(6)); }
    bool runs() const { return watch->runs(); }
    void stop() const {
        watch->send(SIGSTOP);
        int status = 0;
        waitpid(id, &status, WUNTRACED);
    }

    /// The status that its owner gets; -1 if somebody else took it, or if it does not end.
    int wait() const {
        if (!waitUntil([this] { return !runs(); }, std::chrono::seconds(5)))
            return -1;
        int status = 0;
        pid_t waited = 0;
        do
            waited = waitpid(id, &status, 0);
        while (waited < 0 && errno == EINTR);
        return waited == id ? status : -1;
    }

    /// Neither the process nor anything that it started runs any more: all would hold its output.
    bool isSilenced() const {
        std::array<char, 256> ignored{};
        pollfd wanted{output, POLLIN, 0};
        while (poll(&wanted, 1, 0) > 0 && (wanted.revents & POLLIN) != 0)
            if (read(output, ignored.data(), ignored.size()) < 0)
                return false;
        return (wanted.revents & POLLHUP) != 0;
    }

    std::string readLine() const {
        std::string line;
        pollfd wanted{output, POLLIN, 0};
        char next = 0;
        while (poll(&wanted, 1, 10000) > 0 && read(output, &next, 1) == 1 && next != '\n')
            line += next;
        return line;
    }

private:
    void spawn(const fs::path& file, const std::vector<std::string>& arguments, int in, int out) {
        std::vector<std::string> texts{file.string()};
        texts.insert(texts.end(), arguments.begin(), arguments.end());
        std::vector<char*> pointers;
        pointers.reserve(texts.size() + 1);
        for (std::string& text : texts)
            pointers.push_back(text.data());
        pointers.push_back(nullptr);
        posix_spawn_file_actions_t actions{};
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, in, STDIN_FILENO);
        posix_spawn_file_actions_adddup2(&actions, out, STDOUT_FILENO);
        posix_spawnattr_t attributes{};
        posix_spawnattr_init(&attributes);
        if (own)
            posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP);
        const int error =
            posix_spawn(&id, file.c_str(), &actions, &attributes, pointers.data(), environ);
        posix_spawnattr_destroy(&attributes);
        posix_spawn_file_actions_destroy(&actions);
        if (error != 0)
            throw std::runtime_error("cannot start " + file.string());
    }

    const bool own;
    pid_t id = -1;
    int input = -1;
    int output = -1;
    std::unique_ptr<Watch> watch;
    std::string firstLine;
};

std::ptrdiff_t openDescriptors() {
    return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
}

std::string kernelNameOf(pid_t pid) {
    std::ifstream file("/proc/" + std::to_string(pid) + "/comm");
    std::string name;
    std::getline(file, name);
    return name;
}

bool endedBySignal(int status, int signal) {
    return status != -1 && WIFSIGNALED(status) && WTERMSIG(status) == signal;
}

class ProcessControl : public testing::Test {
protected:
    /// A file name that nothing else on the machine bears.
    std::string named(const std::string& what) const {
        return folder.path().filename().string() + "-" + what;
    }

    fs::path puppet(const std::string& name) const {
        fs::path file = folder / name;
        fs::create_directories(file.parent_path());
        std::error_code otherFileSystem;
        fs::create_hard_link(KETRA_TEST_PUPPET, file, otherFileSystem);
        if (otherFileSystem)
            fs::copy_file(KETRA_TEST_PUPPET, file);
        return file;
    }

    fs::path script(const std::string& name, const std::string& interpreter) const {
        fs::path file = folder / name;
        std::ofstream(file) << "#!" << interpreter << "\necho ready\nread -r line\n";
        fs::permissions(file, fs::perms::owner_all);
        return file;
    }

    /// A shell that no stranger runs.
    fs::path shell(const std::string& name) const {
        fs::copy_file("/bin/sh", folder / name);
        return folder / name;
    }

    void TearDown() override {
        EXPECT_EQ(openDescriptors(), descriptorsBefore) << "a descriptor was left open";
    }

    const std::ptrdiff_t descriptorsBefore = openDescriptors();
    const TempDir folder;
};

class CleanProcessById : public ProcessControl {};
class CleanProcessByName : public ProcessControl {};

TEST_F(CleanProcessById, EndsAndReapsAChild) {
    const Puppet child(puppet(named("child")), {});
    cleanProcessById(child.unsignedPid());
    EXPECT_FALSE(child.runs());
    EXPECT_EQ(child.wait(), -1);
    EXPECT_EQ(errno, ECHILD);
}

TEST_F(CleanProcessById, LetsAProcessThatHeedsSigtermEndByItself) {
    const LogCapture log;
    const Puppet child(puppet(named("child")), {"exit-on-term"});
    const auto begin = Clock::now();
    cleanProcessById(child.unsignedPid());
    EXPECT_LT(Clock::now() - begin, milliseconds(900));
    EXPECT_FALSE(child.runs());
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(CleanProcessById, KillsAfterASecondWhatIgnoresSigterm) {
    const LogCapture log;
    const Puppet child(puppet(named("child")), {"ignore-term"});
    const auto begin = Clock::now();
    cleanProcessById(child.unsignedPid());
    EXPECT_GE(Clock::now() - begin, milliseconds(1000));
    EXPECT_LT(Clock::now() - begin, milliseconds(3000));
    EXPECT_FALSE(child.runs());
    EXPECT_EQ(child.wait(), -1);
    EXPECT_EQ(log.count("process " + std::to_string(child.pid())), 1);
}

TEST_F(CleanProcessById, LetsAStoppedProcessHeedSigterm) {
    const Puppet child(puppet(named("child")), {"exit-on-term"});
    child.stop();
    const auto begin = Clock::now();
    cleanProcessById(child.unsignedPid());
    EXPECT_LT(Clock::now() - begin, milliseconds(900));
    EXPECT_FALSE(child.runs());
}

TEST_F(CleanProcessById, ReapsAChildThatHadEndedBefore) {
    const Puppet child(puppet(named("child")), {"exit"});
    ASSERT_TRUE(waitUntil([&] { return !child.runs(); }));
    cleanProcessById(child.unsignedPid());
    EXPECT_EQ(child.wait(), -1);
}

TEST_F(CleanProcessById, EndsTheWholeGroupOfALeader) {
    const Puppet leader(puppet(named("leader")), {"grandchild"}, Group::Own);
    const Watch grandchild(leader.grandchild());
    cleanProcessById(leader.unsignedPid());
    EXPECT_FALSE(leader.runs());
    EXPECT_FALSE(grandchild.runs());
}

TEST_F(CleanProcessById, EndsTheGroupOfALeaderThatHadEndedBefore) {
    const Puppet leader(puppet(named("leader")), {"grandchild", "exit"}, Group::Own);
    const Watch grandchild(leader.grandchild());
    ASSERT_TRUE(waitUntil([&] { return !leader.runs(); }));
    ASSERT_TRUE(grandchild.runs());
    cleanProcessById(leader.unsignedPid());
    EXPECT_FALSE(grandchild.runs());
    EXPECT_EQ(leader.wait(), -1);
}

TEST_F(CleanProcessById, EndsAGroupThatKeepsReplacingItsMembers) {
    const Puppet leader(puppet(named("leader")), {"respawn", "ignore-term"}, Group::Own);
    cleanProcessById(leader.unsignedPid());
    EXPECT_FALSE(leader.runs());
    EXPECT_TRUE(leader.isSilenced());
}

TEST_F(CleanProcessById, SparesOtherMembersOfAGroupThatTheProcessDoesNotLead) {
    const Puppet child(puppet(named("child")), {"grandchild"});
    const Watch grandchild(child.grandchild());
    cleanProcessById(child.unsignedPid());
    EXPECT_FALSE(child.runs());
    EXPECT_TRUE(grandchild.runs());
    grandchild.send(SIGKILL);
    EXPECT_TRUE(waitUntil([&] { return !grandchild.runs(); }));
}

TEST_F(CleanProcessById, SparesTheLeaderOfAGroupWhenAMemberIsEnded) {
    const Puppet leader(puppet(named("leader")), {"grandchild"}, Group::Own);
    const Watch member(leader.grandchild());
    cleanProcessById(static_cast<unsigned int>(leader.grandchild()));
    EXPECT_FALSE(member.runs());
    EXPECT_TRUE(leader.runs());
}

TEST_F(CleanProcessById, SparesTheGroupThatTheCallerIsIn) {
    const Puppet leader(puppet(named("leader")), {"grandchild", "clean-parent"}, Group::Own);
    const Watch member(leader.grandchild());
    EXPECT_EQ(leader.readLine(), "cleaned");
    EXPECT_FALSE(leader.runs());
    EXPECT_TRUE(member.runs());
}

TEST_F(CleanProcessById, RefusesNobodyTheFirstProcessAndItself) {
    const LogCapture log;
    cleanProcessById(0);
    cleanProcessById(1);
    cleanProcessById(static_cast<unsigned int>(getpid()));
    EXPECT_EQ(log.texts(Poco::Message::PRIO_ERROR).size(), 3U);
    EXPECT_EQ(log.count("refusing to end process"), 3);
}

TEST_F(CleanProcessById, DoesNothingForAnIdThatNobodyBears) {
    const LogCapture log;
    // the kernel gives no id above 4194304
    cleanProcessById(4194305U);
    cleanProcessById(0x80000001U);
    cleanProcessById(0xFFFFFFFFU);
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(CleanProcessById, DoesNotTakeAThreadForAProcess) {
    const LogCapture log;
    std::thread([] {
        EXPECT_NO_THROW(cleanProcessById(static_cast<unsigned int>(gettid())));
    }).join();
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(CleanProcessById, SaysWhenItMayNotEndAProcess) {
    if (geteuid() != 0)
        GTEST_SKIP() << "only root can make a process that another user may not end";
    const Puppet child(puppet(named("child")), {});
    const pid_t other = fork();
    if (other == 0) {
        const LogCapture log;
        const bool dropped = setresuid(65534, 65534, 65534) == 0;
        cleanProcessById(child.unsignedPid());
        _exit(dropped && log.texts(Poco::Message::PRIO_ERROR).size() == 1 &&
                      log.count("cannot end process " + std::to_string(child.pid())) == 1
                  ? 0
                  : 1);
    }
    int status = -1;
    ASSERT_EQ(waitpid(other, &status, 0), other);
    EXPECT_EQ(status, 0);
    EXPECT_TRUE(child.runs());
}

/// Leaves the process no descriptor that it does not have already.
class NoDescriptorLeft {
public:
    NoDescriptorLeft() {
        getrlimit(RLIMIT_NOFILE, &former);
        const rlimit none{static_cast<rlim_t>(STDERR_FILENO) + 1, former.rlim_max};
        setrlimit(RLIMIT_NOFILE, &none);
    }
    ~NoDescriptorLeft() { setrlimit(RLIMIT_NOFILE, &former); }
    NoDescriptorLeft(const NoDescriptorLeft&) = delete;
    NoDescriptorLeft& operator=(const NoDescriptorLeft&) = delete;

private:
    rlimit former{};
};

TEST_F(CleanProcessById, SaysWhatToDoWhenItMayOpenNoFile) {
    const Puppet child(puppet(named("child")), {});
    const LogCapture log;
    // a sanitizer needs descriptors when it meets a class of Poco::format for the first time
    const Puppet other(puppet(named("other")), {});
    cleanProcessByName(named("other"));
    {
        const NoDescriptorLeft limit;
        cleanProcessById(child.unsignedPid());
    }
    const auto errors = log.texts(Poco::Message::PRIO_ERROR);
    ASSERT_EQ(errors.size(), 1U);
    EXPECT_THAT(errors[0],
                testing::MatchesRegex("cannot open process " + std::to_string(child.pid()) +
                                      " .*: Too many open files; raise the limit of "
                                      "open files"));
    EXPECT_TRUE(child.runs());
}

TEST_F(CleanProcessById, MayBeCalledTwiceAtOnceForOneProcess) {
    const Puppet child(puppet(named("child")), {"grandchild"}, Group::Own);
    const Watch grandchild(child.grandchild());
    std::thread other([&] { cleanProcessById(child.unsignedPid()); });
    cleanProcessById(child.unsignedPid());
    other.join();
    EXPECT_FALSE(child.runs());
    EXPECT_FALSE(grandchild.runs());
}

TEST_F(CleanProcessByName, EndsEveryCopyAndLeavesThemToTheirOwner) {
    const Puppet first(puppet("a/" + named("service")), {});
    const Puppet second(puppet("b/" + named("service")), {});
    cleanProcessByName(named("service"));
    EXPECT_FALSE(first.runs());
    EXPECT_FALSE(second.runs());
    EXPECT_TRUE(endedBySignal(first.wait(), SIGTERM));
    EXPECT_TRUE(endedBySignal(second.wait(), SIGTERM));
}

TEST_F(CleanProcessByName, GivesAllCopiesOneGraceTogether) {
    std::vector<std::unique_ptr<Puppet>> copies;
    const fs::path file = puppet(named("service"));
    copies.reserve(5);
    for (int i = 0; i < 5; ++i)
        copies.push_back(
            std::make_unique<Puppet>(file, std::vector<std::string>{"ignore-term"}, Group::Own));
    const auto begin = Clock::now();
    cleanProcessByName(named("service"));
    EXPECT_LT(Clock::now() - begin, milliseconds(3000));
    for (const auto& copy : copies)
        EXPECT_TRUE(endedBySignal(copy->wait(), SIGKILL));
}

TEST_F(CleanProcessByName, TellsNamesApartThatShareTheKernelsFifteenCharacters) {
    const Puppet first(puppet(named("first")), {});
    const Puppet second(puppet(named("second")), {});
    ASSERT_EQ(kernelNameOf(first.pid()), kernelNameOf(second.pid()));
    cleanProcessByName(named("first"));
    EXPECT_FALSE(first.runs());
    EXPECT_TRUE(second.runs());
    cleanProcessByName(kernelNameOf(second.pid()));
    EXPECT_TRUE(second.runs());
}

TEST_F(CleanProcessByName, LeavesAZombieToItsOwner) {
    const Puppet zombie(puppet(named("service")), {"exit"});
    ASSERT_TRUE(waitUntil([&] { return !zombie.runs(); }));
    cleanProcessByName(named("service"));
    EXPECT_EQ(zombie.wait(), 0);
}

TEST_F(CleanProcessByName, EndsTheGroupThatACopyLeadsWhateverItsMembersAreCalled) {
    const fs::path member = puppet(named("member"));
    const fs::path file = folder / named("service");
    std::ofstream(file) << "#!/bin/sh\nexec 3<&0\n'" << member.string()
                        << "' ignore-term <&3 &\nwait\n";
    fs::permissions(file, fs::perms::owner_all);
    const Puppet leader(file, {}, Group::Own);
    ASSERT_FALSE(leader.isSilenced());
    cleanProcessByName(named("service"));
    EXPECT_TRUE(leader.isSilenced());
    EXPECT_TRUE(endedBySignal(leader.wait(), SIGTERM));
}

TEST_F(CleanProcessByName, SparesTheCallerAndItsAncestors) {
    const fs::path file = puppet(named("service"));
    const Puppet bystander(file, {});
    const Puppet ancestor(file, {"clean=" + named("service")});
    EXPECT_EQ(ancestor.readLine(), "cleaned");
    EXPECT_FALSE(bystander.runs());
    EXPECT_TRUE(ancestor.runs());
}

TEST_F(CleanProcessByName, SparesAProcessThatBearsTheNameAsAnArgument) {
    const fs::path service = puppet(named("service"));
    const fs::path interpreter = shell(named("shell"));
    const fs::path written = script(named("written"), interpreter.string());
    const Puppet withBinary(puppet(named("other")), {service.string(), named("service")});
    const Puppet withScript(folder / named("other"), {written.string(), named("written")});
    const Puppet scriptWithScript(script(named("another"), interpreter.string()),
                                  {written.string()});
    const Puppet shellWithScript(interpreter, {"-c", "echo ready; read -r line", written.string()});
    cleanProcessByName(named("service"));
    cleanProcessByName(named("written"));
    EXPECT_TRUE(withBinary.runs());
    EXPECT_TRUE(withScript.runs());
    EXPECT_TRUE(scriptWithScript.runs());
    EXPECT_TRUE(shellWithScript.runs());
}

TEST_F(CleanProcessByName, CountsAScriptUnderItsOwnName) {
    const fs::path interpreter = shell(named("shell"));
    const Puppet plain(script(named("plain"), interpreter.string()), {});
    const Puppet withOption(script(named("option"), interpreter.string() + " -u"), {"x"});
    cleanProcessByName(named("shell"));
    EXPECT_TRUE(plain.runs());
    EXPECT_TRUE(withOption.runs());
    cleanProcessByName(named("plain"));
    EXPECT_FALSE(plain.runs());
    EXPECT_TRUE(withOption.runs());
    cleanProcessByName(named("option"));
    EXPECT_FALSE(withOption.runs());
}

TEST_F(CleanProcessByName, CountsAScriptThatEnvStartedUnderItsOwnName) {
    const fs::path interpreter = shell(named("shell"));
    const std::string env = "/usr/bin/env ";
    const fs::path firstFile = script(named("first"), env + interpreter.string());
    const fs::path secondFile = script(named("second"), env + "-S " + interpreter.string() + " -u");
    const Puppet first(firstFile, {secondFile.string()});
    const Puppet second(secondFile, {});
    ASSERT_TRUE(
        waitUntil([&] { return kernelNameOf(first.pid()) == named("shell").substr(0, 15); }));
    cleanProcessByName(named("shell"));
    cleanProcessByName(named("none"));
    EXPECT_TRUE(first.runs());
    EXPECT_TRUE(second.runs());
    cleanProcessByName(named("second"));
    EXPECT_TRUE(first.runs());
    EXPECT_FALSE(second.runs());
    cleanProcessByName(named("first"));
    EXPECT_FALSE(first.runs());
}

TEST_F(CleanProcessByName, EndsAnInterpreterThatRunsNoScript) {
    const Puppet bare(shell(named("shell")), {"-c", "echo ready; read -r line"});
    cleanProcessByName(named("shell"));
    EXPECT_FALSE(bare.runs());
}

TEST_F(CleanProcessByName, KnowsWhatWasDeletedWhileItRuns) {
    const fs::path binary = puppet(named("binary"));
    const fs::path written = script(named("written"), "/bin/sh");
    const Puppet first(binary, {});
    const Puppet second(written, {});
    fs::remove(binary);
    fs::remove(written);
    cleanProcessByName(named("binary"));
    cleanProcessByName(named("written"));
    EXPECT_FALSE(first.runs());
    EXPECT_FALSE(second.runs());
}

TEST_F(CleanProcessByName, KnowsWhatWasStartedThroughALink) {
    const fs::path file = puppet(named("service-1.2"));
    fs::create_symlink(file, folder / named("service"));
    const Puppet throughLink(folder / named("service"), {});
    const Puppet direct(file, {});
    cleanProcessByName(named("service"));
    EXPECT_FALSE(throughLink.runs());
    EXPECT_TRUE(direct.runs());
}

TEST_F(CleanProcessByName, MatchesNothingByAnEmptyName) {
    const LogCapture log;
    cleanProcessByName("");
    EXPECT_TRUE(log.messages().empty());
}

} // namespace
} // namespace ktr
