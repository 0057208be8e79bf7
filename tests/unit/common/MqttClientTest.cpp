#include "ktr/common/MqttClient.h"

#include "support/Broker.h"
#include "support/Certificates.h"
#include "support/LogCapture.h"
#include "support/TempDir.h"
#include "support/WaitUntil.h"

#include <Poco/Exception.h>
#include <Poco/Net/ServerSocket.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <netinet/in.h>
#include <stdexcept>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <vector>

namespace {

using ktr::MqttClient;
using ktr::test::Broker;
using ktr::test::Certificates;
using ktr::test::LogCapture;
using ktr::test::TempDir;
using ktr::test::waitUntil;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using Clock = std::chrono::steady_clock;

/// Collects messages, from any thread. Its handlers may outlive it: a broker may send until the
/// client goes.
class Mailbox {
public:
    MqttClient::Handler handler() {
        return [kept = kept](const MqttClient::Message& message) { kept->add(message); };
    }
    std::vector<MqttClient::Message> messages() const { return kept->all(); }
    std::vector<std::string> payloads() const {
        std::vector<std::string> texts;
        for (const auto& message : messages())
            texts.push_back(message.payload);
        return texts;
    }
    bool holds(const std::string& payload) const {
        const auto all = payloads();
        return std::find(all.begin(), all.end(), payload) != all.end();
    }
    std::size_t size() const { return messages().size(); }

private:
    class Kept {
    public:
        void add(const MqttClient::Message& message) {
            const std::lock_guard<std::mutex> lock(mutex);
            list.push_back(message);
        }
        std::vector<MqttClient::Message> all() const {
            const std::lock_guard<std::mutex> lock(mutex);
            return list;
        }

    private:
        mutable std::mutex mutex;
        std::vector<MqttClient::Message> list;
    };

    const std::shared_ptr<Kept> kept = std::make_shared<Kept>();
};

MqttClient::Settings settingsFor(const std::string& url) {
    MqttClient::Settings settings;
    settings.url = url;
    return settings;
}

void connectAndWait(MqttClient& client) {
    client.connect();
    ASSERT_TRUE(waitUntil([&] { return client.isConnected(); }));
}

/// Returns once the broker knows all subscriptions made so far: it treats what a client sends in
/// turn.
void settle(MqttClient& client) {
    static std::atomic<int> last{0};
    const std::string topic = "settle/" + std::to_string(++last);
    Mailbox box;
    ASSERT_TRUE(client.subscribe(topic, 0, box.handler()));
    ASSERT_TRUE(client.publish({topic, "", 0, false}));
    ASSERT_TRUE(waitUntil([&] { return box.size() > 0; }));
    client.unsubscribe(topic);
}

/// Breaks this process's connections to a port, as a dying network does.
void cutConnectionsTo(std::uint16_t port) {
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        const int fd = std::stoi(entry.path().filename());
        sockaddr_in peer{};
        socklen_t length = sizeof peer;
        if (getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &length) == 0 &&
            peer.sin_family == AF_INET && ntohs(peer.sin_port) == port)
            shutdown(fd, SHUT_RDWR);
    }
}

int threadCount() {
    // a sanitizer adds one of its own with the first thread
    static const bool started = (std::thread([] {}).join(), true);
    static_cast<void>(started);
    const std::filesystem::directory_iterator tasks("/proc/self/task");
    return static_cast<int>(std::distance(begin(tasks), end(tasks)));
}

template <class Action>
std::chrono::milliseconds durationOf(Action action) {
    const auto begin = Clock::now();
    action();
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - begin);
}

class MqttClientQos : public testing::TestWithParam<int> {};

