#pragma once

#include "ServiceManager.h"

#include <Poco/Net/SocketAddress.h>

#include <chrono>
#include <condition_variable>
#include <future>
#include <mutex>
#include <thread>

namespace ktr::host {

/// Tells the service manager that the host is alive for as long as it works, on a thread of its
/// own. It works if
///   - its web API takes a connection and has a thread for it, and
///   - the registry's lock can be had, as every event and every start of a plugin needs it.
/// When one of them fails, the log says which, and the service manager hears nothing until both
/// work again.
///
/// Not asked: the event pools, which stand still only with the registry's lock; the default pool,
/// which plugins may fill for as long as they like; supervision, which waits for nobody.
class Watchdog {
public:
    /// `served_` is where the web API is bound. `manager_` outlives this. Throws std::system_error
    /// when the process lacks a thread.
    Watchdog(ServiceManager& manager_, const Poco::Net::SocketAddress& served_);
    /// Calls quit(); waits for the registry's lock if that was asked for.
    ~Watchdog();
    Watchdog(const Watchdog&) = delete;
    Watchdog& operator=(const Watchdog&) = delete;

    /// Has it say nothing more, to nobody. For the shutdown, which takes away what it looks at.
    void quit();

private:
    void watch();
    void checkOnce();
    bool hasQuit();
    void awaitWebApi() const;
    void awaitRegistry();

    ServiceManager& manager;
    const Poco::Net::SocketAddress served;
    /// Waiting and both checks, one after the other, take less than the watchdog's time.
    const std::chrono::microseconds patience;

    std::mutex mutex;
    std::condition_variable changed;
    bool quitting = false;

    /// A question for the registry's lock that has no answer yet; used by the thread alone.
    std::future<void> question;
    std::thread thread;
};

} // namespace ktr::host
