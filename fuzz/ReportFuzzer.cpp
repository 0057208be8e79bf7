// The report route from the bytes on the socket: one connection of the real server on a pair of
// sockets, served to its end on this thread.

#include "../src/common/HttpConnection.h"
#include "../src/common/RouteTable.h"
#include "Support.h"

#include "ktr/MSManager.h"

#include <Poco/Exception.h>

#include <array>
#include <cerrno>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace ktr::fuzz {
namespace {

constexpr const char* kRoute = "/index/api/all/report";
constexpr const char* kGood = "GET /index/api/all/report?ip=127.0.0.1&port=1&type=0&guid=good "
                              "HTTP/1.0\r\n\r\n";

/// Plain HTTP for everybody, with limits that short inputs reach.
ServerSettings settings() {
    ServerSettings open;
    open.limits.headerBytes = 1024;
    open.limits.bodyBytes = 1024;
    return open;
}

void addRoute(RouteTable& routes) {
    routes.set(kRoute, [](auto& request, auto& response, const auto& params) {
        try {
            MSManager::instance().reportProcess(request, response, params);
        } catch (...) {
            require(false, "the handler lets no exception out");
        }
    });
}

/// The client's end and the server's. The client's bears a name, an empty one, since Poco reads the
/// peer's name without asking how long it is.
std::array<int, 2> makePair() {
    std::array<int, 2> ends{};
    sockaddr unnamed{};
    unnamed.sa_family = AF_UNIX;
    require(socketpair(AF_UNIX, SOCK_STREAM, 0, ends.data()) == 0 &&
                bind(ends[0], &unnamed, sizeof(sa_family_t)) == 0,
            "there are sockets to be had");
    return ends;
}

void sendAll(int descriptor, const std::string& bytes) {
    require(send(descriptor, bytes.data(), bytes.size(), MSG_DONTWAIT) ==
                static_cast<ssize_t>(bytes.size()),
            "the input fits into the socket");
    shutdown(descriptor, SHUT_WR);
}

std::string receiveAll(int descriptor) {
    std::string all;
    std::array<char, 4096> piece{};
    ssize_t got = 0;
    while ((got = recv(descriptor, piece.data(), piece.size(), MSG_DONTWAIT)) > 0)
        all.append(piece.data(), static_cast<std::size_t>(got));
    require(got == 0 || errno == ECONNRESET, "the connection is closed when it has been served");
    return all;
}

std::string serve(HttpConnection::Server& host, const std::string& bytes) {
    static const auto connections = std::make_shared<OpenConnections>(1);
    const auto [client, server] = makePair();
    sendAll(client, bytes);
    {
        const Poco::Net::StreamSocket socket(
            new ClientSocket(server, Poco::Net::SocketAddress("127.0.0.1", 40'000), connections,
                             host.settings.limits));
        HttpConnection(socket, host).run();
    }
    std::string answers = receiveAll(client);
    close(client);
    return answers;
}

} // namespace
} // namespace ktr::fuzz

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace ktr::fuzz;
    static ktr::RouteTable routes;
    static ktr::HttpConnection::Server host{routes, settings(), ktr::BoundedLog(),
                                            ktr::BoundedLog(), ktr::BoundedLog()};
    [[maybe_unused]] static const bool isSetUp = (muteLog(), addRoute(routes), true);
    const std::string answers = serve(host, text(data, size));
    require(answers.empty() || answers.rfind("HTTP/1.", 0) == 0,
            "what is answered begins as an answer does");
    const std::string good = serve(host, kGood);
    require(good.rfind("HTTP/1.0 200 OK", 0) == 0 &&
                good.find(R"({"code":0,"msg":"success"})") != std::string::npos,
            "a good report after it is accepted");
    return 0;
}