TEST_P(MqttClientQos, deliversWhatIsPublishedUnchanged) {
    const Broker broker;
    MqttClient client(settingsFor(broker.url("mqtt")));
    Mailbox box;
    ASSERT_TRUE(client.subscribe("plant/#", GetParam(), box.handler()));
    connectAndWait(client);
    const std::string binary("a\0b\xff", 4);
    ASSERT_TRUE(client.publish({"plant/line", binary, GetParam(), false}));
    ASSERT_TRUE(waitUntil([&] { return box.size() == 1; }));
    EXPECT_EQ(box.messages()[0].topic, "plant/line");
    EXPECT_EQ(box.messages()[0].payload, binary);
    EXPECT_EQ(box.messages()[0].qos, GetParam());
    EXPECT_FALSE(box.messages()[0].retained);
}

INSTANTIATE_TEST_SUITE_P(each, MqttClientQos, testing::Values(0, 1, 2));

TEST(MqttClient, keepsTheOrderOfALongBurst) {
    const Broker broker("allow_anonymous true\nmax_queued_messages 0\n");
    MqttClient client(settingsFor(broker.url()));
    Mailbox box;
    client.subscribe("burst", 1, box.handler());
    connectAndWait(client);
    std::vector<std::string> sent;
    for (int i = 0; i < 900; ++i) {
        sent.push_back(std::to_string(i));
        ASSERT_TRUE(client.publish({"burst", sent.back(), 1, false}));
    }
    ASSERT_TRUE(waitUntil([&] { return box.size() == sent.size(); }));
    EXPECT_EQ(box.payloads(), sent);
}

TEST(MqttClient, deliversARetainedMessageToALaterSubscription) {
    const Broker broker;
    MqttClient client(settingsFor(broker.url()));
    connectAndWait(client);
    ASSERT_TRUE(client.publish({"state", "on", 1, true}));
    settle(client);
    Mailbox box;
    client.subscribe("state", 1, box.handler());
    ASSERT_TRUE(waitUntil([&] { return box.size() == 1; }));
    EXPECT_EQ(box.messages()[0].payload, "on");
    EXPECT_TRUE(box.messages()[0].retained);
}

TEST(MqttClient, hasItsLastWillPublishedWhenItsConnectionIsCut) {
    const Broker broker;
    auto settings = settingsFor(broker.url());
    settings.will = {"will", "gone", 1, true};
    MqttClient client(settings);
    Mailbox box;
    client.subscribe("will", 1, box.handler());
    connectAndWait(client);
    settle(client);
    EXPECT_EQ(box.size(), 0U);
    cutConnectionsTo(broker.port());
    EXPECT_TRUE(waitUntil([&] { return box.holds("gone"); }));
}

TEST(MqttClient, hasNoLastWillPublishedWhenItDisconnects) {
    const Broker broker;
    auto settings = settingsFor(broker.url());
    settings.will = {"will", "gone", 1, true};
    MqttClient client(settings);
    connectAndWait(client);
    client.disconnect();
    Mailbox box;
    client.subscribe("will", 1, box.handler());
    connectAndWait(client);
    settle(client);
    EXPECT_EQ(box.size(), 0U);
}

TEST(MqttClient, connectsWithUserAndPassword) {
    const TempDir folder;
    const Broker broker("allow_anonymous false\npassword_file " +
                        Broker::passwordFile(folder, "edge", "s3cret") + "\n");
    auto settings = settingsFor(broker.url());
    settings.user = "edge";
    settings.password = "s3cret";
    MqttClient client(settings);
    connectAndWait(client);
}

TEST(MqttClient, saysOnceThatItsPasswordIsRefusedAndNeverShowsIt) {
    const TempDir folder;
    const Broker broker("allow_anonymous false\npassword_file " +
                        Broker::passwordFile(folder, "edge", "s3cret") + "\n");
    auto settings = settingsFor(broker.url());
    settings.user = "edge";
    settings.password = "wr0ng";
    settings.maxReconnectSeconds = 1;
    const LogCapture log;
    MqttClient client(settings);
    client.connect();
    ASSERT_TRUE(waitUntil([&] { return log.count("cannot connect to the MQTT broker") == 1; }));
    EXPECT_EQ(log.count("check user and password"), 1);
    EXPECT_FALSE(client.isConnected());
    EXPECT_FALSE(waitUntil([&] { return log.count("cannot connect") > 1; },
                           std::chrono::milliseconds(1500)));
    EXPECT_EQ(log.count("wr0ng"), 0);
}

