#include "WebHookPost.h"

#include "HostLookup.h"

#include <Poco/Exception.h>
#include <Poco/Net/Context.h>
#include <Poco/Net/HTTPBasicCredentials.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/NetException.h>
#include <Poco/Net/SecureStreamSocket.h>
#include <Poco/Net/SocketAddress.h>

#include <cerrno>
#include <chrono>
#include <ostream>
#include <sys/socket.h>
#include <vector>

namespace ktr {
namespace {

constexpr int kMaxHeaderFields = 100;
constexpr int kMaxCertificateChain = 9;

std::string hostOnly(const std::string& host) {
    return host.substr(0, host.find('%')); // a link-local address's zone is nobody else's business
}

/// Whether the host's next address may be tried without posting twice.
bool neverConnected(const Poco::Net::NetException& e) {
    return dynamic_cast<const Poco::Net::ConnectionRefusedException*>(&e) != nullptr ||
           e.code() == ENETUNREACH || e.code() == EHOSTUNREACH;
}

Poco::Net::Context::Ptr makeContext(const std::string& caFile) {
    // strict: Poco otherwise spares local peers the comparison of the name
    Poco::Net::Context::Ptr context(new Poco::Net::Context(
        Poco::Net::Context::TLS_CLIENT_USE, caFile, Poco::Net::Context::VERIFY_STRICT,
        kMaxCertificateChain, caFile.empty()));
    context->requireMinimumProtocol(Poco::Net::Context::PROTO_TLSV1_2);
    return context;
}

} // namespace

/// Lets abort() at a socket while it is open.
class WebHookPost::Watch {
public:
    Watch(WebHookPost& post_, int handle) : post(post_) {
        const std::lock_guard<std::mutex> lock(post.mutex);
        if (post.aborted)
            throw Poco::RuntimeException("aborted");
        post.socketHandle = handle;
    }
    ~Watch() {
        const std::lock_guard<std::mutex> lock(post.mutex);
        post.socketHandle = -1;
    }
    Watch(const Watch&) = delete;
    Watch& operator=(const Watch&) = delete;

private:
    WebHookPost& post;
};

WebHookPost::WebHookPost(const WebHookTarget& target_, const std::string& caFile_,
                         const Poco::Timespan& timeout_)
    : target(target_), caFile(caFile_), timeout(timeout_) {}

void WebHookPost::abort() {
    const std::lock_guard<std::mutex> lock(mutex);
    aborted = true;
    if (socketHandle != -1)
        ::shutdown(socketHandle, SHUT_RDWR);
}

bool WebHookPost::isAborted() {
    const std::lock_guard<std::mutex> lock(mutex);
    return aborted;
}

Poco::Net::HTTPResponse WebHookPost::send(const std::string& body) {
    const std::vector<Poco::Net::IPAddress> addresses =
        lookUpHost(target.host, std::chrono::milliseconds(timeout.totalMilliseconds()),
                   [this] { return isAborted(); });
    for (std::size_t i = 0; i + 1 < addresses.size(); ++i) {
        try {
            return exchange(addresses[i], body);
        } catch (const Poco::Net::NetException& e) {
            if (!neverConnected(e))
                throw;
        }
    }
    return exchange(addresses.back(), body);
}

Poco::Net::HTTPResponse WebHookPost::exchange(const Poco::Net::IPAddress& address,
                                              const std::string& body) {
    Poco::Net::StreamSocket socket(address.family());
    std::unique_ptr<Poco::Net::HTTPClientSession> session;
    const Watch watch(*this, socket.impl()->sockfd()); // ends before the two close the socket
    socket.connect(Poco::Net::SocketAddress(address, target.port), timeout);
    socket.setReceiveTimeout(timeout);
    socket.setSendTimeout(timeout);
    session = openSession(socket);

    Poco::Net::HTTPRequest request(Poco::Net::HTTPRequest::HTTP_POST, target.resource,
                                   Poco::Net::HTTPMessage::HTTP_1_1);
    request.setHost(hostOnly(target.host), target.port);
    request.setContentType("application/json");
    request.setContentLength64(static_cast<Poco::Int64>(body.size()));
    if (!target.user.empty() || !target.password.empty())
        Poco::Net::HTTPBasicCredentials(target.user, target.password).authenticate(request);
    session->sendRequest(request) << body << std::flush;
    Poco::Net::HTTPResponse response;
    response.setFieldLimit(kMaxHeaderFields);
    session->receiveResponse(response);
    return response;
}

std::unique_ptr<Poco::Net::HTTPClientSession>
WebHookPost::openSession(const Poco::Net::StreamSocket& socket) {
    if (!target.https)
        return std::make_unique<Poco::Net::HTTPClientSession>(socket);
    // the plain session speaks through a TLS socket too; Poco's HTTPS one refuses a connected one
    return std::make_unique<Poco::Net::HTTPClientSession>(
        Poco::Net::SecureStreamSocket::attach(socket, hostOnly(target.host), makeContext(caFile)));
}

} // namespace ktr
