#include "ktr/common/WebHookBasic.h"

#include "support/Certificates.h"
#include "support/FreePort.h"
#include "support/HttpPeer.h"
#include "support/LogCapture.h"
#include "support/WaitUntil.h"

#include <Poco/DateTimeFormat.h>
#include <Poco/DateTimeParser.h>
#include <Poco/Exception.h>
#include <Poco/JSON/Parser.h>
#include <Poco/Net/ServerSocket.h>
#include <Poco/Timestamp.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

using ktr::WebHookBasic;
using ktr::test::Certificates;
using ktr::test::freePort;
using ktr::test::HttpPeer;
using ktr::test::LogCapture;
using ktr::test::waitUntil;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using Clock = std::chrono::steady_clock;
using Poco::Timespan;

constexpr Poco::Timespan::TimeDiff kMillisecond = 1000;

WebHookBasic::Settings settingsFor(std::vector<std::string> urls) {
    WebHookBasic::Settings settings;
    settings.urls = std::move(urls);
    settings.firstDelay = Timespan(5 * kMillisecond);
    settings.maxDelay = Timespan(20 * kMillisecond);
    return settings;
}

int threadCount() {
    // a sanitizer adds one of its own with the first thread
    static const bool started = (std::thread([] {}).join(), true);
    static_cast<void>(started);
    const std::filesystem::directory_iterator tasks("/proc/self/task");
    return static_cast<int>(std::distance(begin(tasks), end(tasks)));
}

std::string eventOf(const HttpPeer::Post& post) {
    return Poco::JSON::Parser()
        .parse(post.body)
        .extract<Poco::JSON::Object::Ptr>()
        ->getValue<std::string>("event");
}

std::vector<std::string> events(const HttpPeer& peer) {
    std::vector<std::string> names;
    for (const auto& post : peer.posts())
        names.push_back(eventOf(post));
    return names;
}

template <class Action>
std::chrono::milliseconds durationOf(Action action) {
    const auto begin = Clock::now();
    action();
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - begin);
}

/// A port that takes connections and never says a word.
class SilentPeer {
public:
    std::string url(const std::string& scheme = "http") const {
        return scheme + "://127.0.0.1:" + std::to_string(socket.address().port()) + "/silent";
    }
    bool waitForConnection() {
        return socket.poll(Timespan(10, 0), Poco::Net::Socket::SELECT_READ);
    }

private:
    Poco::Net::ServerSocket socket{Poco::Net::SocketAddress("127.0.0.1", 0)};
};

TEST(WebHookBasic, postsThatTheServerHasStarted) {
    const HttpPeer peer;
    WebHookBasic hook;
    hook.configure(settingsFor({peer.url("/hook/a%2Fb?token=1&x=%20")}));
    const Poco::Timestamp before;
    hook.reportServerStarted();
    ASSERT_TRUE(waitUntil([&] { return peer.count() == 1; }));
    const HttpPeer::Post post = peer.posts()[0];
    EXPECT_EQ(post.method, "POST");
    EXPECT_EQ(post.uri, "/hook/a%2Fb?token=1&x=%20");
    EXPECT_EQ("http://" + post.host + "/", peer.url());
    EXPECT_EQ(post.contentType, "application/json");
    EXPECT_EQ(post.contentLength, static_cast<std::streamsize>(post.body.size()));
    EXPECT_EQ(post.authorization, "");

    const auto body = Poco::JSON::Parser().parse(post.body).extract<Poco::JSON::Object::Ptr>();
    EXPECT_THAT(body->getNames(), ElementsAre("event", "time"));
    EXPECT_EQ(body->getValue<std::string>("event"), "serverStarted");
    const auto time = body->getValue<std::string>("time");
    EXPECT_THAT(time, testing::MatchesRegex("....-..-..T..:..:..Z"));
    int zone = -1;
    const auto parsed =
        Poco::DateTimeParser::parse(Poco::DateTimeFormat::ISO8601_FORMAT, time, zone).timestamp();
    EXPECT_EQ(zone, 0);
    EXPECT_LE(std::abs(parsed - before), 2 * Poco::Timestamp::resolution());
}

