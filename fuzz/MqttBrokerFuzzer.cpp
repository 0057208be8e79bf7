// A broker that accepts the client and then sends the input.

#include "Support.h"

#include "ktr/common/MqttClient.h"

#include <Poco/Exception.h>
#include <Poco/Net/ServerSocket.h>
#include <Poco/Net/StreamSocket.h>

#include <array>
#include <deque>
#include <memory>
#include <utility>

namespace ktr::fuzz {
namespace {

constexpr std::size_t kSessions = 32;
// the lengths of the two packets that a session begins with
constexpr int kSubscribeAndPublish = 8 + 14;
constexpr std::array<unsigned char, 4> kConnack{0x20, 0x02, 0x00, 0x00};

/// Whether the client sends so much.
bool receive(Poco::Net::StreamSocket& socket, int size) {
    std::array<char, 512> ignored{};
    while (size > 0) {
        const int got = socket.receiveBytes(ignored.data(), ignored.size());
        if (got == 0)
            return false;
        size -= got;
    }
    return true;
}

/// Until the client says nothing more. A client that cuts the connection is as good.
void drain(Poco::Net::StreamSocket& socket) {
    std::array<char, 4096> ignored{};
    try {
        while (socket.receiveBytes(ignored.data(), ignored.size()) > 0) {
        }
    } catch (const Poco::Exception&) {
    }
}

/// A client and the broker that it takes for its own.
class Session {
public:
    Session() : listener(Poco::Net::SocketAddress("127.0.0.1", 0)), client(settings()) {
        client.subscribe("#", 2, [](const auto& message) {
            require(message.qos >= 0 && message.qos <= 2, "a message has a QoS");
        });
        client.publish({"t", "payload", 2, false});
        client.connect();
    }

    void serve(const std::uint8_t* data, std::size_t size) {
        Poco::Net::StreamSocket socket = listener.acceptConnection();
        socket.setReceiveTimeout(Poco::Timespan(5, 0));
        socket.setLinger(true, 0); // the port is to be free at once
        require(receive(socket, 1), "the client connects");
        try {
            socket.sendBytes(kConnack.data(), kConnack.size());
            // Paho's queue is not safe from a connection that ends while something is put into it
            receive(socket, kSubscribeAndPublish);
            socket.sendBytes(data, static_cast<int>(size));
            socket.shutdownSend();
        } catch (const Poco::Exception&) {
            // the client cut the connection, as it may
        }
        drain(socket);
    }

private:
    MqttClient::Settings settings() const {
        MqttClient::Settings settings;
        settings.url = "tcp://" + listener.address().toString();
        return settings;
    }

    Poco::Net::ServerSocket listener;
    MqttClient client;
};

/// Sessions whose clients are connecting, for Paho takes a second for it.
class Waiting {
public:
    std::unique_ptr<Session> take() {
        while (sessions.size() < kSessions)
            sessions.push_back(std::make_unique<Session>());
        std::unique_ptr<Session> first = std::move(sessions.front());
        sessions.pop_front();
        return first;
    }

private:
    std::deque<std::unique_ptr<Session>> sessions;
};

} // namespace
} // namespace ktr::fuzz

/// No leaks are looked for: the clients that wait are at work, and what a thread is just making or
/// deleting would be taken for one.
// NOLINTNEXTLINE(bugprone-reserved-identifier): the name that AddressSanitizer looks up
extern "C" const char* __asan_default_options() {
    return "detect_leaks=0";
}

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace ktr::fuzz;
    [[maybe_unused]] static const bool isSetUp = (muteLog(), true);
    static Waiting waiting;
    waiting.take()->serve(data, size);
    return 0;
}
