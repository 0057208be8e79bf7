#include "ktr/common/MqttClient.h"

#include "support/Broker.h"
#include "support/LogCapture.h"
#include "support/WaitUntil.h"

#include <MQTTAsync.h>
#include <Poco/Message.h>
#include <Poco/Net/ServerSocket.h>
#include <Poco/Net/StreamSocket.h>
#include <Poco/Timespan.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <dlfcn.h>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

/// What the next call of a function of Paho answers in the place of doing it; 0: it is done.
std::atomic<int> sendFault{0};
std::atomic<int> subscribeFault{0};
std::atomic<int> disconnectFault{0};

template <class Function>
Function* pahosOwn(Function* /*replacement*/, const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

} // namespace

// These take the places of Paho's own for the libraries of this program too.
extern "C" {

[[gnu::visibility("default")]] int MQTTAsync_sendMessage(MQTTAsync handle, const char* topic,
                                                         const MQTTAsync_message* message,
                                                         MQTTAsync_responseOptions* response) {
    static const auto own = pahosOwn(&MQTTAsync_sendMessage, "MQTTAsync_sendMessage");
    const int fault = sendFault.exchange(0);
    return fault != 0 ? fault : own(handle, topic, message, response);
}

[[gnu::visibility("default")]] int MQTTAsync_subscribe(MQTTAsync handle, const char* filter,
                                                       int qos,
                                                       MQTTAsync_responseOptions* response) {
    static const auto own = pahosOwn(&MQTTAsync_subscribe, "MQTTAsync_subscribe");
    const int fault = subscribeFault.exchange(0);
    return fault != 0 ? fault : own(handle, filter, qos, response);
}

[[gnu::visibility("default")]] int
MQTTAsync_disconnect(MQTTAsync handle, const MQTTAsync_disconnectOptions* options) {
    static const auto own = pahosOwn(&MQTTAsync_disconnect, "MQTTAsync_disconnect");
    const int fault = disconnectFault.exchange(0);
    return fault != 0 ? fault : own(handle, options);
}
}

namespace ktr {
namespace {

using test::Broker;
using test::LogCapture;
using test::waitUntil;
using testing::ElementsAre;
using testing::HasSubstr;

/// Answers every attempt to connect with one code, and refuses every subscription.
class RefusingBroker {
public:
    explicit RefusingBroker(char connectCode_) : connectCode(connectCode_) {}
    ~RefusingBroker() {
        ending = true;
        thread.join();
    }
    RefusingBroker(const RefusingBroker&) = delete;
    RefusingBroker& operator=(const RefusingBroker&) = delete;

    std::string url() const { return "tcp://127.0.0.1:" + std::to_string(socket.address().port()); }

private:
    static constexpr char kConnect = 0x10;
    static constexpr char kSubscribe = '\x82';

