#pragma once

#include <chrono>
#include <condition_variable>
#include <csignal>
#include <mutex>
#include <string>

namespace ktr::host {

/// Blocks the signals that ask the host to end, in this thread and in those it makes from now on,
/// and returns them: SIGINT, SIGTERM, and SIGHUP unless it is ignored already (nohup). To be the
/// first thing that main does: one that comes earlier than StopControl then waits for it.
sigset_t blockStopSignals();

/// Knows whether the host shall end, and sees to it that it does: from the first request on it
/// gives start-up and shutdown `timeout` to be through, the teardown of static objects included.
/// After that it says on log and standard error which step hangs, kills what child processes are
/// left, and ends the process with ExitHung. Further requests change nothing.
///
/// Thread safety: all functions may be called from any thread.
class StopControl {
public:
    /// Starts to take `signals`, on a thread of its own. One for the process; it is never
    /// destroyed, since it watches the process to its very end.
    static StopControl& install(const sigset_t& signals, std::chrono::seconds timeout);

    StopControl(const StopControl&) = delete;
    StopControl& operator=(const StopControl&) = delete;

    /// Names what the host does from now on. `step` is kept as a pointer. Does not return once the
    /// end has been decided.
    void enter(const char* step);

    /// As a signal does.
    void request(const std::string& reason);

    bool requested() const;

    /// What the first request named; empty before it.
    std::string reason() const;

    /// Returns when the host shall end.
    void wait();

    /// What is left of the time given; all of it before the first request.
    std::chrono::milliseconds remaining() const;

private:
    StopControl(const sigset_t& signals, std::chrono::seconds timeout_);

    void watch();
    void takeSignal();
    int pollTimeout() const;
    [[noreturn]] void giveUp();

    const std::chrono::milliseconds timeout;
    const int signalFd;
    const int wakeFd;

    // guards what follows
    mutable std::mutex mutex;
    std::condition_variable changed;
    bool stopping = false;
    std::string firstReason;
    std::chrono::steady_clock::time_point deadline;
    const char* currentStep = "start-up";
    bool givenUp = false;
};

} // namespace ktr::host
