#pragma once

#include <array>
#include <csignal>

namespace ktr::host {

/// What a process may inherit that would harm a host: closed standard descriptors (a socket would
/// become standard error), an ignored SIGCHLD (no service could be waited for), a limit of
/// descriptors so large that every launch of a service, which closes them one by one, takes long.
/// Also ignores SIGPIPE. To be called before there is a second thread.
void setUpProcess();

/// Puts back the handlers of crash signals that were in force when it was made. Poco's application
/// installs some that turn every crash into an abort, which hides the crash's own signal from core
/// files and sanitizers.
class KeepCrashHandlers {
public:
    KeepCrashHandlers();
    ~KeepCrashHandlers();
    KeepCrashHandlers(const KeepCrashHandlers&) = delete;
    KeepCrashHandlers& operator=(const KeepCrashHandlers&) = delete;

private:
    static constexpr std::array<int, 4> signals{SIGILL, SIGBUS, SIGSEGV, SIGSYS};
    std::array<struct sigaction, signals.size()> kept{};
};

/// Puts back at its end what standard descriptors were closed while it lived: a socket or a file of
/// somebody else would take their place and get what is meant for them. What somebody opened there
/// stays.
class KeepStandardDescriptors {
public:
    KeepStandardDescriptors();
    ~KeepStandardDescriptors();
    KeepStandardDescriptors(const KeepStandardDescriptors&) = delete;
    KeepStandardDescriptors& operator=(const KeepStandardDescriptors&) = delete;

private:
    /// Copies of 0, 1 and 2; -1 where there was nothing to copy.
    std::array<int, 3> kept{};
};

} // namespace ktr::host