TEST(WebHookBasic, addsTheDetailsOfAReport) {
    const HttpPeer peer;
    WebHookBasic hook;
    hook.configure(settingsFor({peer.url()}));
    Poco::JSON::Object details;
    details.set("text", "a \"quoted\"\n\xc3\xa4");
    details.set("count", 3);
    details.set("event", "not this one");
    hook.report("alarm", details);
    ASSERT_TRUE(waitUntil([&] { return peer.count() == 1; }));
    const auto body =
        Poco::JSON::Parser().parse(peer.posts()[0].body).extract<Poco::JSON::Object::Ptr>();
    EXPECT_EQ(body->getValue<std::string>("event"), "alarm");
    EXPECT_EQ(body->getValue<std::string>("text"), "a \"quoted\"\n\xc3\xa4");
    EXPECT_EQ(body->getValue<int>("count"), 3);
    EXPECT_TRUE(body->has("time"));
}

TEST(WebHookBasic, sendsUserAndPasswordOfTheUrlAndKeepsThemOutOfTheLog) {
    const HttpPeer peer(HttpPeer::status(403));
    const LogCapture log;
    WebHookBasic hook;
    std::string url = peer.url("/p?token=abc");
    hook.configure(settingsFor({url.insert(url.find("127"), "me:s3cret@")}));
    hook.reportServerStarted();
    ASSERT_TRUE(waitUntil([&] { return log.count(peer.url("/p")) == 1; }));
    EXPECT_EQ(peer.posts()[0].authorization, "Basic bWU6czNjcmV0");
    EXPECT_EQ(log.count("s3cret") + log.count("token"), 0);
}

TEST(WebHookBasic, doesNothingWithoutAUrl) {
    const LogCapture log;
    const int before = threadCount();
    WebHookBasic hook;
    hook.reportServerStarted();
    hook.report("more");
    EXPECT_EQ(threadCount(), before);
    hook.stop();
    hook.report("late");
    EXPECT_TRUE(log.messages().empty());
}

TEST(WebHookBasic, postsEachReportToEveryUrlInOrder) {
    const HttpPeer one;
    const HttpPeer two;
    WebHookBasic hook;
    hook.configure(settingsFor({one.url(), two.url()}));
    for (const char* event : {"a", "b", "c"})
        hook.report(event);
    ASSERT_TRUE(waitUntil([&] { return one.count() == 3 && two.count() == 3; }));
    EXPECT_THAT(events(one), ElementsAre("a", "b", "c"));
    EXPECT_THAT(events(two), ElementsAre("a", "b", "c"));
}

class WebHookPassingStatus : public testing::TestWithParam<int> {};

TEST_P(WebHookPassingStatus, isTriedAgainUntilThePeerTakesIt) {
    std::atomic<int> calls{0};
    const HttpPeer peer([&](const auto&, Poco::Net::HTTPServerResponse& response) {
        if (++calls < 3)
            response.setStatus(std::to_string(GetParam()));
    });
    const LogCapture log;
    {
        WebHookBasic hook;
        hook.configure(settingsFor({peer.url()}));
        hook.report("a");
        hook.report("b");
        ASSERT_TRUE(waitUntil([&] { return peer.count() == 4; }));
    }
    EXPECT_THAT(events(peer), ElementsAre("a", "a", "a", "b"));
    EXPECT_EQ(log.texts(Poco::Message::PRIO_WARNING).size(), 1U);
    EXPECT_TRUE(log.texts(Poco::Message::PRIO_ERROR).empty());
}

INSTANTIATE_TEST_SUITE_P(each, WebHookPassingStatus, testing::Values(500, 503, 408, 429, 302));

