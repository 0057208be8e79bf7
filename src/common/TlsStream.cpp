#include "TlsStream.h"

#include <Poco/Exception.h>
#include <Poco/Net/StreamSocketImpl.h>

#include <openssl/err.h>
#include <openssl/ssl.h>

#include <algorithm>
#include <cerrno>
#include <poll.h>

namespace ktr {
namespace {

using Poco::Net::Context;
using Poco::Net::SecureStreamSocket;

// what one record holds, so that a slow client's progress shows
constexpr int kRecordBytes = 16'384;

/// Lends its descriptor to Poco's TLS, which would close it.
class LentSocket : public Poco::Net::StreamSocketImpl {
public:
    explicit LentSocket(int descriptor) : StreamSocketImpl(descriptor) { setBlocking(false); }
    void close() override { reset(); }

protected:
    ~LentSocket() override { reset(); }
};

/// Poco asks errno and OpenSSL's queue of errors what an attempt came to, and either may still hold
/// what another connection of the thread left there.
void forgetErrors() {
    errno = 0;
    ERR_clear_error();
}

Attempt attemptOf(int result) {
    if (result == SecureStreamSocket::ERR_SSL_WANT_READ)
        return {0, POLLIN};
    if (result == SecureStreamSocket::ERR_SSL_WANT_WRITE)
        return {0, POLLOUT};
    return {result, 0};
}

Context::Params paramsFor(const std::string& certificateFile, const std::string& keyFile) {
    Context::Params params;
    params.certificateFile = certificateFile;
    params.privateKeyFile = keyFile;
    params.verificationMode = Context::VERIFY_NONE;
    // of TLS 1.2 what keeps past traffic secret when the key gets lost; all of 1.3 does
    params.cipherList = "ECDHE+AESGCM:ECDHE+CHACHA20";
    return params;
}

} // namespace

Context::Ptr makeTlsContext(const std::string& certificateFile, const std::string& keyFile) {
    if (certificateFile.empty() || keyFile.empty())
        throw Poco::InvalidArgumentException("a certificate needs its key, and a key its "
                                             "certificate");
    try {
        Context::Ptr context(
            new Context(Context::TLS_SERVER_USE, paramsFor(certificateFile, keyFile)));
        context->requireMinimumProtocol(Context::PROTO_TLSV1_2);
        // OpenSSL silently drops a key that is another certificate's
        if (SSL_CTX_check_private_key(context->sslContext()) != 1)
            throw Poco::InvalidArgumentException(
                "the key in " + keyFile + " is not that of the certificate in " + certificateFile);
        // a device with many idle connections has better use for their buffers
        SSL_CTX_set_mode(context->sslContext(), SSL_MODE_RELEASE_BUFFERS);
        return context;
    } catch (const Poco::InvalidArgumentException&) {
        throw;
    } catch (const Poco::Exception& e) {
        throw Poco::InvalidArgumentException(e.message());
    }
}

TlsStream::TlsStream(int descriptor, const Context::Ptr& context)
    : socket(SecureStreamSocket::attach(Poco::Net::StreamSocket(new LentSocket(descriptor)),
                                        context)) {}

Attempt TlsStream::handshake() {
    forgetErrors();
    const Attempt attempt = attemptOf(socket.completeHandshake());
    if (attempt.bytes == 0 && attempt.wanted == 0)
        throw Poco::IOException("the client broke off");
    return attempt;
}

void TlsStream::end() {
    try {
        socket.shutdown();
    } catch (const Poco::Exception&) {
        // then the client knows already
    }
}

Attempt TlsStream::receive(void* buffer, int length) {
    forgetErrors();
    return attemptOf(socket.receiveBytes(buffer, length));
}

Attempt TlsStream::send(const void* buffer, int length) {
    forgetErrors();
    return attemptOf(socket.sendBytes(buffer, std::min(length, kRecordBytes)));
}

} // namespace ktr