TEST(MqttClient, comesBackWithSubscriptionsAndKeptMessagesWhenTheBrokerDoes) {
    Broker broker;
    const LogCapture log;
    MqttClient client(settingsFor(broker.url()));
    Mailbox box;
    client.subscribe("a/+", 1, box.handler());
    connectAndWait(client);
    settle(client);
    broker.stop();
    ASSERT_TRUE(waitUntil([&] { return !client.isConnected(); }));
    ASSERT_TRUE(client.publish({"a/1", "kept-0", 0, false}));
    ASSERT_TRUE(client.publish({"a/2", "kept-1", 1, false}));
    ASSERT_TRUE(client.publish({"a/3", "kept-2", 2, false}));
    ASSERT_TRUE(waitUntil([&] { return log.count("lost") == 1; }));
    broker.start();
    ASSERT_TRUE(waitUntil([&] { return box.size() == 3; }));
    EXPECT_THAT(box.payloads(), ElementsAre("kept-0", "kept-1", "kept-2"));
    EXPECT_EQ(log.count("MQTT connected to " + broker.url()), 2);
    EXPECT_EQ(log.count("lost"), 1);
}

TEST(MqttClient, sendsAgainWhatTheBrokerHadNotConfirmedWhenItDied) {
    Broker broker;
    MqttClient client(settingsFor(broker.url()));
    Mailbox box;
    client.subscribe("a", 1, box.handler());
    connectAndWait(client);
    settle(client);
    broker.freeze();
    ASSERT_TRUE(client.publish({"a", "one", 1, false}));
    ASSERT_TRUE(client.publish({"a", "two", 2, false}));
    broker.stop();
    broker.start();
    ASSERT_TRUE(waitUntil([&] { return box.size() == 2; }));
    EXPECT_THAT(box.payloads(), ElementsAre("one", "two"));
}

TEST(MqttClient, connectsToABrokerThatStartsLater) {
    Broker broker;
    broker.stop();
    const LogCapture log;
    MqttClient client(settingsFor(broker.url()));
    EXPECT_LT(durationOf([&] { client.connect(); }), std::chrono::milliseconds(500));
    ASSERT_TRUE(client.publish({"early", "first", 1, true}));
    ASSERT_TRUE(waitUntil([&] { return log.count("cannot connect to the MQTT broker") == 1; }));
    broker.start();
    ASSERT_TRUE(waitUntil([&] { return client.isConnected(); }));
    Mailbox box;
    client.subscribe("early", 1, box.handler());
    EXPECT_TRUE(waitUntil([&] { return box.holds("first"); }));
}

TEST(MqttClient, connectsAgainAfterItWasDisconnected) {
    const Broker broker;
    MqttClient client(settingsFor(broker.url()));
    connectAndWait(client);
    client.disconnect();
    EXPECT_FALSE(client.isConnected());
    connectAndWait(client);
    settle(client);
}

TEST(MqttClient, connectsOnceThoughAskedTwice) {
    const Broker broker;
    const LogCapture log;
    MqttClient client(settingsFor(broker.url()));
    client.connect();
    connectAndWait(client);
    settle(client);
    EXPECT_EQ(log.count("MQTT connected"), 1);
    client.disconnect();
    EXPECT_FALSE(client.isConnected());
}

TEST(MqttClient, sendsWhatItKeepsBeforeItDisconnects) {
    const Broker broker;
    MqttClient client(settingsFor(broker.url()));
    connectAndWait(client);
    for (int i = 0; i < 20; ++i)
        client.publish({"last/" + std::to_string(i), "x", i % 3, true});
    client.disconnect();
    Mailbox box;
    client.subscribe("last/+", 1, box.handler());
    connectAndWait(client);
    EXPECT_TRUE(waitUntil([&] { return box.size() == 20; }));
}

