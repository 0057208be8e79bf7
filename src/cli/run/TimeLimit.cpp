#include "TimeLimit.h"

#include "Tell.h"
#include "ThrowAwayRoot.h"

#include "../ExitCode.h"

#include <atomic>
#include <cstdlib>
#include <pthread.h>
#include <thread>
#include <unistd.h>

namespace ktr::cli {
namespace {

constexpr std::chrono::milliseconds kTick{100};

/// The process that is guarded; what it forks may end as it likes.
std::atomic<pid_t> guarded{0};

[[noreturn]] void endAtOnce(const std::string& text) {
    tell(text);
    ThrowAwayRoot::removeOnly();
    _exit(ExitFindings);
}

void onExit() {
    if (guarded.exchange(0) == getpid())
        endAtOnce("somebody, most likely the plugin, called exit(), which would end the host");
}

} // namespace

TimeLimit& TimeLimit::install(const PluginWatch& watch) {
    static auto* const limit = new TimeLimit(watch);
    return *limit;
}

TimeLimit::TimeLimit(const PluginWatch& watch_) : watch(watch_) {
    std::thread([this] { run(); }).detach();
}

void TimeLimit::begin(const char* step, std::chrono::seconds time, const char* option) {
    const std::lock_guard<std::mutex> lock(mutex);
    currentStep = step;
    settingOption = option;
    limit = time;
    left = time;
}

void TimeLimit::enter(const char* step) {
    const std::lock_guard<std::mutex> lock(mutex);
    currentStep = step;
}

void TimeLimit::end() {
    const std::lock_guard<std::mutex> lock(mutex);
    left = std::chrono::milliseconds(0);
}

void TimeLimit::refuseExit() {
    guarded = getpid();
    std::atexit(&onExit);
}

void TimeLimit::allowExit() {
    guarded = 0;
}

void TimeLimit::run() {
    pthread_setname_np(pthread_self(), "time-limit");
    for (;;) {
        // ticks, since a clock would go on while a debugger has the process stopped
        std::this_thread::sleep_for(kTick);
        const std::lock_guard<std::mutex> lock(mutex);
        if (left.count() > 0 && (left -= kTick).count() <= 0)
            giveUp();
    }
}

// With the lock held: what hung may go on, but the end is decided.
void TimeLimit::giveUp() {
    const std::string call = watch.runningCall();
    endAtOnce((call.empty() ? std::string(currentStep) : call + " of the plugin") +
              " has not ended after " + std::to_string(limit.count() / 1000) +
              " s, and is given up; " + settingOption + " sets the time");
}

} // namespace ktr::cli
