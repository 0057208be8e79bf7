#include "ktr/common/ProcessControl.h"

#include "ProcessInfo.h"
#include "ktr/common/Logger.h"

#include <Poco/Format.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <limits>
#include <poll.h>
#include <set>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>
#include <vector>

// glibc 2.36 declares these without extern "C"
extern "C" {
#include <sys/pidfd.h>
}

namespace ktr {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// how long a process may take to end by itself
constexpr milliseconds kGrace{1000};
// after SIGKILL only the kernel can hold a process up
constexpr milliseconds kKillPatience{5000};
// how long a group may take to come to a halt before it is killed regardless
constexpr milliseconds kFreezePatience{500};
// how often a group is searched for new members
constexpr milliseconds kTick{50};
constexpr milliseconds kFreezeTick{1};

void logError(const std::string& text) {
    cachedLogger().error(text, __FILE__, __LINE__);
}

void logWarning(const std::string& text) {
    cachedLogger().warning(text, __FILE__, __LINE__);
}

std::string describe(pid_t pid) {
    return Poco::format("process %d ('%s')", static_cast<int>(pid), kernelName(pid));
}

/// A handle on one process. Unlike a process id it never comes to mean another process.
class ProcessHandle {
public:
    /// Empty if there is no such process, or if it cannot be opened, which is logged.
    static ProcessHandle open(pid_t pid) {
        const int opened = pidfd_open(pid, 0);
        // EINVAL and ENOENT: a thread's id, which is no process
        const bool absent = errno == ESRCH || errno == EINVAL || errno == ENOENT;
        if (opened < 0 && !absent && cachedLogger().error())
            logError(Poco::format(
                "cannot open %s to end it: %s%s", describe(pid), std::string(std::strerror(errno)),
                std::string(errno == EMFILE || errno == ENFILE ? "; raise the limit of open files"
                                                               : "")));
        return ProcessHandle(opened);
    }

    ProcessHandle(ProcessHandle&& other) noexcept : fd(std::exchange(other.fd, -1)) {}
    ProcessHandle& operator=(ProcessHandle&& other) noexcept {
        std::swap(fd, other.fd);
        return *this;
    }
    ProcessHandle(const ProcessHandle&) = delete;
    ProcessHandle& operator=(const ProcessHandle&) = delete;
    ~ProcessHandle() {
        if (fd >= 0)
            close(fd);
    }

    explicit operator bool() const { return fd >= 0; }
    int descriptor() const { return fd; }

    /// 0, or the error's number.
    int send(int signal) const {
        return pidfd_send_signal(fd, signal, nullptr, 0) == 0 ? 0 : errno;
    }

    /// Its process id still means this process: it runs, or is a zombie.
    bool holdsItsId() const { return send(0) != ESRCH; }

    bool hasEnded() const {
        pollfd wanted{fd, POLLIN, 0};
        return poll(&wanted, 1, 0) > 0;
    }

    /// Takes the exit status if it is our child and has ended.
    void reap() const {
        siginfo_t ignored{};
        waitid(P_PIDFD, static_cast<id_t>(fd), &ignored, WEXITED | WNOHANG);
    }

private:
    explicit ProcessHandle(int fd_) : fd(fd_) {}

    int fd;
};

std::set<pid_t> selfAndAncestors() {
    std::set<pid_t> found{0, 1};
    for (pid_t pid = getpid(); found.insert(pid).second;)
        pid = processStatus(pid).parent;
    return found;
}

/// Ends some processes, and the groups that they lead, all within one period of grace.
///
/// Members of a group are signalled one by one through handles. To signal a group by its number is
/// safe only while something holds the number, which nobody can promise for another's children. A
/// member is taken for one while a process that is known to be of the group still holds its id.
class Ending {
public:
    bool spares(pid_t pid) const { return spared.count(pid) != 0; }

    /// False if `pid` is no longer the process of `handle`.
    bool add(pid_t pid, ProcessHandle handle) {
        const pid_t group = getpgid(pid);
        const bool leads = group == pid && group != getpgrp();
        // only now is it sure that the group was this process's
        if (!handle.holdsItsId())
            return false;
        if (leads)
            groups.insert(group);
        processes.push_back({pid, std::move(handle), leads ? group : 0});
        return true;
    }

    /// Returns whether all of them have ended.
    bool run() {
        findMembers();
        sendAll(SIGTERM);
        // a stopped process handles nothing else before it is continued
        sendAll(SIGCONT);
        if (awaitEnd())
            return !refused;
        logThoseLeft("did not end within a second of SIGTERM, killing it");
        if (kill())
            return !refused;
        logThoseLeft("has not ended 5 seconds after SIGKILL, giving it up; the kernel may hold it "
                     "in a call that does not return");
        return false;
    }

    void reap(pid_t pid) const {
        for (const Process& process : processes)
            if (process.pid == pid)
                process.handle.reap();
    }

private:
    struct Process {
        pid_t pid;
        ProcessHandle handle;
        // 0: it goes alone
        pid_t group;
        // ended, or not ours to end
        bool done = false;
    };

    bool isHeld(pid_t pid) const {
        return std::any_of(processes.begin(), processes.end(), [&](const Process& process) {
            return process.pid == pid && !process.handle.hasEnded();
        });
    }

    bool isGroupHeld(pid_t group) const {
        return std::any_of(processes.begin(), processes.end(), [&](const Process& process) {
            return process.group == group &&
                   (process.pid == group || getpgid(process.pid) == group) &&
                   process.handle.holdsItsId();
        });
    }

