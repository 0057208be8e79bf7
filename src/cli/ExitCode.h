#pragma once

#include <stdexcept>
#include <string>

namespace ktr::cli {

/// How the tool ends, after sysexits.h where that has a word for it. Scripts rely on these numbers.
enum ExitCode : int {
    /// What was asked for was done, and nothing is wrong.
    ExitSuccess = 0,
    /// What was looked at has a fault; the output names it.
    ExitFindings = 1,
    /// A bad option or operand.
    ExitUsage = 64,
    /// A file that was named does not exist or cannot be read.
    ExitNoInput = 66,
    /// The host cannot be reached, or did not answer in time.
    ExitUnavailable = 69,
    /// A defect.
    ExitSoftware = 70,
    /// The operating system refused: no process, no descriptor.
    ExitSystem = 71,
    /// A file cannot be made: it exists, or its folder cannot be written to.
    ExitCannotCreate = 73,
    /// The host answered that it does not take what was sent.
    ExitRefused = 76,
};

/// Ends a command. The text names the cause and the remedy.
class Failure : public std::runtime_error {
public:
    Failure(ExitCode code_, const std::string& text) : std::runtime_error(text), code(code_) {}

    ExitCode exitCode() const { return code; }

private:
    ExitCode code;
};

} // namespace ktr::cli
