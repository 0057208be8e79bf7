#include "ServiceManager.h"

#include "ktr/common/Logger.h"

#include <systemd/sd-daemon.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <pthread.h>
#include <string_view>
#include <system_error>
#include <unistd.h>

namespace ktr::host {
namespace {

constexpr std::string_view kSocketVariable = "NOTIFY_SOCKET=";

// Runs in the child between fork and exec, where unsetenv might wait for a lock for ever.
void hideSocket() {
    if (environ == nullptr)
        return;
    char** kept = environ;
    for (char** variable = environ; *variable != nullptr; ++variable)
        if (std::string_view(*variable).compare(0, kSocketVariable.size(), kSocketVariable) != 0)
            *kept++ = *variable;
    *kept = nullptr;
}

bool takeOver() {
    if (std::getenv("NOTIFY_SOCKET") == nullptr)
        return false;
    // sd_notify looks for the socket in the environment each time
    const int error = pthread_atfork(nullptr, nullptr, &hideSocket);
    if (error != 0)
        throw std::system_error(error, std::generic_category(), "pthread_atfork");
    return true;
}

std::chrono::microseconds takeWatchdogTime(bool present) {
    std::uint64_t time = 0;
    constexpr int unset = 1;
    if (sd_watchdog_enabled(unset, &time) <= 0 || !present)
        return std::chrono::microseconds::zero();
    return std::chrono::microseconds(time);
}

} // namespace

ServiceManager::ServiceManager() : present(takeOver()), watchdog(takeWatchdogTime(present)) {}

void ServiceManager::status(const std::string& text) {
    notify("STATUS=" + text);
}

void ServiceManager::ready(const std::string& text) {
    notify("READY=1\nSTATUS=" + text);
}

void ServiceManager::stopping() {
    notify("STOPPING=1");
}

void ServiceManager::alive() {
    notify("WATCHDOG=1");
}

void ServiceManager::notify(const std::string& state) {
    if (!present)
        return;
    const int sent = sd_notify(0, state.c_str());
    if (failed.exchange(sent < 0) || sent >= 0 || !cachedLogger().warning())
        return;
    cachedLogger().warning("the service manager cannot be told '" + state +
                               "': " + std::generic_category().message(-sent) +
                               "; see to the socket that NOTIFY_SOCKET names",
                           __FILE__, __LINE__);
}

} // namespace ktr::host
