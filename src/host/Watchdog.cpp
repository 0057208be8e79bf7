#include "Watchdog.h"

#include "ktr/PluginBase.h"
#include "ktr/common/Logger.h"

#include <Poco/Exception.h>
#include <Poco/Net/StreamSocket.h>
#include <Poco/Timespan.h>

#include <exception>
#include <pthread.h>
#include <stdexcept>
#include <string>

namespace ktr::host {
namespace {

using Poco::Net::IPAddress;
using Poco::Net::SocketAddress;

IPAddress loopbackOf(IPAddress::Family family) {
    return IPAddress(family == IPAddress::IPv6 ? "::1" : "127.0.0.1");
}

SocketAddress reachable(const SocketAddress& bound) {
    return bound.host().isWildcard() ? SocketAddress(loopbackOf(bound.family()), bound.port())
                                     : bound;
}

} // namespace

Watchdog::Watchdog(ServiceManager& manager_, const SocketAddress& served_)
    : manager(manager_), served(reachable(served_)), patience(manager.watchdogTime() / 4),
      thread([this] { watch(); }) {}

Watchdog::~Watchdog() {
    quit();
    thread.join();
}

void Watchdog::quit() {
    {
        const std::lock_guard<std::mutex> lock(mutex);
        quitting = true;
    }
    changed.notify_all();
}

bool Watchdog::hasQuit() {
    const std::lock_guard<std::mutex> lock(mutex);
    return quitting;
}

void Watchdog::watch() {
    pthread_setname_np(pthread_self(), "watchdog");
    std::unique_lock<std::mutex> lock(mutex);
    while (!changed.wait_for(lock, patience, [this] { return quitting; })) {
        lock.unlock();
        checkOnce();
        lock.lock();
    }
}

void Watchdog::checkOnce() {
    std::string stall;
    try {
        awaitWebApi();
        awaitRegistry();
        manager.alive();
        return;
    } catch (const Poco::Exception& e) {
        stall = "the web API does not answer: " + e.displayText();
    } catch (const std::exception& e) {
        stall = e.what();
    }
    if (!hasQuit() && cachedLogger().warning())
        cachedLogger().warning(
            "the service manager is not told that the host is alive, and may end it: " + stall,
            __FILE__, __LINE__);
}

/// Asks nothing: a request would have to be answered by some route, or be logged as one of none.
/// The server ends a connection whose client has no request once a thread of it has come to it.
void Watchdog::awaitWebApi() const {
    const Poco::Timespan limit(patience.count());
    Poco::Net::StreamSocket connection(served.family());
    // as a client on this machine, whom --allow lets in; from there no link-local address is
    // reached
    if (!served.host().isLinkLocal())
        connection.impl()->bind(SocketAddress(loopbackOf(served.family()), 0));
    connection.connect(served, limit);
    connection.setReceiveTimeout(limit);
    connection.shutdownSend();
    char byte = 0;
    if (connection.receiveBytes(&byte, 1) != 0)
        throw Poco::IOException("it talks unasked");
}

/// Takes the registry's lock by removing what is not there. Whoever holds the lock is waited for on
/// another thread, for this one is to tell of it.
void Watchdog::awaitRegistry() {
    if (!question.valid())
        question = std::async(std::launch::async, [] {
            pthread_setname_np(pthread_self(), "registry-check");
            unregisterPlugin("no plugin's guid");
        });
    if (question.wait_for(patience) != std::future_status::ready)
        throw std::runtime_error("a plugin holds the registry's lock: its factory, "
                                 "setEventCallback, stop or onMessage does not return");
    question.get();
}

} // namespace ktr::host
