#pragma once

namespace ktr::host {

/// While it lives, nobody but the host ends the process by exit(). A plugin that calls it would
/// have the statics torn down under the threads of all others, which may hang for ever with the
/// services gone, and its exit code could tell whoever started the host that all is well. With the
/// guard such a call ends the process at once, with ExitSoftware and no service left.
class ExitGuard {
public:
    ExitGuard() { goFirst(); }
    ~ExitGuard();
    ExitGuard(const ExitGuard&) = delete;
    ExitGuard& operator=(const ExitGuard&) = delete;

    /// What is to be torn down last is begun first: puts the guard before all that exists by now.
    static void goFirst();
};

} // namespace ktr::host