TEST(MqttClient, sendsALongBurstBeforeItDisconnects) {
    const Broker broker;
    const LogCapture log;
    MqttClient client(settingsFor(broker.url()));
    connectAndWait(client);
    for (int i = 0; i < 900; ++i)
        client.publish({"burst", "x", 1, false});
    client.disconnect();
    EXPECT_EQ(log.count("not confirmed"), 0);
}

TEST(MqttClient, dropsTheOldestKeptMessagesWithAWarning) {
    Broker broker;
    broker.stop();
    auto settings = settingsFor(broker.url());
    settings.offlineMessages = 3;
    const LogCapture log;
    MqttClient client(settings);
    Mailbox box;
    client.subscribe("a", 1, box.handler());
    for (int i = 0; i < 10; ++i)
        EXPECT_TRUE(client.publish({"a", std::to_string(i), 1, false}));
    EXPECT_EQ(log.count("the oldest are dropped"), 1);
    broker.start();
    client.connect();
    ASSERT_TRUE(waitUntil([&] { return box.size() == 3; }));
    EXPECT_THAT(box.payloads(), ElementsAre("7", "8", "9"));
    EXPECT_EQ(log.count("7 MQTT messages were dropped in all"), 1);
}

TEST(MqttClient, refusesMessagesThatItMayNotKeep) {
    Broker broker;
    auto settings = settingsFor(broker.url());
    settings.offlineMessages = 0;
    MqttClient client(settings);
    EXPECT_FALSE(client.publish({"a", "", 0, false}));
    connectAndWait(client);
    EXPECT_TRUE(client.publish({"a", "", 0, false}));
}

TEST(MqttClient, isSimplyNotConnectedWithoutABroker) {
    MqttClient client;
    client.connect();
    EXPECT_FALSE(client.isConnected());
    EXPECT_FALSE(client.publish({"a", "", 0, false}));
    EXPECT_TRUE(client.subscribe("a", 0, [](const auto&) {}));
    client.unsubscribe("a");
    client.unsubscribe("unknown");
    client.disconnect();
}

TEST(MqttClient, refusesBadTopicsFiltersAndQos) {
    const Broker broker;
    const LogCapture log;
    MqttClient client(settingsFor(broker.url()));
    const auto handler = [](const MqttClient::Message&) {};
    for (const char* topic : {"", "a/+", "#", "\xff\xff", "\xc3"})
        EXPECT_FALSE(client.publish({topic, "", 0, false})) << topic;
    EXPECT_FALSE(client.publish({"a", "", 3, false}));
    EXPECT_FALSE(client.publish({"a", "", -1, false}));
    EXPECT_FALSE(client.publish({std::string(65536, 'a'), "", 0, false}));
    for (const char* filter : {"", "a+", "a/#/b", "a#", "+a/b", "##"})
        EXPECT_FALSE(client.subscribe(filter, 0, handler)) << filter;
    EXPECT_FALSE(client.subscribe("a", 3, handler));
    EXPECT_FALSE(client.subscribe("a", 0, nullptr));
    EXPECT_EQ(log.count("was refused"), 16);
    for (const char* filter : {"#", "+", "/", "+/+", "a/#", "+/a/#", "\xc3\xa4"})
        EXPECT_TRUE(client.subscribe(filter, 0, handler)) << filter;
}

TEST(MqttClient, namesWhatIsWrongWithItsUrl) {
    const auto textFor = [](const std::string& url) {
        try {
            const MqttClient client(settingsFor(url));
        } catch (const Poco::InvalidArgumentException& e) {
            return e.message();
        }
        return std::string("accepted");
    };
    EXPECT_THAT(textFor("http://h:1"), HasSubstr("\"http://h:1\": its scheme must be tcp"));
    EXPECT_THAT(textFor("tcp://:1883"), HasSubstr("it has no host"));
    EXPECT_THAT(textFor("tcp://h:70000"), HasSubstr("tcp://h:70000"));
    EXPECT_THAT(textFor("localhost"), HasSubstr("its scheme must be"));
    EXPECT_THAT(textFor("tcp://h:1/path"), HasSubstr("nothing may follow"));
    EXPECT_THAT(textFor("tcp://me:s3cret@h"), testing::Not(HasSubstr("s3cret")));
    for (const char* url : {"tcp://h", "mqtt://h:1", "ssl://h/", "mqtts://[::1]:8883"})
        EXPECT_EQ(textFor(url), "accepted");
}

