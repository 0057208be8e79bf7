#pragma once

#include <Poco/Net/Context.h>
#include <Poco/Net/SecureStreamSocket.h>

#include <string>

namespace ktr {

/// The server's side of TLS 1.2 and later with a certificate (its chain behind it) and its key, PEM
/// files both. Throws Poco::InvalidArgumentException when they cannot be used.
Poco::Net::Context::Ptr makeTlsContext(const std::string& certificateFile,
                                       const std::string& keyFile);

/// What an attempt that does not wait came to.
struct Attempt {
    /// How many bytes went over; 0 at the end of the stream.
    int bytes = 0;
    /// What to wait for before the same is attempted again (POLLIN, POLLOUT); 0 when it was done.
    short wanted = 0;
};

/// TLS over a connected descriptor that somebody else owns and closes later. Never waits.
///
/// Thread safety: belongs to one thread.
class TlsStream {
public:
    TlsStream(int descriptor, const Poco::Net::Context::Ptr& context);
    /// Calls end().
    ~TlsStream() = default;
    TlsStream(const TlsStream&) = delete;
    TlsStream& operator=(const TlsStream&) = delete;

    // These throw Poco::Exception when the stream is broken.
    Attempt handshake();
    Attempt receive(void* buffer, int length);
    Attempt send(const void* buffer, int length);

    /// Tells the client that nothing more comes, if that does not take waiting.
    void end();

    /// Whether there is something to receive that the descriptor does not show any more.
    bool pending() const { return socket.available() > 0; }

private:
    Poco::Net::SecureStreamSocket socket;
};

} // namespace ktr
