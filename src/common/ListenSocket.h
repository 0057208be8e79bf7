#pragma once

#include "BoundedLog.h"
#include "ClientSocket.h"
#include "ServerSettings.h"

#include <Poco/Net/ServerSocketImpl.h>

#include <functional>
#include <memory>

namespace ktr {

/// The listening socket: its connections are ClientSockets, and it hands one on only when there
/// is room for it, and closes those of clients that are not admitted, before a byte of them is read
/// or another connection makes room for them. It accepts in poll, where having nothing yet is no
/// error: Poco::Net::TCPServer tries again at once after an error, and so spins while the process
/// is out of descriptors.
class ListenSocket : public Poco::Net::ServerSocketImpl {
public:
    /// Calls `tidy` about once a second while the socket is polled.
    ListenSocket(std::shared_ptr<OpenConnections> connections, const ServerSettings& settings,
                 std::function<void()> tidy);

    bool poll(const Poco::Timespan& timeout, int mode) override;
    Poco::Net::SocketImpl* acceptConnection(Poco::Net::SocketAddress& client) override;

protected:
    ~ListenSocket() override;

private:
    using Clock = OpenConnections::Clock;

    void tidyNowAndThen();
    bool acceptOne(Clock::duration timeout);
    void reportFailure(int code);

    const std::shared_ptr<OpenConnections> connections;
    const WebApiBasic::Limits limits;
    const AccessControl access;
    const std::function<void()> tidy;
    Clock::time_point tidied = Clock::now();
    /// What poll has accepted and not handed on yet, and who is there.
    int accepted = -1;
    Poco::Net::SocketAddress peer;
    BoundedLog refusals;
    bool failing = false;
};

} // namespace ktr