TEST(MqttClient, refusesSettingsThatCannotBe) {
    const auto textFor = [](const std::function<void(MqttClient::Settings&)>& spoil) {
        auto settings = settingsFor("tcp://h");
        spoil(settings);
        try {
            const MqttClient client(settings);
        } catch (const Poco::InvalidArgumentException& e) {
            return e.message();
        }
        return std::string("accepted");
    };
    using Settings = MqttClient::Settings;
    const std::string keepAlive = "the MQTT keep-alive must be 0 to 65535 seconds";
    const std::string delays = "the MQTT reconnection delays must be at least 1 s, the maximum not "
                               "below the minimum";
    EXPECT_EQ(textFor([](Settings& s) {
                  s.will = {"a/#", "", 1, false};
              }),
              "cannot use the MQTT last will: bad topic \"a/#\" or QoS 1");
    EXPECT_EQ(textFor([](Settings& s) {
                  s.will = {"a", "", 3, false};
              }),
              "cannot use the MQTT last will: bad topic \"a\" or QoS 3");
    EXPECT_EQ(textFor([](Settings& s) { s.keepAliveSeconds = -1; }), keepAlive);
    EXPECT_EQ(textFor([](Settings& s) { s.keepAliveSeconds = 65536; }), keepAlive);
    EXPECT_EQ(textFor([](Settings& s) { s.minReconnectSeconds = 0; }), delays);
    EXPECT_EQ(textFor([](Settings& s) { s.maxReconnectSeconds = s.minReconnectSeconds - 1; }),
              delays);
    EXPECT_EQ(textFor([](Settings& s) {
                  s.will = {"a", "", 2, true};
                  s.keepAliveSeconds = 65535;
                  s.minReconnectSeconds = s.maxReconnectSeconds = 1;
              }),
              "accepted");
}

TEST(MqttClient, doesNotLetAHandlerEndOrBeginItsConnection) {
    const Broker broker;
    const LogCapture log;
    MqttClient client(settingsFor(broker.url()));
    std::atomic<int> calls{0};
    client.subscribe("a", 1, [&](const MqttClient::Message&) {
        client.disconnect();
        client.connect();
        ++calls;
    });
    connectAndWait(client);
    client.publish({"a", "", 1, false});
    client.publish({"a", "", 1, false});
    EXPECT_TRUE(waitUntil([&] { return calls == 2; }));
    EXPECT_THAT(log.texts(Poco::Message::PRIO_ERROR),
                ElementsAre("an MQTT handler must not disconnect its client",
                            "an MQTT handler must not disconnect its client"));
    EXPECT_EQ(log.count("MQTT connected"), 1);
}

TEST(MqttClient, letsAHandlerAskForAConnectionWhileItsClientDisconnects) {
    const Broker broker;
    MqttClient client(settingsFor(broker.url()));
    std::atomic<bool> entered{false};
    std::atomic<bool> left{false};
    client.subscribe("a", 1, [&](const MqttClient::Message&) {
        entered = true;
        waitUntil([&] { return !client.isConnected(); });
        client.connect();
        left = true;
    });
    connectAndWait(client);
    client.publish({"a", "", 1, false});
    ASSERT_TRUE(waitUntil([&] { return entered.load(); }));
    client.disconnect();
    EXPECT_TRUE(left);
    EXPECT_FALSE(client.isConnected());
}

TEST(MqttClient, saysThatAMessageIsRefusedForWantOfABrokerOnlyToWhomItHelps) {
    const LogCapture log;
    MqttClient client;
    EXPECT_FALSE(client.publish({"a", "", 0, false}));
    EXPECT_THAT(log.texts(Poco::Message::PRIO_DEBUG),
                ElementsAre("an MQTT message was refused: no broker is configured"));
    EXPECT_EQ(log.messages().size(), 1U);
}