TEST(WebHookBasic, givesUpAfterItsAttemptsWithAnError) {
    const HttpPeer peer(HttpPeer::status(500));
    const LogCapture log;
    WebHookBasic hook;
    auto settings = settingsFor({peer.url()});
    settings.attempts = 3;
    hook.configure(settings);
    const auto begin = Clock::now();
    hook.report("a");
    ASSERT_TRUE(waitUntil([&] { return log.count("given up after 3 attempts") == 1; }));
    EXPECT_EQ(peer.count(), 3U);
    // 5 and 10 ms between them
    EXPECT_GE(Clock::now() - begin, std::chrono::milliseconds(15));
    EXPECT_THAT(log.texts(Poco::Message::PRIO_ERROR), ElementsAre(HasSubstr("HTTP status 500")));
}

TEST(WebHookBasic, givesUpAtOnceWhatThePeerRefuses) {
    const HttpPeer peer(HttpPeer::status(404));
    const LogCapture log;
    WebHookBasic hook;
    hook.configure(settingsFor({peer.url()}));
    hook.report("a");
    hook.report("b");
    ASSERT_TRUE(waitUntil([&] { return log.texts(Poco::Message::PRIO_ERROR).size() == 2; }));
    EXPECT_THAT(events(peer), ElementsAre("a", "b"));
    EXPECT_EQ(log.count("HTTP status 404 Not Found; given up"), 2);
}

TEST(WebHookBasic, doesNotFollowARedirect) {
    const HttpPeer target;
    const HttpPeer peer([&](const auto&, Poco::Net::HTTPServerResponse& response) {
        response.setStatus("307");
        response.set("Location", target.url("/new?secret=1"));
    });
    const LogCapture log;
    WebHookBasic hook;
    auto settings = settingsFor({peer.url()});
    settings.attempts = 1;
    hook.configure(settings);
    hook.report("a");
    ASSERT_TRUE(waitUntil([&] { return log.count("moved to " + target.url("/new") + " (") == 1; }));
    EXPECT_EQ(target.count(), 0U);
}

TEST(WebHookBasic, deliversToTheOthersWhileOneUrlFails) {
    const HttpPeer good;
    const LogCapture log;
    WebHookBasic hook;
    auto settings =
        settingsFor({"http://127.0.0.1:" + std::to_string(freePort()) + "/", good.url()});
    settings.firstDelay = settings.maxDelay = Timespan(60, 0);
    hook.configure(settings);
    for (const char* event : {"a", "b", "c"})
        hook.report(event);
    EXPECT_TRUE(waitUntil([&] { return good.count() == 3; }));
    EXPECT_EQ(log.count("trying again"), 1);
    hook.stop(Timespan(0, 0));
    EXPECT_EQ(log.count("3 web hook reports to"), 1);
}

TEST(WebHookBasic, triesAgainWhenThePeerSaysNothingInTime) {
    SilentPeer silent;
    const LogCapture log;
    WebHookBasic hook;
    auto settings = settingsFor({silent.url(), silent.url("https")});
    settings.timeout = Timespan(50 * kMillisecond);
    settings.attempts = 2;
    hook.configure(settings);
    hook.report("a");
    EXPECT_TRUE(waitUntil([&] { return log.count("given up after 2 attempts") == 2; }));
}

TEST(WebHookBasic, dropsNewReportsWhenTooManyWait) {
    const HttpPeer good;
    SilentPeer silent;
    const LogCapture log;
    WebHookBasic hook;
    auto settings = settingsFor({silent.url()});
    settings.queueCapacity = 2;
    settings.timeout = Timespan(60, 0);
    hook.configure(settings);
    hook.report("first");
    ASSERT_TRUE(silent.waitForConnection());
    hook.report("a");
    hook.report("b");
    EXPECT_EQ(log.texts(Poco::Message::PRIO_ERROR).size(), 0U);
    hook.report("c");
    EXPECT_THAT(log.texts(Poco::Message::PRIO_ERROR),
                ElementsAre(AllOf(HasSubstr("report c dropped"), HasSubstr(silent.url()))));
    hook.stop(Timespan(0, 0));
}

