#include "ktr/common/WebApiBasic.h"

#include "HttpServer.h"
#include "RouteTable.h"
#include "ServerSettings.h"
#include "TlsStream.h"

#include <Poco/Exception.h>

#include <mutex>
#include <utility>

namespace ktr {

struct WebApiBasic::Impl {
    RouteTable routes;

    std::mutex settingsMutex;
    ServerSettings settings;

    // of the thread that binds, serves and stops
    std::unique_ptr<HttpServer> server;
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
    const std::lock_guard<std::mutex> lock(impl->settingsMutex);
    impl->settings.limits = limits;
}

void WebApiBasic::allowNetworks(const std::vector<std::string>& networks) {
    const NetworkList list(networks);
    const std::lock_guard<std::mutex> lock(impl->settingsMutex);
    impl->settings.access.allow(list);
}

void WebApiBasic::requireToken(const std::string& token) {
    const std::lock_guard<std::mutex> lock(impl->settingsMutex);
    impl->settings.access.requireToken(token);
}

void WebApiBasic::useTls(const std::string& certificateFile, const std::string& keyFile) {
    const bool wanted = !certificateFile.empty() || !keyFile.empty();
    const Poco::Net::Context::Ptr context =
        wanted ? makeTlsContext(certificateFile, keyFile) : nullptr;
    const std::lock_guard<std::mutex> lock(impl->settingsMutex);
    impl->settings.tls = context;
}

Poco::Net::SocketAddress WebApiBasic::bind(const std::string& ip, unsigned short port) {
    if (impl->server)
        throw Poco::IllegalStateException("the web api is bound already; call stop first");
    const std::lock_guard<std::mutex> lock(impl->settingsMutex);
    impl->server = std::make_unique<HttpServer>(ip, port, impl->routes, impl->settings);
    return impl->server->address();
}

std::size_t WebApiBasic::discardWaiting() {
    if (!impl->server)
        throw Poco::IllegalStateException("nobody waits for the web api before it is bound");
    if (impl->server->serving())
        throw Poco::IllegalStateException("the web api serves already; nobody waits");
    return impl->server->discardWaiting();
}

void WebApiBasic::serve() {
    if (!impl->server)
        throw Poco::IllegalStateException("the web api serves only once it is bound; call bind");
    if (impl->server->serving())
        throw Poco::IllegalStateException("the web api serves already");
    impl->server->start();
}

void WebApiBasic::stop() {
    impl->server.reset();
}

} // namespace ktr
