#pragma once

#include "ClientSocket.h"
#include "HttpReader.h"

#include "ktr/common/WebApiBasic.h"

#include <mutex>
#include <optional>
#include <string>

namespace ktr {

class HttpFault;
class HttpRequest;
class HttpResponse;
class RouteTable;
struct Target;

/// Answers the requests of one connection, one after the other.
///
/// Thread safety: run belongs to one thread, the rest may be called from any.
class HttpConnection {
public:
    HttpConnection(int descriptor, RouteTable& routes, const WebApiBasic::Limits& limits);

    /// Serves until the client, a limit or stop ends the connection.
    void run() noexcept;

    /// Has run return: at once, or when the answer that is being made has gone out.
    void stop();

    /// Since when the connection has been waiting for a request; nothing when it is in one.
    std::optional<ClientSocket::Clock::time_point> idleSince() const;

    /// stop, but only when idle; false when it is not.
    bool stopIfIdle();

private:
    enum class Phase { idle, reading, answering };

    bool enter(Phase next);
    bool serveOne();
    bool readRequest(HttpRequest& request, Target& target);
    void refuse(const HttpRequest& request, const HttpFault& fault);
    bool answer(HttpRequest& request, const Target& target);
    bool handle(HttpRequest& request, HttpResponse& response, const Target& target);
    void stopLocked();

    RouteTable& routes;
    ClientSocket socket;
    HttpReader reader;

    mutable std::mutex mutex;
    // guarded by mutex
    Phase phase = Phase::idle;
    ClientSocket::Clock::time_point idleStart = ClientSocket::Clock::now();
    bool stopping = false;
};

} // namespace ktr