TEST(WebHookBasic, usesNewSettingsForLaterReportsOnly) {
    const HttpPeer former;
    const HttpPeer later;
    WebHookBasic hook;
    hook.configure(settingsFor({former.url()}));
    hook.report("a");
    hook.configure(settingsFor({later.url()}));
    hook.report("b");
    ASSERT_TRUE(waitUntil([&] { return former.count() == 1 && later.count() == 1; }));
    EXPECT_THAT(events(former), ElementsAre("a"));
    EXPECT_THAT(events(later), ElementsAre("b"));
}

TEST(WebHookBasic, refusesBadSettingsAndKeepsTheOldOnes) {
    const HttpPeer peer;
    WebHookBasic hook;
    hook.configure(settingsFor({peer.url()}));
    const auto textFor = [&](const std::string& url) {
        try {
            hook.configure(settingsFor({url}));
        } catch (const Poco::InvalidArgumentException& e) {
            return e.message();
        }
        return std::string("accepted");
    };
    EXPECT_THAT(textFor("ftp://h/x"), HasSubstr("\"ftp://h/x\": its scheme must be http"));
    EXPECT_THAT(textFor("nonsense"), HasSubstr("\"nonsense\""));
    EXPECT_THAT(textFor(""), HasSubstr("its scheme"));
    EXPECT_THAT(textFor("http://h:99999/"), HasSubstr("http://h:99999/"));
    EXPECT_THAT(textFor("http:///x"), HasSubstr("no host"));
    EXPECT_THAT(textFor("http://h/a\r\nb"), HasSubstr("percent-encoded"));
    EXPECT_THAT(textFor("ftp://me:s3cret@h/"), AllOf(HasSubstr("@h/"), Not(HasSubstr("s3cret"))));
    auto settings = settingsFor({"http://h/"});
    settings.timeout = Timespan(0, 0);
    EXPECT_THROW(hook.configure(settings), Poco::InvalidArgumentException);
    settings = settingsFor({"http://h/"});
    settings.firstDelay = Timespan(-1);
    EXPECT_THROW(hook.configure(settings), Poco::InvalidArgumentException);
    settings.firstDelay = settings.maxDelay + Timespan(1);
    EXPECT_THROW(hook.configure(settings), Poco::InvalidArgumentException);
    settings = settingsFor({"https://h/"});
    settings.caFile = "/nonexistent/ca.pem";
    EXPECT_THROW(hook.configure(settings), Poco::InvalidArgumentException);
    hook.report("a");
    EXPECT_TRUE(waitUntil([&] { return peer.count() == 1; }));
}

TEST(WebHookBasic, postsOverHttpsToAPeerOfItsAuthority) {
    const Certificates certificates;
    const HttpPeer peer(certificates.certificateFile(), certificates.keyFile());
    WebHookBasic hook;
    auto settings = settingsFor({peer.url("/ip"), peer.url("/name", "localhost")});
    settings.caFile = certificates.caFile();
    hook.configure(settings);
    hook.reportServerStarted();
    EXPECT_TRUE(waitUntil([&] { return peer.count() == 2; }));
}

/// Whether all posts to `peer` with `caFile` fail before anything is sent.
void expectTlsRefusal(const HttpPeer& peer, const std::string& host, const std::string& caFile) {
    const LogCapture log;
    WebHookBasic hook;
    auto settings = settingsFor({peer.url("/", host)});
    settings.caFile = caFile;
    settings.attempts = 1;
    hook.configure(settings);
    hook.reportServerStarted();
    EXPECT_TRUE(waitUntil([&] { return log.count("given up") == 1; }));
    EXPECT_EQ(log.count("ertificate"), 1);
    EXPECT_EQ(peer.count(), 0U);
}

