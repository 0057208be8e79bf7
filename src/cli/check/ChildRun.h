#pragma once

#include <chrono>
#include <csignal>
#include <functional>
#include <string>

namespace ktr::cli {

/// While it lives, the signals that end the tool wait, so that what is under way can be cleaned up;
/// they have their effect when the object goes.
class HeldSignals {
public:
    HeldSignals();
    ~HeldSignals();
    HeldSignals(const HeldSignals&) = delete;
    HeldSignals& operator=(const HeldSignals&) = delete;

    /// Readable once a signal waits.
    int descriptor() const { return arrived; }

private:
    sigset_t former{};
    int arrived = -1;
};

/// How a child process ended.
struct ChildEnd {
    enum class How { Exited, Signalled, TimedOut, Flooded, Interrupted };

    How how = How::Exited;
    /// Of Exited the exit code, of Signalled the signal's number.
    int number = 0;
    /// What it wrote to the descriptor that it was given.
    std::string report;
    /// What it wrote to its standard outputs.
    std::string output;
};

/// No more than this is read of a child's report and output; it is ended then.
constexpr std::size_t kMostChildReport = std::size_t{1} << 16;
constexpr std::size_t kMostChildOutput = std::size_t{1} << 20;

/// Runs `body` in a child process, with a descriptor to report to, no input, signals as a fresh
/// program has them, and no other open file; the child exits with 0 when `body` returns. Afterwards
/// neither the child nor any process that it started is left, also none that left its group.
/// Throws Failure(ExitSystem) if there is no process or descriptor for it.
ChildEnd runChild(const HeldSignals& signals, std::chrono::milliseconds limit,
                  const std::function<void(int report)>& body);

} // namespace ktr::cli
