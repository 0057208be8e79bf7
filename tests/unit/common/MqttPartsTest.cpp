#include "common/MqttInbox.h"
#include "common/MqttOutbox.h"

#include "support/LogCapture.h"
#include "support/WaitUntil.h"

#include <Poco/Message.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <vector>

namespace ktr {
namespace {

using test::LogCapture;
using test::waitUntil;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::size_t kRoomy = 100;

MqttClient::Message message(const std::string& payload, int qos = 1) {
    return {"t", payload, qos, false};
}

/// Everything that `outbox` has to send, in its order.
std::vector<std::string> sendAll(MqttOutbox& outbox) {
    std::vector<std::string> payloads;
    while (outbox.canSend())
        payloads.push_back(outbox.next().second.payload);
    return payloads;
}

TEST(MqttOutbox, sendsAMessageThatWasPutBackBeforeAllOthers) {
    MqttOutbox outbox;
    for (const char* payload : {"one", "two"})
        outbox.put(message(payload), kRoomy);
    const auto id = outbox.next().first;
    outbox.putBack(id);
    EXPECT_EQ(outbox.size(), 2U);
    EXPECT_THAT(sendAll(outbox), ElementsAre("one", "two"));
}

TEST(MqttOutbox, putsNothingBackThatIsNotOnItsWay) {
    MqttOutbox outbox;
    outbox.put(message("one"), kRoomy);
    const auto id = outbox.next().first;
    outbox.done(id);
    outbox.putBack(id);
    EXPECT_TRUE(outbox.isIdle());
}

TEST(MqttOutbox, recoversWhatIsUnconfirmedButNotQosZero) {
    MqttOutbox outbox;
    outbox.put(message("one", 1), kRoomy);
    outbox.put(message("fleeting", 0), kRoomy);
    outbox.put(message("two", 2), kRoomy);
    sendAll(outbox);
    outbox.put(message("three"), kRoomy);
    EXPECT_EQ(outbox.recover(2), 1U); // the oldest goes
    EXPECT_THAT(sendAll(outbox), ElementsAre("two", "three"));
}

TEST(MqttOutbox, hasNoMoreOnTheWayThanItsLimit) {
    MqttOutbox outbox;
    for (std::size_t i = 0; i <= MqttOutbox::maxOnTheWay; ++i)
        outbox.put(message("x"), MqttOutbox::maxOnTheWay + 1);
    EXPECT_EQ(sendAll(outbox).size(), MqttOutbox::maxOnTheWay);
    EXPECT_EQ(outbox.size(), MqttOutbox::maxOnTheWay + 1);
}

/// Keeps an inbox at work while it is closed.
class HeldInbox {
public:
    HeldInbox() {
        inbox.set("t", [this](const MqttClient::Message&) {
            ++calls;
            waitUntil([this] { return released.load(); });
        });
        inbox.start();
        inbox.put(message("first"));
        waitUntil([this] { return calls == 1; });
    }

    std::atomic<int> calls{0};
    std::atomic<bool> released{false};
    MqttInbox inbox;
};

TEST(MqttInbox, saysHowManyMessagesItDropsWhenItCloses) {
    const LogCapture log;
    HeldInbox held;
    held.inbox.put(message("second"));
    held.inbox.put(message("third"));
    held.inbox.close();
    EXPECT_THAT(log.texts(Poco::Message::PRIO_WARNING),
                ElementsAre("2 MQTT messages that came in were dropped, because the client ends "
                            "before their handlers were called"));
    held.released = true;
    held.inbox.finish();
    EXPECT_EQ(held.calls, 1);
}

TEST(MqttInbox, closesInSilenceWhenNothingWaits) {
    const LogCapture log;
    HeldInbox held;
    held.inbox.close();
    held.released = true;
    held.inbox.finish();
    EXPECT_THAT(log.messages(), IsEmpty());
}

TEST(MqttInbox, takesNothingOnceClosedAndOpensAgain) {
    std::vector<std::string> payloads;
    std::atomic<std::size_t> calls{0};
    MqttInbox inbox;
    inbox.set("t", [&](const MqttClient::Message& taken) {
        payloads.push_back(taken.payload);
        ++calls;
    });
    inbox.put(message("too early"));
    inbox.start();
    inbox.put(message("in time"));
    EXPECT_TRUE(waitUntil([&] { return calls == 1; }));
    inbox.finish();
    inbox.put(message("too late"));
    inbox.start();
    inbox.put(message("in time again"));
    EXPECT_TRUE(waitUntil([&] { return calls == 2; }));
    inbox.finish();
    EXPECT_THAT(payloads, ElementsAre("in time", "in time again"));
}

TEST(MqttInbox, skipsAHandlerThatAnEarlierOneOfTheMessageRemoved) {
    std::atomic<int> first{0};
    std::atomic<int> second{0};
    MqttInbox inbox;
    // called in the order of the filters
    inbox.set("+", [&](const MqttClient::Message&) {
        inbox.erase("t");
        ++first;
    });
    inbox.set("t", [&](const MqttClient::Message&) { ++second; });
    inbox.start();
    inbox.put(message("one"));
    inbox.put(message("two"));
    EXPECT_TRUE(waitUntil([&] { return first == 2; }));
    inbox.finish();
    EXPECT_EQ(second, 0);
}

TEST(MqttInbox, hasAHandlersThreadWaitForNoHandler) {
    std::atomic<bool> returned{false};
    MqttInbox inbox;
    inbox.set("t", [&](const MqttClient::Message&) {
        inbox.waitForHandler("t");
        returned = true;
    });
    inbox.start();
    inbox.put(message("one"));
    EXPECT_TRUE(waitUntil([&] { return returned.load(); }));
}

} // namespace
} // namespace ktr
