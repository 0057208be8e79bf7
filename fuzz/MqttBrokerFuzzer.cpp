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
constexpr std::array<unsigned char, 4> kConnack{0x20, 0x02, 0x00, 0x00};

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
        std::array<char, 512> connect{};
        require(socket.receiveBytes(connect.data(), connect.size()) > 0, "the client connects");
        try {
            socket.sendBytes(kConnack.data(), kConnack.size());
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