TEST(MqttClient, callsTheHandlersOfMatchingFiltersOnly) {
    const Broker broker;
    MqttClient client(settingsFor(broker.url()));
    std::mutex mutex;
    std::vector<std::string> calls;
    const std::vector<std::string> filters{"#", "a/#", "a/b/#", "a/+", "+/b", "a/b", "+/+/+", "/b"};
    for (const auto& filter : filters)
        client.subscribe(filter, 1, [&, filter](const MqttClient::Message&) {
            const std::lock_guard<std::mutex> lock(mutex);
            calls.push_back(filter);
        });
    connectAndWait(client);
    ASSERT_TRUE(client.publish({"a/b", "", 1, false}));
    const std::vector<std::string> expected{"#", "+/b", "a/#", "a/+", "a/b", "a/b/#"};
    const auto sorted = [&] {
        const std::lock_guard<std::mutex> lock(mutex);
        auto once = calls;
        std::sort(once.begin(), once.end());
        // the broker may send one message for each filter that it matches
        once.erase(std::unique(once.begin(), once.end()), once.end());
        return once;
    };
    EXPECT_TRUE(waitUntil([&] { return sorted() == expected; }));
    settle(client);
    EXPECT_EQ(sorted(), expected);
}

TEST(MqttClient, hidesDollarTopicsFromLeadingWildcards) {
    const Broker broker("allow_anonymous true\nsys_interval 1\n");
    MqttClient client(settingsFor(broker.url()));
    Mailbox all;
    Mailbox system;
    client.subscribe("#", 0, all.handler());
    client.subscribe("+/broker/version", 0, all.handler());
    client.subscribe("$SYS/broker/#", 0, system.handler());
    connectAndWait(client);
    ASSERT_TRUE(waitUntil([&] { return system.size() > 0; }));
    for (const auto& message : all.messages())
        EXPECT_NE(message.topic[0], '$');
}

TEST(MqttClient, endsASubscription) {
    const Broker broker;
    MqttClient client(settingsFor(broker.url()));
    Mailbox box;
    Mailbox other;
    client.subscribe("a", 1, box.handler());
    client.subscribe("b", 1, other.handler());
    connectAndWait(client);
    settle(client);
    client.unsubscribe("a");
    client.publish({"a", "unheard", 1, false});
    client.publish({"b", "heard", 1, false});
    ASSERT_TRUE(waitUntil([&] { return other.size() == 1; }));
    EXPECT_EQ(box.size(), 0U);
}

TEST(MqttClient, replacesTheHandlerOfAFilter) {
    const Broker broker;
    MqttClient client(settingsFor(broker.url()));
    Mailbox former;
    Mailbox box;
    client.subscribe("a", 1, former.handler());
    client.subscribe("a", 0, box.handler());
    connectAndWait(client);
    client.publish({"a", "x", 1, false});
    ASSERT_TRUE(waitUntil([&] { return box.size() == 1; }));
    EXPECT_EQ(box.messages()[0].qos, 0);
    EXPECT_EQ(former.size(), 0U);
}

/// Has `end` called while a handler is running; whether it returned only after the handler.
void expectToWaitForAHandler(const std::function<void(MqttClient&)>& end) {
    const Broker broker;
    MqttClient client(settingsFor(broker.url()));
    std::atomic<bool> entered{false};
    std::atomic<bool> mayLeave{false};
    std::atomic<bool> left{false};
    client.subscribe("a", 1, [&](const MqttClient::Message&) {
        entered = true;
        waitUntil([&] { return mayLeave.load(); });
        left = true;
    });
    connectAndWait(client);
    client.publish({"a", "", 1, false});
    ASSERT_TRUE(waitUntil([&] { return entered.load(); }));
    std::atomic<bool> leftAtReturn{false};
    std::atomic<bool> returned{false};
    std::thread caller([&] {
        end(client);
        leftAtReturn = left.load();
        returned = true;
    });
    EXPECT_FALSE(waitUntil([&] { return returned.load(); }, std::chrono::milliseconds(200)));
    mayLeave = true;
    caller.join();
    EXPECT_TRUE(leftAtReturn);
}

