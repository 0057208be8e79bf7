#pragma once

#include "PluginWatch.h"

#include <chrono>
#include <mutex>
#include <string>

namespace ktr::cli {

/// Ends the process with ExitFindings when a plugin holds it up, and when somebody calls exit().
/// Leaves out what time a debugger has the process stopped.
///
/// Thread safety: all functions may be called from any thread.
class TimeLimit {
public:
    /// One for the process; it is never destroyed, since it watches the process to its very end.
    static TimeLimit& install(const PluginWatch& watch);

    /// From here on `time` may pass. `step`, kept as a pointer, is what is said to hang unless a
    /// call into the plugin does; `option` sets the time.
    void begin(const char* step, std::chrono::seconds time, const char* option);
    /// Names what goes on from here on, within the same time.
    void enter(const char* step);
    /// Any time may pass.
    void end();

    /// From here on nobody may call exit().
    static void refuseExit();
    static void allowExit();

private:
    explicit TimeLimit(const PluginWatch& watch_);
    void run();
    [[noreturn]] void giveUp();

    const PluginWatch& watch;
    std::mutex mutex;
    const char* currentStep = "";
    const char* settingOption = "";
    std::chrono::milliseconds limit{0};
    /// None: no limit.
    std::chrono::milliseconds left{0};
};

} // namespace ktr::cli
