#include "ktr/TestKit.h"

#include "FixtureCalls.h"
#include "ktr/common/Logger.h"
#include "support/Broker.h"
#include "support/FreePort.h"
#include "support/HttpClient.h"
#include "support/TempDir.h"
#include "support/WaitUntil.h"

#include <Poco/Message.h>

#include <gmock/gmock.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <stdexcept>
#include <string>
#include <vector>

namespace ktr::test {
namespace {

namespace fs = std::filesystem;
using Kit = ktr::TestKit;
using namespace std::chrono_literals;
using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using testing::Optional;
using testing::UnorderedElementsAreArray;

std::string fixture(const std::string& name) {
    return KETRA_FIXTURE_PLUGINS "/libKetraPluginFixture" + name + ".so";
}

/// The text of what `action` throws; empty if it throws nothing, or something else.
template <class Action>
std::string failureOf(Action action) {
    try {
        action();
    } catch (const std::runtime_error& e) {
        return e.what();
    }
    return "";
}

std::string loadFailure(const std::string& file) {
    return failureOf([&] { const Kit kit(file, {}); });
}

std::vector<std::string> calls() {
    return FixtureCalls::instance().all();
}

/// With a temporary folder of its own, in which nothing may be left.
class TestKit : public testing::Test {
public:
    TestKit(const TestKit&) = delete;
    TestKit& operator=(const TestKit&) = delete;

protected:
    TestKit() { setenv("TMPDIR", temp.path().c_str(), 1); } // NOLINT(concurrency-mt-unsafe)
    ~TestKit() override { EXPECT_TRUE(fs::is_empty(temp.path())); }

    std::string file(const std::string& name, const std::string& content) const {
        std::ofstream(other / name) << content;
        return other / name;
    }