TEST(MqttClient, unsubscribeWaitsForARunningHandler) {
    expectToWaitForAHandler([](MqttClient& client) { client.unsubscribe("a"); });
}

TEST(MqttClient, disconnectWaitsForARunningHandler) {
    expectToWaitForAHandler([](MqttClient& client) { client.disconnect(); });
}

TEST(MqttClient, letsAHandlerPublishSubscribeAndUnsubscribe) {
    const Broker broker;
    MqttClient client(settingsFor(broker.url()));
    Mailbox answers;
    std::atomic<int> calls{0};
    client.subscribe("ask", 1, [&](const MqttClient::Message& message) {
        ++calls;
        client.subscribe("answer", 1, answers.handler());
        client.unsubscribe("ask");
        client.publish({"answer", message.payload, 1, false});
    });
    connectAndWait(client);
    client.publish({"ask", "42", 1, false});
    EXPECT_TRUE(waitUntil([&] { return answers.holds("42"); }));
    client.publish({"ask", "43", 1, false});
    settle(client);
    EXPECT_EQ(calls, 1);
}

TEST(MqttClient, logsWhatAHandlerThrowsAndGoesOn) {
    const Broker broker;
    const LogCapture log;
    MqttClient client(settingsFor(broker.url()));
    client.subscribe("a", 1, [](const MqttClient::Message& message) {
        if (message.payload == "poco")
            throw Poco::DataException("bad data");
        if (message.payload == "std")
            throw std::runtime_error("broken");
        throw 42;
    });
    connectAndWait(client);
    for (const char* payload : {"poco", "std", "other"})
        client.publish({"a", payload, 1, false});
    EXPECT_TRUE(waitUntil([&] { return log.texts(Poco::Message::PRIO_ERROR).size() == 3; }));
    EXPECT_THAT(log.texts(Poco::Message::PRIO_ERROR),
                ElementsAre(AllOf(HasSubstr("topic: a, "), HasSubstr("bad data")),
                            HasSubstr("topic: a, broken"), HasSubstr("of unknown type")));
}

TEST(MqttClient, staysConnectedWhileAHandlerIsSlow) {
    const Broker broker;
    const LogCapture log;
    auto settings = settingsFor(broker.url());
    settings.keepAliveSeconds = 1;
    MqttClient client(settings);
    std::atomic<bool> entered{false};
    std::atomic<bool> mayLeave{false};
    client.subscribe("a", 1, [&](const MqttClient::Message&) {
        entered = true;
        waitUntil([&] { return mayLeave.load(); });
    });
    connectAndWait(client);
    client.publish({"a", "", 1, false});
    ASSERT_TRUE(waitUntil([&] { return entered.load(); }));
    // longer than the broker waits for a sign of life
    EXPECT_FALSE(waitUntil([&] { return log.count("lost") > 0; }, std::chrono::seconds(3)));
    EXPECT_TRUE(client.isConnected());
    mayLeave = true;
}

TEST(MqttClient, connectsOverTlsToABrokerOfItsAuthority) {
    const Certificates certificates;
    const Broker broker("allow_anonymous true\ncafile " + certificates.caFile() + "\ncertfile " +
                        certificates.certificateFile() + "\nkeyfile " + certificates.keyFile() +
                        "\nrequire_certificate true\n");
    auto settings = settingsFor(broker.url("mqtts"));
    settings.caFile = certificates.caFile();
    settings.certificateFile = certificates.clientCertificateFile();
    settings.keyFile = certificates.clientKeyFile();
    MqttClient client(settings);
    connectAndWait(client);
    settle(client);
}