TEST(WebHookBasic, refusesAnHttpsPeerOfAnotherAuthority) {
    const Certificates certificates;
    const Certificates others;
    const HttpPeer peer(certificates.certificateFile(), certificates.keyFile());
    expectTlsRefusal(peer, "127.0.0.1", others.caFile());
    expectTlsRefusal(peer, "127.0.0.1", ""); // the system's authorities
}

TEST(WebHookBasic, refusesAnHttpsPeerOfAnotherName) {
    const Certificates certificates("DNS:elsewhere.example,IP:127.0.0.2");
    const HttpPeer peer(certificates.certificateFile(), certificates.keyFile());
    expectTlsRefusal(peer, "127.0.0.1", certificates.caFile());
    expectTlsRefusal(peer, "localhost", certificates.caFile());
}

TEST(WebHookBasic, givesWaitingReportsOneLastAttemptWhenItStops) {
    std::atomic<bool> up{false};
    const HttpPeer peer([&](const auto&, Poco::Net::HTTPServerResponse& response) {
        if (!up)
            response.setStatus("500");
    });
    WebHookBasic hook;
    auto settings = settingsFor({peer.url()});
    settings.firstDelay = settings.maxDelay = Timespan(60, 0);
    hook.configure(settings);
    const LogCapture log;
    hook.report("a");
    hook.report("b");
    ASSERT_TRUE(waitUntil([&] { return log.count("trying again") == 1; }));
    up = true;
    hook.stop();
    EXPECT_THAT(events(peer), ElementsAre("a", "a", "b"));
    EXPECT_EQ(log.count("dropped"), 0);
}

TEST(WebHookBasic, dropsReportsAfterItsStopWithAWarning) {
    const HttpPeer peer;
    const LogCapture log;
    WebHookBasic hook;
    hook.configure(settingsFor({peer.url()}));
    hook.stop();
    hook.stop();
    hook.report("late");
    EXPECT_THAT(log.texts(Poco::Message::PRIO_WARNING), ElementsAre(HasSubstr("report late")));
    EXPECT_EQ(peer.count(), 0U);
}

TEST(WebHookBasic, stopsInTimeWhileAPeerSaysNothing) {
    for (const char* scheme : {"http", "https"}) {
        SilentPeer silent;
        const LogCapture log;
        const int before = threadCount();
        WebHookBasic hook;
        auto settings = settingsFor({silent.url(scheme)});
        settings.timeout = Timespan(60, 0);
        hook.configure(settings);
        hook.report("a");
        ASSERT_TRUE(silent.waitForConnection());
        const auto duration = durationOf([&] { hook.stop(Timespan(100 * kMillisecond)); });
        EXPECT_GE(duration, std::chrono::milliseconds(100)) << scheme;
        EXPECT_LT(duration, std::chrono::milliseconds(1000)) << scheme;
        EXPECT_EQ(log.count("dropped"), 1) << scheme;
        EXPECT_TRUE(waitUntil([&] { return threadCount() == before; }));
    }
}

TEST(WebHookBasic, hasOneDefaultForTheProcess) {
    const auto hook = WebHookBasic::defaultWebHook();
    ASSERT_NE(hook, nullptr);
    EXPECT_EQ(hook, WebHookBasic::defaultWebHook());
    hook->reportServerStarted();
}

TEST(WebHookBasicDeathTest, stopsTheDefaultWhenTheProcessEnds) {
    const auto endWithAReport = [] {
        static SilentPeer silent;
        auto settings = settingsFor({silent.url()});
        settings.timeout = Timespan(50 * kMillisecond);
        settings.firstDelay = settings.maxDelay = Timespan(60, 0);
        const auto hook = WebHookBasic::defaultWebHook();
        hook->configure(settings);
        hook->reportServerStarted();
        std::exit(silent.waitForConnection() ? 7 : 1);
    };
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    EXPECT_EXIT(endWithAReport(), testing::ExitedWithCode(7), "since the web hook stops");
}

} // namespace
