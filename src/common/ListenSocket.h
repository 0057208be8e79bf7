#pragma once

#include "ClientSocket.h"

#include <Poco/Net/ServerSocketImpl.h>

#include <memory>

namespace ktr {

/// The listening socket: its connections are ClientSockets, and it accepts one only when there is
/// room for it. It accepts in poll, where having nothing yet is no error: Poco::Net::TCPServer
/// tries again at once after an error, and so spins while the process is out of descriptors.
class ListenSocket : public Poco::Net::ServerSocketImpl {
public:
    ListenSocket(std::shared_ptr<OpenConnections> connections, const WebApiBasic::Limits& limits);

    bool poll(const Poco::Timespan& timeout, int mode) override;
    Poco::Net::SocketImpl* acceptConnection(Poco::Net::SocketAddress& client) override;

protected:
    ~ListenSocket() override = default;

private:
    void reportFailure(int code);

    const std::shared_ptr<OpenConnections> connections;
    const WebApiBasic::Limits limits;
    /// What poll has accepted.
    int accepted = -1;
    bool failing = false;
};

} // namespace ktr
