#pragma once

#include "HeaderScan.h"
#include "OpenConnections.h"
#include "TlsStream.h"

#include "ktr/common/WebApiBasic.h"

#include <Poco/Net/SocketAddress.h>
#include <Poco/Net/StreamSocketImpl.h>

#include <cstddef>
#include <memory>
#include <optional>
#include <string>

namespace ktr {

/// The socket of one accepted connection. Poco's time-outs hold for a single receive, so that a
/// client could go on for ever with one byte at a time; here the whole of a header, body or answer
/// has its end.
///
/// Thread safety: belongs to one thread.
class ClientSocket : public Poco::Net::StreamSocketImpl {
public:
    using Clock = OpenConnections::Clock;

    /// How a client begins.
    enum class Opening { nothing, tls, other };

    /// Owns `descriptor`, whose other end is `peer`.
    ClientSocket(int descriptor, const Poco::Net::SocketAddress& peer,
                 std::shared_ptr<OpenConnections> connections, const WebApiBasic::Limits& limits);

    const Poco::Net::SocketAddress& peer() const { return client; }
    // Poco asks for both with each request; unlike the system's they are there when the client has
    // gone
    Poco::Net::SocketAddress peerAddress() override { return client; }
    Poco::Net::SocketAddress address() override;

    /// Waits for the first byte and leaves it; `nothing` when none comes in the header's time.
    Opening awaitOpening();
    /// To follow awaitOpening, in what is left of its time. Throws Poco::Exception.
    void startTls(const Poco::Net::Context::Ptr& context);

    // what comes next; false when the connection is to end instead
    bool awaitRequest();
    bool readHeader();
    bool readBody();
    bool answer();

    /// Ends an answer to a client that may still be sending: closing on unread data would take the
    /// answer from it.
    void linger();

    bool stopping() const { return connections->stopping(); }
    /// Whether others wait until there is room for them.
    bool isCrowded() const { return connections->isCrowded(); }
    /// Whether it was closed to make room for others.
    bool isEnded() const { return connections->isEnded(sockfd()); }

    bool secure() const override { return tls.has_value(); }

    using StreamSocketImpl::receiveBytes;
    using StreamSocketImpl::sendBytes;
    /// Throws HttpFault when the client is over its time, over its bytes, or breaks off. Of a
    /// header it gives no byte beyond its end: who reads on takes it to end elsewhere.
    int receiveBytes(void* buffer, int length, int flags) override;
    int sendBytes(const void* buffer, int length, int flags) override;
    /// Unlike Poco's without a descriptor of its own.
    bool poll(const Poco::Timespan& timeout, int mode) override;
    /// How Poco ends an answer that has no length.
    void shutdownSend() override;
    void close() override;

protected:
    ~ClientSocket() override;

private:
    Attempt receiveNow(void* buffer, int length);
    Attempt sendNow(const void* buffer, std::size_t length, int flags);
    int receiveUntil(Clock::time_point end, void* buffer, int length);
    int takeAhead(void* buffer, int length);
    int keepHeader(const char* data, int size);

    const Poco::Net::SocketAddress client;
    std::optional<Poco::Net::SocketAddress> here;
    const std::shared_ptr<OpenConnections> connections;
    const WebApiBasic::Limits limits;
    /// None on a connection in plain text.
    std::optional<TlsStream> tls;
    Clock::time_point deadline;
    /// What may still be received of the header.
    std::size_t headerLeft = 0;
    bool inHeader = false;
    HeaderScan header;
    /// What was received together with a header, but belongs to what follows it.
    std::string ahead;
    /// Whether a part of the request has come.
    bool begun = false;
    /// Whether the client was given up in the middle of an answer.
    bool stalled = false;
};

/// Waits until `descriptor` is ready for `events`; false when `timeout` has passed.
bool waitForSocket(int descriptor, short events, OpenConnections::Clock::duration timeout);

} // namespace ktr
