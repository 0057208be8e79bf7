#pragma once

#include "HttpConnection.h"

#include "ktr/common/WebApiBasic.h"

#include <Poco/Net/ServerSocket.h>

#include <atomic>
#include <cstddef>
#include <list>
#include <mutex>
#include <thread>

namespace ktr {

class RouteTable;

/// Accepts connections and gives each a thread of its own, up to a number; beyond it an idle
/// connection makes room, or else the client waits in the kernel's backlog.
///
/// Not Poco::Net::TCPServer: that spins while the process is out of descriptors, queues connections
/// behind idle ones, and at a stop wakes but one of its waiting threads.
///
/// Thread safety: belongs to one thread.
class HttpListener {
public:
    /// Starts accepting on `socket`, which is bound and listening. Throws Poco::SystemException.
    HttpListener(const Poco::Net::ServerSocket& socket, RouteTable& routes,
                 const WebApiBasic::Limits& limits);
    /// Ends idle connections, lets answers go out, and waits for every thread.
    ~HttpListener();
    HttpListener(const HttpListener&) = delete;
    HttpListener& operator=(const HttpListener&) = delete;

private:
    struct Client {
        Client(int descriptor, RouteTable& routes, const WebApiBasic::Limits& limits)
            : connection(descriptor, routes, limits) {}

        HttpConnection connection;
        std::thread thread;
        std::atomic<bool> done{false};
    };

    void acceptAll();
    void acceptOne();
    void start(int descriptor);
    void reportRefusal(const std::string& reason);
    void makeRoom();
    void reap();
    void wake();
    bool waitForClient();
    void pause();

    Poco::Net::ServerSocket socket;
    RouteTable& routes;
    const WebApiBasic::Limits limits;
    const int wakeup;
    std::atomic<bool> stopping{false};

    // of the accepting thread, and of the destructor after it
    std::list<Client> clients;
    bool exhausted = false;

    std::thread acceptor;
};

} // namespace ktr