    void findMembers() {
        if (groups.empty())
            return;
        forgetReaped();
        for (const pid_t pid : allProcesses()) {
            const pid_t group = getpgid(pid);
            if (groups.count(group) != 0 && !spares(pid) && !isHeld(pid))
                addMember(pid, group);
        }
    }

    void addMember(pid_t pid, pid_t group) {
        ProcessHandle handle = ProcessHandle::open(pid);
        if (!handle || handle.hasEnded())
            return;
        // in this order: what was read by id holds if the ids were held afterwards
        if (getpgid(pid) == group && handle.holdsItsId() && isGroupHeld(group))
            processes.push_back({pid, std::move(handle), group});
    }

    /// A group that forks without end must not pile up handles.
    void forgetReaped() {
        const auto gone = [](const Process& process) {
            return process.done && !process.handle.holdsItsId();
        };
        processes.erase(std::remove_if(processes.begin(), processes.end(), gone), processes.end());
    }

    void sendAll(int signal) {
        for (Process& process : processes)
            if (!process.done)
                send(process, signal);
    }

    void send(Process& process, int signal) {
        const int error = process.handle.send(signal);
        if (error == 0)
            return;
        process.done = true;
        if (error == ESRCH)
            return;
        refused = true;
        if (cachedLogger().error())
            logError(Poco::format("cannot end %s: %s; run as its user or as root",
                                  describe(process.pid), std::string(std::strerror(error))));
    }

    /// Waits for any of them to end, but not longer than `most`. Returns whether all have.
    bool awaitSome(milliseconds most) {
        std::vector<pollfd> wanted;
        for (const Process& process : processes)
            if (!process.done)
                wanted.push_back({process.handle.descriptor(), POLLIN, 0});
        if (wanted.empty())
            return true;
        // a failure, EINTR for one, only makes the caller's turn shorter
        poll(wanted.data(), wanted.size(), static_cast<int>(most.count()));
        bool all = true;
        for (Process& process : processes) {
            process.done = process.done || process.handle.hasEnded();
            all = all && process.done;
        }
        return all;
    }

    bool awaitEnd() {
        const Clock::time_point end = Clock::now() + kGrace;
        for (;;) {
            if (awaitSome(kTick)) {
                // what one of them started meanwhile still counts
                findMembers();
                if (awaitSome(milliseconds(0)))
                    return true;
            }
            if (Clock::now() >= end)
                return false;
            findMembers();
        }
    }

    /// Halts every group before it is killed: otherwise a member could start another process
    /// between the search for members and its own end, and leave nobody by whom to know it.
    bool kill() {
        const Clock::time_point begin = Clock::now();
        bool frozen = false;
        for (;;) {
            findMembers();
            frozen = frozen || Clock::now() >= begin + kFreezePatience || freeze();
            if (frozen)
                sendAll(SIGKILL);
            if (awaitSome(frozen ? kTick : kFreezeTick)) {
                findMembers();
                if (awaitSome(milliseconds(0)))
                    return true;
            }
            if (Clock::now() >= begin + kKillPatience)
                return false;
        }
    }

    /// Returns whether every member had come to a halt already.
    bool freeze() {
        bool halted = true;
        for (Process& process : processes) {
            if (process.done || process.group == 0)
                continue;
            const char state = processStatus(process.pid).state;
            if (state == 'T' || state == 't')
                continue;
            halted = false;
            send(process, SIGSTOP);
        }
        return halted;
    }

    void logThoseLeft(const std::string& text) const {
        if (!cachedLogger().warning())
            return;
        for (const Process& process : processes)
            if (!process.done)
                logWarning(describe(process.pid) + " " + text);
    }

    const std::set<pid_t> spared = selfAndAncestors();
    std::vector<Process> processes;
    std::set<pid_t> groups;
    bool refused = false;
};

/// The id may have come to mean another process since it was found to run `name`.
bool addIfStillRunning(Ending& ending, pid_t pid, const std::string& name) {
    ProcessHandle handle = ProcessHandle::open(pid);
    return handle && runsProgram(pid, name) && ending.add(pid, std::move(handle));
}

} // namespace

void cleanProcessById(const unsigned int& pid) {
    const auto id = static_cast<pid_t>(pid);
    if (pid == 0 || pid == 1 || id == getpid()) {
        if (cachedLogger().error())
            logError("refusing to end process " + std::to_string(pid) +
                     ": it is the system's first process, this process or none");
        return;
    }
    if (pid > static_cast<unsigned int>(std::numeric_limits<pid_t>::max()))
        return;
    ProcessHandle handle = ProcessHandle::open(id);
    if (!handle)
        return;
    Ending ending;
    ending.add(id, std::move(handle));
    ending.run();
    // not before its group has ended: until then its id must stay the group's
    ending.reap(id);
}

void cleanProcessByName(const std::string& name) {
    if (name.empty())
        return;
    Ending ending;
    int found = 0;
    for (const pid_t pid : allProcesses()) {
        if (!ending.spares(pid) && runsProgram(pid, name) && addIfStillRunning(ending, pid, name))
            ++found;
    }
    if (found != 0 && ending.run() && cachedLogger().information())
        cachedLogger().information(
            Poco::format("ended what was running as '%s', %d in all", name, found), __FILE__,
            __LINE__);
}

} // namespace ktr
