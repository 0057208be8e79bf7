#include "BadClients.h"

#include <Poco/Exception.h>
#include <Poco/Net/NetException.h>
#include <Poco/Net/SocketAddress.h>
#include <Poco/Net/StreamSocket.h>
#include <Poco/Timespan.h>

#include <array>
#include <chrono>
#include <random>
#include <utility>

namespace ktr::soak {
namespace {

// The host gives a request ten seconds; it may be short of descriptors before it begins to count.
const Poco::Timespan kPatience(20, 0);
// how long a crowd stays; nothing is waited for
constexpr std::chrono::seconds kCrowdTime(2);
const std::string kReport = "/index/api/all/report";

std::string randomBytes(std::minstd_rand& random) {
    std::string bytes(200 + random() % 2000, '\0');
    for (char& byte : bytes)
        byte = static_cast<char>(random() % 256);
    return bytes + "\r\n\r\n";
}

std::vector<std::string> rubbish(std::minstd_rand& random) {
    const std::string host = " HTTP/1.1\r\nHost: x\r\n";
    return {
        randomBytes(random),
        "GET / HTTP/9.9\r\n\r\n",
        "GET /no/such/route" + host + "\r\n",
        "GET " + kReport + "?ip=%zz&port=x" + host + "\r\n",
        "GET " + kReport + "?ip=1&port=70000&type=1&guid=x" + host + "\r\n",
        "POST " + kReport + host + "Content-Length: -7\r\n\r\nbody",
        "POST " + kReport + host + "Content-Length: 999999999\r\n\r\n",
        "POST " + kReport + host + "Transfer-Encoding: gzip\r\n\r\n",
        "POST " + kReport + host +
            "Content-Type: application/json\r\nContent-Length: 9\r\n\r\n{\"ip\":[[[",
        "GET /" + std::string(20'000, 'a') + host + "\r\n",
        std::string("GET /\0 HTTP/1.1\r\n\r\n", 19),
    };
}

/// What comes until the other side ends the connection, or enough of it.
std::string answerOn(Poco::Net::StreamSocket& socket) {
    std::string answer;
    std::array<char, 4096> part{};
    while (answer.find("\"code\":") == std::string::npos) {
        const int n = socket.receiveBytes(part.data(), static_cast<int>(part.size()));
        if (n <= 0)
            break;
        answer.append(part.data(), static_cast<std::size_t>(n));
    }
    return answer;
}

} // namespace

void BadClients::send(const std::string& bytes, const std::string& what) {
    try {
        Poco::Net::StreamSocket socket;
        socket.connect(Poco::Net::SocketAddress("127.0.0.1", device.port()), kPatience);
        socket.setReceiveTimeout(kPatience);
        socket.sendBytes(bytes.data(), static_cast<int>(bytes.size()));
        const std::string answer = answerOn(socket);
        if (!answer.empty() && answer.find("\"code\":-1") == std::string::npos)
            problems.add(what + " was answered with " + answer);
        ++refusals;
    } catch (const Poco::TimeoutException&) {
        problems.add(what + " was neither answered nor ended");
    } catch (const Poco::Exception&) {
        // ended by the host
        ++refusals;
    }
}

void BadClients::sendRubbish(std::uint32_t seed) {
    std::minstd_rand random(seed);
    for (const std::string& bytes : rubbish(random))
        send(bytes, "the rubbish " + bytes.substr(0, 40));
}

void BadClients::stall(bool inBody) {
    const std::string header = "POST " + kReport + " HTTP/1.1\r\nHost: x\r\n";
    std::string bytes = inBody ? header + "Content-Length: 100\r\n\r\nip=" : header + "Conte";
    stalled.emplace_back([this, bytes = std::move(bytes)] { send(bytes, "a client that stalls"); });
}

void BadClients::crowd() {
    std::vector<Poco::Net::StreamSocket> idle;
    for (int i = 0; i < kConnections + kConnections / 4; ++i)
        try {
            Poco::Net::StreamSocket socket;
            socket.connect(Poco::Net::SocketAddress("127.0.0.1", device.port()), kPatience);
            idle.push_back(socket);
        } catch (const Poco::Exception&) {
            problems.add("the host takes no connection");
            return;
        }
    std::this_thread::sleep_for(kCrowdTime);
}

void BadClients::join() {
    for (std::thread& thread : stalled)
        thread.join();
    stalled.clear();
}

} // namespace ktr::soak