/// Whether a client of `settings` is refused, with a word on TLS.
void expectTlsRefusal(const MqttClient::Settings& settings) {
    const LogCapture log;
    MqttClient client(settings);
    client.connect();
    EXPECT_TRUE(waitUntil([&] { return log.count("TLS handshake failed") == 1; }));
    EXPECT_FALSE(client.isConnected());
    EXPECT_EQ(log.count("MQTT connected"), 0);
}

TEST(MqttClient, refusesABrokerOfAnotherAuthority) {
    const Certificates certificates;
    const Certificates others;
    const Broker broker("allow_anonymous true\ncertfile " + certificates.certificateFile() +
                        "\nkeyfile " + certificates.keyFile() + "\n");
    auto settings = settingsFor(broker.url("ssl"));
    settings.caFile = others.caFile();
    expectTlsRefusal(settings);
    settings.caFile.clear(); // the system's authorities
    expectTlsRefusal(settings);
}

TEST(MqttClient, refusesABrokerWhoseCertificateHasAnotherName) {
    const Certificates certificates("DNS:elsewhere.example,IP:127.0.0.2");
    const Broker broker("allow_anonymous true\ncertfile " + certificates.certificateFile() +
                        "\nkeyfile " + certificates.keyFile() + "\n");
    auto settings = settingsFor(broker.url("ssl"));
    settings.caFile = certificates.caFile();
    expectTlsRefusal(settings);
    settings.url = "ssl://localhost:" + std::to_string(broker.port());
    expectTlsRefusal(settings);
}

TEST(MqttClient, connectsByNameOverTls) {
    const Certificates certificates;
    const Broker broker("allow_anonymous true\ncertfile " + certificates.certificateFile() +
                        "\nkeyfile " + certificates.keyFile() + "\n");
    auto settings = settingsFor("ssl://localhost:" + std::to_string(broker.port()));
    settings.caFile = certificates.caFile();
    MqttClient client(settings);
    connectAndWait(client);
}

TEST(MqttClient, endsSoonWhileTheBrokerIsUnreachable) {
    Broker broker;
    broker.stop();
    const LogCapture log;
    auto client = std::make_unique<MqttClient>(settingsFor(broker.url()));
    client->connect();
    client->publish({"a", "", 1, false});
    ASSERT_TRUE(waitUntil([&] { return log.count("cannot connect") == 1; }));
    EXPECT_LT(durationOf([&] { client.reset(); }), std::chrono::milliseconds(1000));
}

TEST(MqttClient, endsSoonWhileThePeerSaysNothing) {
    const Poco::Net::ServerSocket silent(Poco::Net::SocketAddress("127.0.0.1", 0));
    for (const char* scheme : {"tcp", "ssl"}) {
        auto client = std::make_unique<MqttClient>(settingsFor(
            std::string(scheme) + "://127.0.0.1:" + std::to_string(silent.address().port())));
        client->connect();
        ASSERT_TRUE(silent.poll(Poco::Timespan(10, 0), Poco::Net::Socket::SELECT_READ));
        EXPECT_LT(durationOf([&] { client.reset(); }), std::chrono::milliseconds(2500));
    }
}

TEST(MqttClient, endsSoonWhileTheBrokerHangs) {
    Broker broker;
    const LogCapture log;
    auto client = std::make_unique<MqttClient>(settingsFor(broker.url()));
    connectAndWait(*client);
    broker.freeze();
    client->publish({"a", "unconfirmed", 1, false});
    EXPECT_LT(durationOf([&] { client.reset(); }), std::chrono::milliseconds(4000));
    EXPECT_EQ(log.count("1 MQTT messages are not confirmed"), 1);
}

TEST(MqttClient, leavesNoThreadBehindButPahosOwn) {
    const Broker broker;
    const auto useOne = [&] {
        MqttClient client(settingsFor(broker.url()));
        connectAndWait(client);
        settle(client);
    };
    const int before = threadCount();
    useOne();
    // Paho's two stay with its library
    EXPECT_TRUE(waitUntil([&] { return threadCount() <= before + 2; }));
    useOne();
    EXPECT_TRUE(waitUntil([&] { return threadCount() <= before + 2; }));
}

} // namespace
