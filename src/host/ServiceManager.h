#pragma once

#include <atomic>
#include <chrono>
#include <string>

namespace ktr::host {

/// Tells the service manager that has started the host (systemd, Type=notify) how far it is. Does
/// nothing where there is none: without NOTIFY_SOCKET in the environment.
///
/// Child processes see neither NOTIFY_SOCKET nor the watchdog's variables: what they would say is
/// not what the host says. That holds for every fork of the process, not for posix_spawn and
/// system(), whose children keep NOTIFY_SOCKET; the service manager hears the main process only.
///
/// Thread safety: all functions may be called from any thread. None throws: a message that cannot
/// be sent is logged, the first of several in a row.
class ServiceManager {
public:
    /// To be made once, before there is a second thread, since it changes the environment.
    ServiceManager();
    ServiceManager(const ServiceManager&) = delete;
    ServiceManager& operator=(const ServiceManager&) = delete;

    /// How often it wants to hear alive(), as the longest time between two; zero for never.
    std::chrono::microseconds watchdogTime() const { return watchdog; }

    /// One line on what the host does now.
    void status(const std::string& text);
    void ready(const std::string& text);
    void stopping();
    void alive();

private:
    void notify(const std::string& state);

    const bool present;
    const std::chrono::microseconds watchdog;
    std::atomic<bool> failed{false};
};

} // namespace ktr::host