    static bool isReadable(Poco::Net::Socket& from) {
        return from.poll(Poco::Timespan(0, 20'000), Poco::Net::Socket::SELECT_READ);
    }

    void run() {
        while (!ending)
            if (isReadable(socket))
                serve(socket.acceptConnection());
    }

    void serve(Poco::Net::StreamSocket client) {
        std::array<char, 512> packet{};
        while (!ending) {
            if (!isReadable(client))
                continue;
            // small packets of a client that waits for each answer come one by one
            if (client.receiveBytes(packet.data(), static_cast<int>(packet.size())) <= 0)
                return;
            if (packet[0] == kConnect)
                reply(client, {'\x20', 2, 0, connectCode});
            else if (packet[0] == kSubscribe)
                reply(client, {'\x90', 3, packet[2], packet[3], '\x80'});
        }
    }

    static void reply(Poco::Net::StreamSocket& client, const std::vector<char>& packet) {
        client.sendBytes(packet.data(), static_cast<int>(packet.size()));
    }

    const char connectCode;
    Poco::Net::ServerSocket socket{Poco::Net::SocketAddress("127.0.0.1", 0)};
    std::atomic<bool> ending{false};
    std::thread thread{[this] { run(); }};
};

MqttClient::Settings settingsFor(const std::string& url) {
    MqttClient::Settings settings;
    settings.url = url;
    return settings;
}

class MqttRefusal : public testing::TestWithParam<std::pair<char, std::string>> {};

TEST_P(MqttRefusal, isToldInWords) {
    const auto [code, reason] = GetParam();
    const LogCapture log;
    const RefusingBroker broker(code);
    MqttClient client(settingsFor(broker.url()));
    client.connect();
    ASSERT_TRUE(waitUntil([&] { return !log.texts(Poco::Message::PRIO_WARNING).empty(); }));
    EXPECT_EQ(log.texts(Poco::Message::PRIO_WARNING)[0], "cannot connect to the MQTT broker " +
                                                             broker.url() + ": " + reason +
                                                             "; trying on without further notice");
    EXPECT_FALSE(client.isConnected());
}

INSTANTIATE_TEST_SUITE_P(
    each, MqttRefusal,
    testing::ValuesIn(std::vector<std::pair<char, std::string>>{
        {1, "the broker does not speak MQTT 3.1.1"},
        {2, "the broker refuses the client id"},
        {3, "the broker says that it is unavailable"},
        {4, "the broker refuses the user or password"},
        {5, "the broker refuses the connection: not authorized, check user and password"}}),
    [](const auto& tested) { return "code" + std::to_string(tested.param.first); });

TEST(MqttRefusedSubscription, isToldWithItsFilter) {
    const LogCapture log;
    const RefusingBroker broker(0);
    MqttClient client(settingsFor(broker.url()));
    client.subscribe("secret/#", 1, [](const MqttClient::Message&) {});
    client.connect();
    ASSERT_TRUE(waitUntil([&] { return !log.texts(Poco::Message::PRIO_WARNING).empty(); }));
    EXPECT_THAT(log.texts(Poco::Message::PRIO_WARNING),
                ElementsAre("the MQTT broker refuses the subscription to secret/#"));
    EXPECT_TRUE(client.isConnected());
}

/// A client of a real broker that hears what it publishes to "t".
class MqttFault : public testing::Test {
protected:
    void SetUp() override {
        client.subscribe("t", 1, [this](const MqttClient::Message& message) {
            const std::lock_guard<std::mutex> lock(mutex);
            received.push_back(message.payload);
        });
    }
    // no call of the handler may outlive what it writes to
    void TearDown() override { client.disconnect(); }

    void connect() {
        client.connect();
        ASSERT_TRUE(waitUntil([this] { return client.isConnected(); }));
    }

    /// Whether `payload` comes back.
    bool hears(const std::string& payload) {
        client.publish({"t", payload, 1, false});
        return waitUntil([&] {
            const auto all = payloads();
            return std::find(all.begin(), all.end(), payload) != all.end();
        });
    }

    std::vector<std::string> payloads() const {
        const std::lock_guard<std::mutex> lock(mutex);
        return received;
    }

    const Broker broker;
    const LogCapture log;
    mutable std::mutex mutex;
    std::vector<std::string> received;
    MqttClient client{settingsFor(broker.url())};
};

TEST_F(MqttFault, sendsAMessageOnTheNextConnectionThatCameTooLateForThisOne) {
    connect();
    ASSERT_TRUE(hears("before"));
    sendFault = MQTTASYNC_DISCONNECTED;
    EXPECT_TRUE(hears("kept"));
    EXPECT_TRUE(hears("after"));
    EXPECT_THAT(payloads(), ElementsAre("before", "kept", "after"));
    EXPECT_EQ(log.count("lost, connecting again"), 1);
    EXPECT_EQ(log.count("given up"), 0);
}

TEST_F(MqttFault, givesUpAMessageThatIsRefusedAndGoesOn) {
    connect();
    ASSERT_TRUE(hears("before"));
    sendFault = MQTTASYNC_BAD_UTF8_STRING;
    client.publish({"t", "refused", 1, false});
    EXPECT_TRUE(hears("after"));
    EXPECT_THAT(payloads(), ElementsAre("before", "after"));
    EXPECT_THAT(log.texts(Poco::Message::PRIO_ERROR),
                ElementsAre(HasSubstr("MQTT topic t: given up, ")));
    EXPECT_EQ(log.count("lost"), 0);
}

TEST_F(MqttFault, subscribesOnTheNextConnectionWhatCameTooLateForThisOne) {
    subscribeFault = MQTTASYNC_DISCONNECTED;
    connect();
    ASSERT_TRUE(waitUntil([this] { return log.count("MQTT connected to") == 2; }));
    EXPECT_TRUE(hears("after"));
    EXPECT_EQ(log.count("given up"), 0);
}

TEST_F(MqttFault, givesUpASubscriptionThatIsRefusedAndGoesOn) {
    subscribeFault = MQTTASYNC_BAD_UTF8_STRING;
    connect();
    ASSERT_TRUE(waitUntil([this] { return log.count("MQTT topic t: given up, ") == 1; }));
    client.subscribe("t", 1, [](const MqttClient::Message&) {});
    EXPECT_TRUE(client.isConnected());
    EXPECT_EQ(log.count("lost"), 0);
}

TEST_F(MqttFault, endsAlsoWhereItCannotSayGoodbye) {
    connect();
    disconnectFault = MQTTASYNC_FAILURE;
    client.disconnect();
    EXPECT_FALSE(client.isConnected());
    EXPECT_EQ(log.count("MQTT connection ended without leave: "), 1);
    connect();
    EXPECT_TRUE(hears("after"));
}

TEST(MqttClientId, isRefusedInWordsWhereItIsNoText) {
    const Broker broker;
    const LogCapture log;
    auto settings = settingsFor(broker.url());
    settings.clientId = "\xff";
    MqttClient client(settings);
    client.connect();
    ASSERT_TRUE(waitUntil([&] { return log.count("cannot connect to the MQTT broker") == 1; }));
    EXPECT_FALSE(client.isConnected());
}

} // namespace
} // namespace ktr
