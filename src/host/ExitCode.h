#pragma once

#include "Printable.h"

#include <stdexcept>
#include <string>

namespace ktr::host {

/// How ketra-host ends, after sysexits.h where that has a word for it. 0: asked to stop, and did.
enum ExitCode : int {
    /// A bad option, or a bad value of an option.
    ExitUsage = 64,
    /// Something failed that should not: a plugin threw what nobody catches or called exit(), a
    /// defect.
    ExitSoftware = 70,
    /// The operating system refused: the port is in use, no thread or descriptor left.
    ExitSystem = 71,
    /// A step of the shutdown, or of a start-up that was told to end, did not finish in time.
    ExitHung = 75,
    /// The root, the configuration file or what guards the port cannot be used.
    ExitConfig = 78,
};

/// Ends the start-up. The text is the one line for the operator: the cause and the remedy.
class StartError : public std::runtime_error {
public:
    StartError(ExitCode code_, const std::string& line)
        : std::runtime_error(printable(line)), code(code_) {}

    ExitCode exitCode() const { return code; }

private:
    ExitCode code;
};

} // namespace ktr::host