    const TempDir other;
    const TempDir temp;
};

// ---- loading

TEST_F(TestKit, LoadsAPluginAndTellsItsGuid) {
    const Kit kit(fixture("Complete"), {});
    EXPECT_EQ(kit.guid(), "complete");
    EXPECT_NE(kit.port(), 0);
    EXPECT_THAT(calls(), ElementsAre("PluginType", "PluginName", "PluginGuid", "PluginLoad"));
}

TEST_F(TestKit, KeepsTheLogToItselfAndGivesChannelAndLevelBack) {
    Poco::Channel* const channel = cachedLogger().getChannel();
    const int level = Poco::Message::PRIO_NOTICE;
    cachedLogger().setLevel(level);
    testing::internal::CaptureStderr();
    {
        const Kit kit(fixture("Complete"), {"listener"});
        EXPECT_THAT(kit.log(), Contains("information: plugin guid: complete"));
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(cachedLogger().getChannel(), channel);
    EXPECT_EQ(cachedLogger().getLevel(), level);
}

TEST_F(TestKit, ShowsTheLogIfAsked) {
    Kit::Options options;
    options.showLog = true;
    testing::internal::CaptureStderr();
    { const Kit kit(fixture("Complete"), {}, options); }
    EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr("plugin guid: complete"));
}

TEST_F(TestKit, LeavesTheCurrentDirectoryAsItWas) {
    const fs::path before = fs::current_path();
    const Kit kit(fixture("Complete"), {"listener"});
    EXPECT_EQ(fs::current_path(), before);
}

TEST_F(TestKit, TakesAFileRelativeToTheCurrentDirectory) {
    const Kit kit(fs::relative(fixture("Complete")), {});
    EXPECT_EQ(kit.guid(), "complete");
}

TEST_F(TestKit, RefusesAFileThatIsMissingOrMisnamedOrNoLibrary) {
    EXPECT_THAT(loadFailure(other / "libKetraPluginX.so"),
                AllOf(HasSubstr("there is no plugin library"), HasSubstr("build it first")));
    EXPECT_THAT(loadFailure(file("libX.so", "")), HasSubstr("name that contains libKetraPlugin"));
    EXPECT_THAT(loadFailure(file("libKetraPluginX.so", "no library")),
                AllOf(HasSubstr("cannot load the plugin; the log says"),
                      HasSubstr("libKetraPluginX.so: ")));
}

TEST_F(TestKit, NamesTheEntryPointsThatAreMissing) {
    EXPECT_THAT(loadFailure(fixture("Bare")),
                HasSubstr("entry points PluginLoad, PluginUnLoad, PluginType, PluginName, "
                          "PluginGuid; define them"));
    EXPECT_THAT(loadFailure(fixture("NoType")), HasSubstr("entry points PluginType; define them"));
    EXPECT_THAT(loadFailure(fixture("NoGuid")), HasSubstr("entry points PluginGuid; define them"));
}

TEST_F(TestKit, RefusesAPluginThatRegistersNoFactoryUnderItsGuid) {
    EXPECT_THAT(loadFailure(fixture("Stranger")),
                AllOf(HasSubstr("registered no factory as 'stranger'"),
                      HasSubstr("call ktr::registerPlugin")));
    EXPECT_THAT(loadFailure(fixture("EmptyGuid")), HasSubstr("registered no factory as ''"));
}

TEST_F(TestKit, RefusesAPluginThatThrowsWhileItLoads) {
    EXPECT_THAT(loadFailure(fixture("ThrowsStd")),
                AllOf(HasSubstr("cannot load the plugin"), HasSubstr("critical: load failed")));
    EXPECT_THAT(loadFailure(fixture("ThrowsPoco-guid")), HasSubstr("guid failed"));
}

TEST_F(TestKit, RefusesGuidsThatItCannotListenAs) {
    for (const std::vector<std::string>& guids :
         {std::vector<std::string>{""}, {"complete"}, {"twice", "twice"}})
        EXPECT_THAT(failureOf([&] { const Kit kit(fixture("Complete"), guids); }),
                    HasSubstr("cannot listen as '" + guids.front() + "'"));
}

TEST_F(TestKit, RefusesASecondOneWhileTheFirstLives) {
    const Kit kit(fixture("Complete"), {});
    EXPECT_THAT(loadFailure(fixture("Raises")), HasSubstr("there is a TestKit already"));
    EXPECT_EQ(kit.guid(), "complete");
}

TEST_F(TestKit, RefusesADeadlineOfNothing) {
    Kit::Options options;
    options.deadline = 0ms;
    EXPECT_THAT(failureOf([&] { const Kit kit(fixture("Complete"), {}, options); }),
                HasSubstr("allow at least 1"));
}

TEST_F(TestKit, LeavesNothingInTheTemporaryFolder) {
    {
        const Kit kit(fixture("Complete"), {"listener"});
        EXPECT_FALSE(fs::is_empty(temp.path()));
    }
    EXPECT_TRUE(fs::is_empty(temp.path()));
    loadFailure(fixture("Bare"));
    EXPECT_TRUE(fs::is_empty(temp.path()));
}

// ---- activation

TEST_F(TestKit, ActivatesWithTheAddressThatWasReported) {
    Kit kit(fixture("Complete"), {});
    kit.activate("192.0.2.7", 41'000);
    EXPECT_THAT(calls(), Contains("start 192.0.2.7 41000"));
}

TEST_F(TestKit, ReturnsFromActivateWhenStartHasReturned) {
    Kit kit(fixture("Complete"), {});
    FixtureCalls::instance().hold("start");
    auto activation = std::async(std::launch::async, [&] { kit.activate("127.0.0.1", 41'000); });
    ASSERT_TRUE(FixtureCalls::instance().waitHeld());
    // never ready too early, however slow the machine
    EXPECT_EQ(activation.wait_for(100ms), std::future_status::timeout);
    FixtureCalls::instance().let();
    activation.get();
}

TEST_F(TestKit, MakesAFreshObjectOfEachActivation) {
    Kit kit(fixture("Complete"), {});
    kit.activate("127.0.0.1", 41'000);
    const std::size_t before = calls().size();
    kit.activate("127.0.0.1", 41'001);
    // the thread of the first start may be the last to let go of the former object
    EXPECT_TRUE(waitUntil([&] { return calls().size() == before + 5; }));
    auto since = calls();
    since.erase(since.begin(), since.begin() + static_cast<std::ptrdiff_t>(before));
    since.erase(std::remove(since.begin(), since.end(), "~"), since.end());
    EXPECT_THAT(since, ElementsAre("stop", "factory", "setEventCallback", "start 127.0.0.1 41001"));
}

TEST_F(TestKit, TellsWhyTheHostRefusesAnAddress) {
    Kit kit(fixture("Complete"), {});
    EXPECT_THAT(failureOf([&] { kit.activate("127.0.0.1", 1024); }),
                HasSubstr("error: report recieved port invalid: 1024"));
    EXPECT_THAT(failureOf([&] { kit.activate("", 41'000); }),
                HasSubstr("error: report recieved ip is empty"));
    EXPECT_THAT(calls(), Not(Contains("factory")));
}

TEST_F(TestKit, TellsWhatStartThrows) {
    Kit kit(fixture("ThrowsStd-start"), {});
    EXPECT_THAT(failureOf([&] { kit.activate("127.0.0.1", 41'000); }),
                HasSubstr("start() threw: start failed"));
    // the object is there all the same
    kit.deliver(R"({"to":["std-start"]})");
    kit.deactivate();
    EXPECT_THAT(calls(), Contains("stop"));
}

TEST_F(TestKit, TellsWhatKeepsAnObjectFromBeingStarted) {
    for (const std::string place : {"factory", "setEventCallback"}) {
        Kit kit(fixture("ThrowsPoco-" + place), {});
        EXPECT_THAT(failureOf([&] { kit.activate("127.0.0.1", 41'000); }),
                    AllOf(HasSubstr("has not started an object"), HasSubstr(place + " failed")));
    }
    Kit kit(fixture("Unregisters-load"), {});
    EXPECT_THAT(failureOf([&] { kit.activate("127.0.0.1", 41'000); }),
                HasSubstr("report recieved plugin not found for guid"));
}

TEST_F(TestKit, GivesUpAStartThatDoesNotReturn) {
    Kit::Options options;
    options.deadline = 3s;
    Kit kit(fixture("Complete"), {}, options);
    FixtureCalls::instance().hold("start");
    EXPECT_THAT(failureOf([&] { kit.activate("127.0.0.1", 41'000); }),
                HasSubstr("start() has not returned within 3000 ms"));
    FixtureCalls::instance().let();
    kit.activate("127.0.0.1", 41'001);
    EXPECT_THAT(calls(), Contains("start 127.0.0.1 41001"));
}

// ---- events

TEST_F(TestKit, DeliversAnEventByteForByte) {
    Kit kit(fixture("Complete"), {});
    kit.activate("127.0.0.1", 41'000);
    for (const std::string text :
         {R"({"to" : ["complete"],  "n":1})", R"({"to":["complete"],"api":"pushTelemetry"})"}) {
        kit.deliver(text);
        EXPECT_EQ(calls().back(), "onMessage " + text);
    }
}

TEST_F(TestKit, ReturnsFromDeliverWhenOnMessageHasReturned) {
    Kit kit(fixture("Complete"), {});
    kit.activate("127.0.0.1", 41'000);
    FixtureCalls::instance().hold("onMessage");
    auto delivery = std::async(std::launch::async, [&] { kit.deliver(R"({"to":["complete"]})"); });
    ASSERT_TRUE(FixtureCalls::instance().waitHeld());
    // never ready too early, however slow the machine
    EXPECT_EQ(delivery.wait_for(100ms), std::future_status::timeout);
    FixtureCalls::instance().let();
    delivery.get();
}

TEST_F(TestKit, RefusesToDeliverWhatWouldNotReachThePlugin) {
    Kit kit(fixture("Unregisters-start"), {});
    EXPECT_THAT(failureOf([&] { kit.deliver(R"({"to":["unregisters-start"]})"); }),
                HasSubstr("there is no object of the plugin"));
    kit.activate("127.0.0.1", 41'000);
    // the thread that started it lets go of it last
    ASSERT_TRUE(waitUntil([] { return calls().back() == "~"; }));
    EXPECT_THAT(failureOf([&] { kit.deliver(R"({"to":["unregisters-start"]})"); }),
                HasSubstr("there is no object of the plugin"));
    for (const std::string text :
         {"", "no json", "[]", "{}", R"({"to":"unregisters-start"})", R"({"to":["x",1]})"})
        EXPECT_THAT(failureOf([&] { kit.deliver(text); }),
                    AllOf(HasSubstr("would not reach the plugin"),
                          HasSubstr(R"("to":["unregisters-start"])")));
}

TEST_F(TestKit, TellsWhatOnMessageThrows) {
    Kit kit(fixture("ThrowsStd-onMessage"), {});
    kit.activate("127.0.0.1", 41'000);
    EXPECT_THAT(failureOf([&] { kit.deliver(R"({"to":["std-onMessage"]})"); }),
                HasSubstr("onMessage() threw: onMessage failed"));
}

TEST_F(TestKit, GivesUpAnOnMessageThatDoesNotReturn) {
    Kit::Options options;
    options.deadline = 3s;
    Kit kit(fixture("Complete"), {}, options);
    kit.activate("127.0.0.1", 41'000);
    FixtureCalls::instance().hold("onMessage");
    EXPECT_THAT(failureOf([&] { kit.deliver(R"({"to":["complete"]})"); }),
                HasSubstr("onMessage() has not returned within 3000 ms"));
    FixtureCalls::instance().let();
}

/// What the fixture raises for "listener" at `place`, on each path.
std::vector<std::string> raisedAt(const std::vector<std::string>& places) {
    std::vector<std::string> events;
    for (const std::string& place : places) {
        events.push_back(R"({"to":["listener"],"raised":")" + place + "\"}");
        events.push_back(R"({"to":["listener"],"raised":")" + place +
                         R"(","api":"pushTelemetry"})");
    }
    return events;
}

std::vector<std::string> waitForEvents(Kit& kit, std::size_t count) {
    std::vector<std::string> events;
    while (events.size() < count)
        if (const auto event = kit.waitForEvent(20s))
            events.push_back(*event);
        else
            break;
    return events;
}

TEST_F(TestKit, SeesTheEventsThatThePluginRaises) {
    Kit kit(fixture("Raises"), {"bystander", "listener"});
    kit.activate("127.0.0.1", 41'000);
    EXPECT_THAT(waitForEvents(kit, 6),
                UnorderedElementsAreArray(raisedAt({"setEventCallback", "start", "thread"})));
    kit.deliver(R"({"to":["raises"]})");
    EXPECT_THAT(waitForEvents(kit, 2), UnorderedElementsAreArray(raisedAt({"onMessage"})));
    kit.activate("127.0.0.1", 41'001);
    EXPECT_THAT(waitForEvents(kit, 8), UnorderedElementsAreArray(raisedAt(
                                           {"stop", "setEventCallback", "start", "thread"})));
}

TEST_F(TestKit, SeesOnlyEventsThatNameAGuidToListenAs) {
    Kit kit(fixture("Raises"), {"somebody"});
    kit.activate("127.0.0.1", 41'000);
    kit.deliver(R"({"to":["raises","somebody"]})");
    EXPECT_THAT(kit.waitForEvent(20s), Optional(std::string(R"({"to":["raises","somebody"]})")));
    EXPECT_EQ(kit.waitForEvent(50ms), std::nullopt);
}

TEST_F(TestKit, SeesAnEventOnceForEachGuidThatItNames) {
    Kit kit(fixture("Complete"), {"a", "b"});
    kit.activate("127.0.0.1", 41'000);
    const std::string text = R"({"to":["a","complete","b"]})";
    kit.deliver(text);
    EXPECT_THAT(waitForEvents(kit, 2), ElementsAre(text, text));
    EXPECT_EQ(kit.waitForEvent(0ms), std::nullopt);
}

TEST_F(TestKit, WaitsForAnEventAsLongAsItIsTold) {
    Kit kit(fixture("Complete"), {"listener"});
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(kit.waitForEvent(50ms), std::nullopt);
    EXPECT_GE(std::chrono::steady_clock::now() - begin, 50ms);
}

// ---- the end

TEST_F(TestKit, StopsThePluginOnDeactivate) {
    Kit kit(fixture("Complete"), {"listener"});
    kit.activate("127.0.0.1", 41'000);
    EXPECT_THAT(calls(), Not(Contains("stop")));
    kit.deactivate();
    const auto all = calls();
    EXPECT_THAT(std::vector<std::string>(all.end() - 2, all.end()), ElementsAre("stop", "~"));
    EXPECT_EQ(kit.port(), 0);
    EXPECT_THAT(failureOf([&] { kit.activate("127.0.0.1", 41'000); }),
                HasSubstr("was deactivated"));
    EXPECT_THAT(failureOf([&] { kit.deliver(R"({"to":["complete"]})"); }),
                HasSubstr("there is no object"));
    kit.deactivate();
    EXPECT_EQ(calls(), all);
}

TEST_F(TestKit, TellsWhatStopThrowsAndTakesDownTheRest) {
    {
        Kit kit(fixture("ThrowsStd-stop"), {"listener"});
        kit.activate("127.0.0.1", 41'000);
        EXPECT_THAT(failureOf([&] { kit.activate("127.0.0.1", 41'001); }),
                    HasSubstr("critical: stop failed"));
        EXPECT_THAT(failureOf([&] { kit.deactivate(); }), HasSubstr("stop() threw: stop failed"));
        EXPECT_EQ(calls().back(), "~");
    }
    Kit next(fixture("Raises"), {"listener"});
    next.activate("127.0.0.1", 41'000);
    EXPECT_EQ(waitForEvents(next, 6).size(), 6U);
}

TEST_F(TestKit, MayBeFollowedByOthersInTheSameProcess) {
    for (const std::string name : {"Complete", "Raises", "Complete"}) {
        Kit kit(fixture(name), {"listener"});
        kit.activate("127.0.0.1", 41'000);
        kit.deliver(R"({"to":["listener",")" + kit.guid() + R"("]})");
        EXPECT_TRUE(kit.waitForEvent(20s));
    }
    const auto all = calls();
    EXPECT_EQ(std::count(all.begin(), all.end(), "~"), 3);
}

TEST_F(TestKit, EndsWhileEventsFlowOnBothPaths) {
    Kit kit(fixture("Floods"), {"listener"});
    kit.activate("127.0.0.1", 41'000);
    EXPECT_EQ(waitForEvents(kit, 200).size(), 200U);
    kit.deactivate();
    EXPECT_EQ(calls().back(), "~");
}

TEST_F(TestKit, AbortsWhenStopDoesNotReturn) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    Kit::Options options;
    options.deadline = 3s;
    EXPECT_DEATH(
        {
            Kit kit(fixture("Complete"), {}, options);
            kit.activate("127.0.0.1", 41'000);
            FixtureCalls::instance().hold("stop");
            kit.deactivate();
        },
        "the plugin's stop\\(\\) or destructor has not ended within 3000 ms");
    // what the dead process could not remove
    for (const auto& left : fs::directory_iterator(temp.path()))
        fs::remove_all(left);
}

// ---- router and client

std::string puppetRoute(const Kit& kit, const std::string& name) {
    return "/test/" + kit.guid() + "/" + name;
}

TEST_F(TestKit, ServesThePluginsRoutes) {
    Kit kit(KETRA_PUPPET_PLUGIN, {"listener"});
    kit.activate("192.0.2.7", 41'000);
    const auto state = httpPost(kit.port(), puppetRoute(kit, "state")).json();
    EXPECT_EQ(state->getValue<std::string>("ip"), "192.0.2.7");
    EXPECT_FALSE(state->getValue<bool>("mqttConnected"));
    const std::string event = R"({"to":["listener"]})";
    httpPost(kit.port(), puppetRoute(kit, "raise"), {{"text", event}});
    EXPECT_THAT(kit.waitForEvent(20s), Optional(event));
}

TEST_F(TestKit, ConnectsTheClientToABrokerIfAsked) {
    const Broker broker;
    Kit::Options options;
    options.mqtt.url = broker.url();
    Kit kit(KETRA_PUPPET_PLUGIN, {}, options);
    kit.activate("127.0.0.1", 41'000);
    const auto state = httpPost(kit.port(), puppetRoute(kit, "state")).json();
    EXPECT_TRUE(state->getValue<bool>("mqttConnected"));
}

TEST_F(TestKit, TellsThatTheBrokerIsNotReachedOrItsUrlIsNone) {
    Kit::Options options;
    options.deadline = 3s;
    options.mqtt.url = "tcp://127.0.0.1:" + std::to_string(freePort());
    EXPECT_THAT(failureOf([&] { const Kit kit(fixture("Complete"), {}, options); }),
                HasSubstr("broker was not reached within 3000 ms; start it first"));
    options.mqtt.url = "nowhere";
    EXPECT_THAT(failureOf([&] { const Kit kit(fixture("Complete"), {}, options); }),
                HasSubstr("nowhere"));
}

} // namespace
} // namespace ktr::test
