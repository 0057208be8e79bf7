#include "ChildRun.h"

#include "../CommandLine.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <poll.h>
#include <set>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

// glibc 2.36 declares these without extern "C"
extern "C" {
#include <sys/pidfd.h>
}

namespace ktr::cli {
namespace {

using Clock = std::chrono::steady_clock;

// how long it may take to end what a plugin started
constexpr std::chrono::seconds kKillPatience{10};
// where the child finds the descriptor of its report
constexpr int kReport = 3;

[[noreturn]] void refuse(const std::string& what) {
    throw Failure(ExitSystem, "cannot " + what + ": " + std::strerror(errno) +
                                  "; see what limits the processes and open files of this user");
}

class Descriptor {
public:
    explicit Descriptor(int number_ = -1) : number(number_) {}
    ~Descriptor() { reset(); }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    int get() const { return number; }
    void reset(int other = -1) {
        if (number >= 0)
            close(number);
        number = other;
    }

private:
    int number;
};

struct Pipe {
    Descriptor reading;
    Descriptor writing;

    Pipe() {
        std::array<int, 2> ends{};
        if (pipe2(ends.data(), O_CLOEXEC) != 0)
            refuse("make a pipe");
        reading.reset(ends[0]);
        writing.reset(ends[1]);
        fcntl(ends[0], F_SETFL, O_NONBLOCK);
    }
};

std::set<pid_t> ownChildren() {
    const std::string self = std::to_string(getpid());
    std::ifstream in("/proc/self/task/" + self + "/children");
    return {std::istream_iterator<pid_t>(in), std::istream_iterator<pid_t>()};
}

/// Whatever a child leaves behind becomes a child of this process; those that were there before
/// are none of them.
void killNewChildren(const std::set<pid_t>& former) {
    const Clock::time_point end = Clock::now() + kKillPatience;
    for (bool found = true; found;) {
        found = false;
        if (Clock::now() > end)
            throw Failure(ExitSystem, "a plugin starts processes faster than they can be ended; "
                                      "end them by a restart of the machine");
        for (const pid_t child : ownChildren()) {
            if (former.count(child) != 0)
                continue;
            kill(child, SIGKILL);
            waitpid(child, nullptr, 0);
            found = true;
        }
    }
}

void resetSignals() {
    struct sigaction standard {};
    standard.sa_handler = SIG_DFL;
    // refused for the few that cannot be changed
    for (int number = 1; number < NSIG; ++number)
        sigaction(number, &standard, nullptr);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
}

void prepareChild(pid_t parent, int output, int report) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent)
        _exit(0);
    setpgid(0, 0);
    resetSignals();
    const struct rlimit none {};
    setrlimit(RLIMIT_CORE, &none);
    // out of the way of the numbers that they replace
    const int out = fcntl(output, F_DUPFD_CLOEXEC, kReport + 1);
    const int told = fcntl(report, F_DUPFD_CLOEXEC, kReport + 1);
    const int null = open("/dev/null", O_RDONLY | O_CLOEXEC);
    dup2(null, STDIN_FILENO);
    dup2(out, STDOUT_FILENO);
    dup2(out, STDERR_FILENO);
    dup3(told, kReport, O_CLOEXEC);
    close_range(kReport + 1, ~0U, 0);
}

/// Reads what is there, up to the limit, and closes at the end.
void readInto(std::string& text, Descriptor& from, std::size_t most) {
    std::array<char, 65536> chunk{};
    while (from.get() >= 0 && text.size() < most) {
        const ssize_t size = read(from.get(), chunk.data(), chunk.size());
        if (size > 0)
            text.append(chunk.data(), static_cast<std::size_t>(size));
        else if (size == 0)
            from.reset();
        else if (errno != EINTR)
            return;
    }
}

int millisecondsUntil(Clock::time_point end) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now());
    return static_cast<int>(std::max<std::int64_t>(left.count(), 0));
}

/// A child process and what it writes.
class Child {
public:
    explicit Child(const std::function<void(int)>& body) {
        const pid_t parent = getpid();
        pid = fork();
        if (pid < 0)
            refuse("start a process");
        if (pid == 0) {
            prepareChild(parent, output.writing.get(), report.writing.get());
            body(kReport);
            _exit(0);
        }
        setpgid(pid, pid);
        output.writing.reset();
        report.writing.reset();
    }
    ~Child() { finish(); }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    ChildEnd::How follow(const HeldSignals& signals, Clock::time_point deadline) {
        const Descriptor process(pidfd_open(pid, 0));
        if (process.get() < 0)
            refuse("watch a process");
        while (true) {
            // a closed one has the number -1, which poll passes over
            std::array<pollfd, 4> waited{{{process.get(), POLLIN, 0},
                                          {signals.descriptor(), POLLIN, 0},
                                          {output.reading.get(), POLLIN, 0},
                                          {report.reading.get(), POLLIN, 0}}};
            if (poll(waited.data(), waited.size(), millisecondsUntil(deadline)) == 0)
                return ChildEnd::How::TimedOut;
            if (waited[1].revents != 0)
                return ChildEnd::How::Interrupted;
            readAll();
            if (end.output.size() >= kMostChildOutput || end.report.size() >= kMostChildReport)
                return ChildEnd::How::Flooded;
            if (waited[0].revents != 0)
                return ChildEnd::How::Exited;
        }
    }

    /// Ends it and its group; returns what waitpid said.
    int finish() {
        if (pid > 0) {
            kill(-pid, SIGKILL);
            waitpid(pid, &status, 0);
            pid = -1;
        }
        return status;
    }

    ChildEnd takeEnd() {
        readAll();
        return std::move(end);
    }

private:
    void readAll() {
        readInto(end.output, output.reading, kMostChildOutput);
        readInto(end.report, report.reading, kMostChildReport);
    }

    Pipe output;
    Pipe report;
    pid_t pid = -1;
    int status = 0;
    ChildEnd end;
};

sigset_t endingSignals() {
    sigset_t set;
    sigemptyset(&set);
    for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGQUIT})
        sigaddset(&set, number);
    return set;
}

} // namespace

HeldSignals::HeldSignals() {
    const sigset_t ending = endingSignals();
    sigprocmask(SIG_BLOCK, &ending, &former);
    arrived = signalfd(-1, &ending, SFD_CLOEXEC | SFD_NONBLOCK);
}

HeldSignals::~HeldSignals() {
    close(arrived);
    sigprocmask(SIG_SETMASK, &former, nullptr);
}

ChildEnd runChild(const HeldSignals& signals, std::chrono::milliseconds limit,
                  const std::function<void(int)>& body) {
    const std::set<pid_t> former = ownChildren();
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    Child child(body);
    const ChildEnd::How how = child.follow(signals, Clock::now() + limit);
    const int status = child.finish();
    killNewChildren(former);

    ChildEnd end = child.takeEnd();
    end.how = how;
    if (how == ChildEnd::How::Exited && WIFSIGNALED(status)) {
        end.how = ChildEnd::How::Signalled;
        end.number = WTERMSIG(status);
    } else if (how == ChildEnd::How::Exited) {
        end.number = WEXITSTATUS(status);
    }
    return end;
}

} // namespace ktr::cli
