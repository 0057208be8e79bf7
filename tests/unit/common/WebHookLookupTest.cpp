#include "ktr/common/WebHookBasic.h"

#include "NameServer.h"

#include "support/LogCapture.h"
#include "support/WaitUntil.h"

#include <Poco/Message.h>
#include <Poco/Net/ServerSocket.h>
#include <Poco/Net/SocketAddress.h>
#include <Poco/Net/StreamSocket.h>
#include <Poco/Timespan.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <utility>

namespace ktr {
namespace {

using test::LogCapture;
using test::NameServer;
using test::waitUntil;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

WebHookBasic::Settings oneAttemptAt(const std::string& url) {
    WebHookBasic::Settings settings;
    settings.urls = {url};
    settings.attempts = 1;
    return settings;
}

constexpr const char* kAccepted = "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n";

/// A name with two addresses, of which the first is tried first. Nobody else gets their port.
class TwoAddresses {
public:
    TwoAddresses() {
        server.answer("hook.test", {"127.0.0.1", "127.0.0.2"});
        first.bind(Poco::Net::SocketAddress("127.0.0.1", 0));
        second.bind(Poco::Net::SocketAddress("127.0.0.2", first.address().port()));
    }

    std::string url() const {
        return "http://hook.test:" + std::to_string(first.address().port()) + "/";
    }

    // both refuse until they listen
    Poco::Net::ServerSocket first;
    Poco::Net::ServerSocket second;

private:
    NameServer server;
};

/// Takes connections and answers each by one text, then ends it.
class Peer {
public:
    Peer(const Poco::Net::ServerSocket& socket_, std::string answer_)
        : socket(socket_), answer(std::move(answer_)) {
        socket.listen();
        thread = std::thread([this] { run(); });
    }
    ~Peer() {
        ending = true;
        thread.join();
    }
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;

    std::atomic<int> connections{0};

private:
    void run() {
        std::array<char, 4096> request{};
        while (!ending) {
            if (!socket.poll(Poco::Timespan(0, 20'000), Poco::Net::Socket::SELECT_READ))
                continue;
            Poco::Net::StreamSocket client = socket.acceptConnection();
            ++connections;
            client.receiveBytes(request.data(), static_cast<int>(request.size()));
            client.sendBytes(answer.data(), static_cast<int>(answer.size()));
            client.close();
        }
    }

    Poco::Net::ServerSocket socket;
    const std::string answer;
    std::atomic<bool> ending{false};
    std::thread thread;
};

TEST(WebHookLookup, postsToTheNextAddressOfANameWhereTheFirstRefuses) {
    const TwoAddresses addresses;
    const LogCapture log;
    const Peer second(addresses.second, kAccepted);
    WebHookBasic hook;
    hook.configure(oneAttemptAt(addresses.url()));
    hook.report("a");
    EXPECT_TRUE(waitUntil([&] { return second.connections == 1; }));
    hook.stop();
    EXPECT_THAT(log.texts(Poco::Message::PRIO_ERROR), IsEmpty());
}

TEST(WebHookLookup, postsToOneAddressOnlyWhereTheFirstTakesIt) {
    const TwoAddresses addresses;
    const Peer first(addresses.first, kAccepted);
    const Peer second(addresses.second, kAccepted);
    WebHookBasic hook;
    hook.configure(oneAttemptAt(addresses.url()));
    hook.report("a");
    EXPECT_TRUE(waitUntil([&] { return first.connections == 1; }));
    hook.stop();
    EXPECT_EQ(second.connections, 0);
}

TEST(WebHookLookup, doesNotPostTwiceWhereTheFirstAddressBreaksOff) {
    const TwoAddresses addresses;
    const LogCapture log;
    const Peer first(addresses.first, "");
    const Peer second(addresses.second, kAccepted);
    WebHookBasic hook;
    hook.configure(oneAttemptAt(addresses.url()));
    hook.report("a");
    EXPECT_TRUE(waitUntil([&] { return !log.texts(Poco::Message::PRIO_ERROR).empty(); }));
    EXPECT_EQ(first.connections, 1);
    EXPECT_EQ(second.connections, 0);
}

TEST(WebHookLookup, failsWhereTheNameHasNoAddress) {
    const LogCapture log;
    NameServer names;
    names.answer("hook.test", {});
    WebHookBasic hook;
    hook.configure(oneAttemptAt("http://hook.test/"));
    hook.report("a");
    ASSERT_TRUE(waitUntil([&] { return !log.texts(Poco::Message::PRIO_ERROR).empty(); }));
    EXPECT_THAT(log.texts(Poco::Message::PRIO_ERROR),
                ElementsAre(HasSubstr("the name hook.test has no address")));
}

TEST(WebHookLookup, stopsInTimeWhileNoNameServerAnswers) {
    const LogCapture log;
    NameServer names;
    names.hang("hook.test");
    auto hook = std::make_unique<WebHookBasic>();
    hook->configure(oneAttemptAt("http://hook.test/"));
    hook->report("a");
    ASSERT_TRUE(waitUntil([&] { return names.isAsked(); }));
    const auto begin = std::chrono::steady_clock::now();
    hook.reset();
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(4));
    EXPECT_EQ(log.count("the look-up of hook.test was given up"), 1);
}

} // namespace
} // namespace ktr
