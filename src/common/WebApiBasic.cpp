#include "ktr/common/WebApiBasic.h"

#include "HttpListener.h"
#include "RouteTable.h"

#include <Poco/Exception.h>
#include <Poco/Net/NetException.h>
#include <Poco/Net/ServerSocket.h>

#include <fcntl.h>
#include <mutex>
#include <optional>
#include <utility>

namespace ktr {
namespace {

constexpr int kBacklog = 128;

Poco::Net::ServerSocket listenOn(const std::string& ip, unsigned short port) {
    try {
        Poco::Net::ServerSocket socket;
        // A port that just served may be bound again; one that is being served may not be shared.
        socket.bind(Poco::Net::SocketAddress(ip, port), true, false);
        socket.listen(kBacklog);
        socket.setBlocking(false);
        ::fcntl(socket.impl()->sockfd(), F_SETFD, FD_CLOEXEC);
        return socket;
    } catch (const Poco::Exception& e) {
        const bool v6 = ip.find(':') != std::string::npos;
        throw Poco::Net::NetException("cannot listen on " + (v6 ? "[" + ip + "]" : ip) + ":" +
                                          std::to_string(port) + ": " + e.displayText(),
                                      e.code());
    }
}

} // namespace

struct WebApiBasic::Impl {
    RouteTable routes;

    std::mutex limitsMutex;
    Limits limits;

    // of the thread that binds, serves and stops
    std::optional<Poco::Net::ServerSocket> socket;
    Limits boundLimits;
    std::unique_ptr<HttpListener> listener;
};

std::shared_ptr<WebApiBasic> WebApiBasic::instance() {
    // Stopped at exit, while what handlers use is still there, but never destroyed: plugins and
    // statics that end later may still hold it or ask for it.
    static auto* const router = new std::shared_ptr<WebApiBasic>(std::make_shared<WebApiBasic>());
    struct StopAtExit {
        ~StopAtExit() { (*router)->stop(); }
    };
    static const StopAtExit atExit;
    return *router;
}

WebApiBasic::WebApiBasic() : impl(std::make_unique<Impl>()) {}

WebApiBasic::~WebApiBasic() {
    stop();
}

void WebApiBasic::apiRegist(std::string route, Handler handler) {
    impl->routes.set(route, std::move(handler));
}

void WebApiBasic::apiUnregist(const std::string& route) {
    impl->routes.remove(route);
}

void WebApiBasic::setLimits(const Limits& limits) {
    const std::lock_guard<std::mutex> lock(impl->limitsMutex);
    impl->limits = limits;
}

Poco::Net::SocketAddress WebApiBasic::bind(const std::string& ip, unsigned short port) {
    if (impl->socket)
        throw Poco::IllegalStateException("the web api is bound already; call stop first");
    impl->socket = listenOn(ip, port);
    const std::lock_guard<std::mutex> lock(impl->limitsMutex);
    impl->boundLimits = impl->limits;
    return impl->socket->address();
}

void WebApiBasic::serve() {
    if (!impl->socket)
        throw Poco::IllegalStateException("the web api serves only once it is bound; call bind");
    if (impl->listener)
        throw Poco::IllegalStateException("the web api serves already");
    impl->listener = std::make_unique<HttpListener>(*impl->socket, impl->routes, impl->boundLimits);
}

void WebApiBasic::stop() {
    impl->listener.reset();
    if (impl->socket) {
        impl->socket->close();
        impl->socket.reset();
    }
}

} // namespace ktr
