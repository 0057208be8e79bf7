#include "PluginHost.h"

#include "support/HttpPeer.h"

namespace ktr::test {
namespace {

using testing::Contains;
using testing::ElementsAreArray;
using testing::IsEmpty;
using testing::Not;

constexpr int kDefaultPoolThreads = 512;
constexpr const char* kAccepted = R"({"code":0,"msg":"success"})";
constexpr const char* kToldWebHook = "edge reportServerStarted";

class PluginStartTest : public PluginHostTest {
protected:
    /// Reports; while the pool is full but for one thread, as soon as that is free.
    void report(const std::string& guid) const {
        EXPECT_TRUE(waitUntil([&] { return plugin(guid).report(41000).body == kAccepted; }));
    }

    /// How many lines with this text there are before the web hook was told.
    std::ptrdiff_t countBeforeTelling(const std::string& text) const {
        const auto lines = logged("Information");
        return std::count(lines.begin(), std::find(lines.begin(), lines.end(), kToldWebHook), text);
    }
};

// ---- the pool

TEST_F(PluginStartTest, WhileThePoolIsFullAReportMakesTheObjectButDoesNotStartIt) {
    addFixture("Complete");
    root.addPlugin("occupant");
    startHost();
    startPuppet("occupant");
    // the report's own job takes the last thread
    plugin("occupant").occupy(kDefaultPoolThreads - 1);
    report("complete");
    waitCalls("complete", "setEventCallback");
    EXPECT_THAT(logged("Critical"), IsEmpty());
    EXPECT_THAT(logged("Error"), IsEmpty());
    report("complete");
    auto expected = callsOfLoading();
    for (const char* call :
         {"factory", "setEventCallback", "stop", "~", "factory", "setEventCallback"})
        expected.emplace_back(call);
    EXPECT_THAT(waitCalls("complete", "setEventCallback", 2), ElementsAreArray(expected));
    EXPECT_THAT(logged("Information"), Not(Contains("starting plugin, guid: complete")));

    // it takes part in events all the same
    plugin("occupant").raise(R"({"to":["complete"]})");
    waitCalls("complete", R"(onMessage {"to":["complete"]})");
    plugin("occupant").vacate();
    report("complete");
    for (const char* call : {R"(onMessage {"to":["complete"]})", "stop", "~", "factory",
                             "setEventCallback", "start 127.0.0.1 41000"})
        expected.emplace_back(call);
    EXPECT_THAT(waitCalls("complete", "start 127.0.0.1 41000"), ElementsAreArray(expected));
    EXPECT_TRUE(host->waitLogged(kToldWebHook));
    EXPECT_EQ(countBeforeTelling("started plugin, guid: complete"), 1);
    expectOrderlyEnd();
}

TEST_F(PluginStartTest, WithoutAFreeThreadForItsJobAReportFails) {
    addFixture("Complete");
    root.addPlugin("occupant");
    startHost();
    startPuppet("occupant");
    plugin("occupant").occupy(kDefaultPoolThreads);
    EXPECT_EQ(plugin("complete").report(41000).status, 500);
    plugin("occupant").vacate();
    report("complete");
    waitCalls("complete", "start 127.0.0.1 41000");
    auto expected = callsOfLoading();
    for (const char* call : {"factory", "setEventCallback", "start 127.0.0.1 41000"})
        expected.emplace_back(call);
    EXPECT_THAT(calls("complete"), ElementsAreArray(expected));
}

TEST_F(PluginStartTest, WhenNoThreadCanBeMadeAReportStartsTheObjectItselfUncounted) {
    root.addPlugin("occupant");
    // the system refuses the job's thread a further one from before the start on
    root.addPlugin("poor", "callback=refuse\nstart=hold\n");
    startHost();
    startPuppet("occupant");
    // every thread that there is; the report's job gets a new one
    plugin("occupant").occupy(16);
    report("poor");
    ASSERT_TRUE(waitUntil([this] { return root.isHeld("poor", "start"); })) << host->err();
    auto lines = logged("Information");
    EXPECT_THAT(lines, Contains("System exception").Times(1));
    EXPECT_EQ(lines.back(), "starting plugin, guid: poor");
    EXPECT_EQ(lines[lines.size() - 2], "System exception");

    // the registry is locked meanwhile
    plugin("occupant").raise(R"({"to":[5,"occupant"]})");
    EXPECT_TRUE(host->waitLogged("exception in event callback"));
    EXPECT_THAT(plugin("occupant").texts("messages"), IsEmpty());
    root.letGo("poor", "start");
    EXPECT_TRUE(plugin("poor").waitStarted());
    EXPECT_THAT(waitMessages("occupant", 1), ElementsAreArray({R"({"to":[5,"occupant"]})"}));
    EXPECT_EQ(plugin("poor").state()->getValue<int>("starts"), 1);
    EXPECT_EQ(plugin("poor").state()->getValue<int>("port"), 41000);
    EXPECT_TRUE(host->waitLogged("started plugin, guid: poor"));
    EXPECT_THAT(logged("Information"), Not(Contains(kToldWebHook)));

    plugin("occupant").vacate();
    plugin("occupant").report(41000);
    EXPECT_TRUE(host->waitLogged(kToldWebHook));
    EXPECT_EQ(countBeforeTelling("started plugin, guid: occupant"), 2);
    expectOrderlyEnd();
}

// ---- the web hook

class WebHookTest : public PluginStartTest {
protected:
    WebHookTest() {
        for (const char* guid : {"one", "two", "three"})
            root.addPlugin(guid);
    }

    const HttpPeer hook;
};

TEST_F(WebHookTest, IsToldOnceWhenAsManyStartsEndedAsPluginsAreLoaded) {
    startHost({"--webhook-url=" + hook.url("/started?device=7")});
    startPuppet("one");
    startPuppet("one");
    EXPECT_THAT(logged("Information"), Not(Contains(kToldWebHook)));
    startPuppet("two"); // it is starts that count, not plugins
    ASSERT_TRUE(host->waitLogged(kToldWebHook));
    ASSERT_TRUE(waitUntil([this] { return hook.count() > 0; }));
    startPuppet("three");
    startPuppet("one");
    startPuppet("two");
    startPuppet("three");
    expectOrderlyEnd();
    EXPECT_THAT(logged("Information"), Contains(kToldWebHook).Times(1));
    EXPECT_EQ(countBeforeTelling("started plugin, guid: two"), 1);

    const auto posts = hook.posts();
    ASSERT_EQ(posts.size(), 1U);
    EXPECT_EQ(posts[0].method, "POST");
    EXPECT_EQ(posts[0].uri, "/started?device=7");
    EXPECT_EQ(posts[0].contentType, "application/json");
    EXPECT_THAT(posts[0].body, testing::MatchesRegex(
                                   R"re(\{"event":"serverStarted","time":"20[0-9]{2}-[0-1][0-9]-)re"
                                   R"re([0-3][0-9]T[0-2][0-9]:[0-5][0-9]:[0-6][0-9]Z"\})re"));
}

TEST_F(WebHookTest, IsNotToldWhileOneStartIsMissing) {
    root.addPlugin("thrower", "start=throw\n");
    startHost({"--webhook-url=" + hook.url()});
    plugin("thrower").report(41000);
    ASSERT_TRUE(host->waitLogged("puppet thrower throws in start"));
    for (const char* guid : {"one", "two", "three"})
        startPuppet(guid);
    expectOrderlyEnd();
    EXPECT_THAT(logged("Information"), Not(Contains(kToldWebHook)));
    EXPECT_EQ(hook.count(), 0U);
}

} // namespace
} // namespace ktr::test
