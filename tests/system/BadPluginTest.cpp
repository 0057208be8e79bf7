#include "PluginHost.h"

namespace ktr::test {
namespace {

using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using testing::Not;

std::vector<std::string> afterLoading(const std::vector<std::string>& further) {
    auto all = callsOfLoading();
    all.insert(all.end(), further.begin(), further.end());
    return all;
}

class BadPluginTest : public PluginHostTest {
protected:
    BadPluginTest() { root.addPlugin("good"); }

    std::string notFound(const std::string& guid) const {
        return "report recieved plugin not found for guid, guid: " + guid +
               ", ip: 127.0.0.1, port: 41000";
    }

    /// Reports for `guid` and tells whether the host came to say `text` at error priority.
    bool isRefused(const std::string& guid, const std::string& text) const {
        plugin(guid).report(41000);
        return host->waitLogged(" Error " + text + "\n");
    }
};

// ---- entry points

TEST_F(BadPluginTest, AMissingEntryPointCostsThatEntryPointOnly) {
    for (const char* name : {"NoGuid", "NoLoad", "NoName", "NoType", "NoUnload"})
        addFixture(name);
    startHost();
    EXPECT_THAT(logged("Error"),
                ElementsAre("interface 'PluginGuid' not exist, plugin: " + pathOf("NoGuid"),
                            "interface 'PluginLoad' not exist, plugin: " + pathOf("NoLoad"),
                            "interface 'PluginName' not exist, plugin: " + pathOf("NoName"),
                            "interface 'PluginType' not exist, plugin: " + pathOf("NoType"),
                            "interface 'PluginUnLoad' not exist, plugin: " + pathOf("NoUnload")));
    EXPECT_THAT(logged("Critical"), IsEmpty());
    EXPECT_THAT(logged("Information"), AllOf(Contains("plugin regist, guid is empty").Times(1),
                                             Contains("load plugin count: 5")));
    for (const char* guid : {"no-name", "no-type", "no-unload"}) {
        plugin(guid).report(41000);
        EXPECT_THAT(waitCalls(guid, "start 127.0.0.1 41000"), Contains("start 127.0.0.1 41000"));
    }
    EXPECT_TRUE(isRefused("no-load", "plugin_ptr is null, guid: no-load"));
    expectAtWork("good");
    expectOrderlyEnd();
    EXPECT_THAT(calls("no-type"),
                ElementsAre("PluginName", "PluginGuid", "PluginLoad", "factory", "setEventCallback",
                            "start 127.0.0.1 41000", "stop", "~"));
}

TEST_F(BadPluginTest, AnEntryPointThatThrowsCostsItsOwnPluginOnly) {
    for (const char* name : {"ThrowsPoco", "ThrowsPoco-guid", "ThrowsPoco-name", "ThrowsPoco-type",
                             "ThrowsStd", "ThrowsStd-guid", "ThrowsStd-name", "ThrowsStd-type"})
        addFixture(name);
    startHost();
    EXPECT_THAT(logged("Critical"),
                ElementsAre("Data error: guid failed", "Data error: name failed",
                            "Data error: type failed", "Data error: load failed", "guid failed",
                            "name failed", "type failed", "load failed"));
    EXPECT_THAT(logged("Information"), Contains("load plugin count: 1"));
    for (const char* guid :
         {"poco-guid", "poco-name", "poco-type", "std-guid", "std-name", "std-type"})
        EXPECT_TRUE(isRefused(guid, notFound(guid))) << guid;
    expectAtWork("good");
    EXPECT_TRUE(host->waitLogged("edge reportServerStarted"));
}

TEST_F(BadPluginTest, APluginThatThrowsWhenItHasRegisteredCanStillBeStarted) {
    addFixture("ThrowsStd");
    addFixture("ThrowsPoco");
    startHost();
    for (const char* guid : {"throws-std", "throws-poco"}) {
        plugin(guid).report(41000);
        EXPECT_THAT(waitCalls(guid, "start 127.0.0.1 41000"),
                    ElementsAreArray(
                        afterLoading({"factory", "setEventCallback", "start 127.0.0.1 41000"})));
    }
}

TEST_F(BadPluginTest, AnEmptyGuidCanBeNeitherRegisteredNorReported) {
    addFixture("EmptyGuid");
    startHost();
    EXPECT_THAT(logged("Error"), IsEmpty());
    const auto lines = logged("Information");
    EXPECT_THAT(lines, AllOf(Contains("plugin name: empty guid"), Contains("plugin guid: "),
                             Contains("plugin regist, guid: ").Times(1),
                             Contains("plugin regist, guid is empty").Times(1),
                             Contains("load plugin count: 2")));
    EXPECT_TRUE(isRefused("", "report recieved guid is empty"));
    plugin("good").report(41000);
    ASSERT_TRUE(plugin("good").waitStarted());
    plugin("good").raise(R"({"to":[""]})");
    expectAtWork("good");
    expectOrderlyEnd();
    EXPECT_THAT(calls(""), ElementsAreArray(callsOfLoading()));
}

// ---- registration

TEST_F(BadPluginTest, TheLastOfTwoRegistrationsCounts) {
    addFixture("RegistersTwice");
    startHost();
    EXPECT_THAT(logged("Information"), AllOf(Contains("plugin regist, guid: twice").Times(4),
                                             Contains("load plugin count: 2")));
    plugin("twice").report(41000);
    EXPECT_THAT(waitCalls("twice", "start 127.0.0.1 41000"),
                ElementsAreArray(
                    afterLoading({"second factory", "setEventCallback", "start 127.0.0.1 41000"})));
}

TEST_F(BadPluginTest, APluginThatUnregistersWhenLoadedIsCountedButGone) {
    addFixture("Unregisters-load");
    startHost();
    EXPECT_THAT(logged("Information"),
                AllOf(Contains("plugin '" + pathOf("Unregisters-load") + "' loaded"),
                      Contains("load plugin count: 2")));
    EXPECT_TRUE(isRefused("unregisters-load", notFound("unregisters-load")));
    expectAtWork("good");
    expectOrderlyEnd();
    EXPECT_THAT(logged("Information"),
                Not(Contains("----before PluginUnLoadAll-plugin: unregisters")));
}

TEST_F(BadPluginTest, APluginThatUnregistersInStartIsDestroyedWhenThatReturns) {
    addFixture("Unregisters-start");
    startHost();
    plugin("unregisters-start").report(41000);
    EXPECT_THAT(waitCalls("unregisters-start", "~"),
                ElementsAreArray(
                    afterLoading({"factory", "setEventCallback", "start 127.0.0.1 41000", "~"})));
    EXPECT_TRUE(host->waitLogged("started plugin, guid: unregisters-start"));
    EXPECT_TRUE(isRefused("unregisters-start", notFound("unregisters-start")));
    expectAtWork("good");
}

TEST_F(BadPluginTest, APluginThatUnregistersWhileItRunsGetsNothingMore) {
    root.addPlugin("leaver");
    startHost();
    startPuppet("leaver");
    startPuppet("good");
    plugin("leaver").leave();
    EXPECT_FALSE(plugin("leaver").isStarted());
    plugin("good").raise(R"({"to":["leaver","good"]})");
    EXPECT_THAT(waitMessages("good", 1), ElementsAre(R"({"to":["leaver","good"]})"));
    EXPECT_TRUE(isRefused("leaver", notFound("leaver")));
    expectOrderlyEnd();
    const auto lines = logged("Information");
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "----before PluginUnLoadAll-plugin: puppet"),
              1);
}

// ---- the object

struct Kind {
    const char* name;
    /// How the guids begin.
    const char* prefix;
    /// How the logged text begins.
    const char* logged;

    friend void PrintTo(const Kind& kind, std::ostream* out) { *out << kind.name; }
};

class ThrowingPluginTest : public BadPluginTest, public testing::WithParamInterface<Kind> {
protected:
    /// Starts a host with the fixture that throws at `place`; returns its guid.
    std::string startHostWith(const std::string& place) {
        addFixture(std::string("Throws") + GetParam().name + "-" + place);
        startHost();
        return std::string(GetParam().prefix) + "-" + place;
    }

    std::string failureAt(const std::string& place) const {
        return std::string(GetParam().logged) + place + " failed";
    }
};

TEST_P(ThrowingPluginTest, InTheFactoryHasNoObject) {
    const std::string guid = startHostWith("factory");
    EXPECT_EQ(plugin(guid).report(41000).body, R"({"code":0,"msg":"success"})");
    EXPECT_TRUE(host->waitLogged(" Critical " + failureAt("factory") + "\n"));
    startPuppet("good");
    plugin("good").raise(R"({"to":[")" + guid + R"(","good"]})");
    EXPECT_EQ(waitMessages("good", 1).size(), 1U);
    expectOrderlyEnd();
    EXPECT_THAT(calls(guid), ElementsAreArray(afterLoading({"factory"})));
    EXPECT_THAT(logged("Critical"), ElementsAre(failureAt("factory")));
}

TEST_P(ThrowingPluginTest, InSetEventCallbackHasAnObjectThatIsNotStarted) {
    const std::string guid = startHostWith("setEventCallback");
    plugin(guid).report(41000);
    EXPECT_TRUE(host->waitLogged(" Critical " + failureAt("setEventCallback") + "\n"));
    startPuppet("good");
    plugin("good").raise(R"({"to":[")" + guid + R"(","good"]})");
    EXPECT_EQ(waitMessages("good", 1).size(), 1U);
    expectOrderlyEnd();
    EXPECT_THAT(calls(guid), ElementsAreArray(afterLoading(
                                 {"factory", "setEventCallback",
                                  R"(onMessage {"to":[")" + guid + R"(","good"]})", "stop", "~"})));
    EXPECT_THAT(logged("Information"), Not(Contains("starting plugin, guid: " + guid)));
}

TEST_P(ThrowingPluginTest, InStartIsNotCountedAsStarted) {
    const std::string guid = startHostWith("start");
    plugin(guid).report(41000);
    EXPECT_TRUE(
        host->waitLogged(" Error task 'startService' failed: " + failureAt("start") + "\n"));
    startPuppet("good");
    startPuppet("good");
    EXPECT_TRUE(host->waitLogged("edge reportServerStarted"));
    plugin("good").raise(R"({"to":[")" + guid + R"(","good"]})");
    EXPECT_EQ(waitMessages("good", 1).size(), 1U);
    expectOrderlyEnd();
    EXPECT_THAT(calls(guid), ElementsAreArray(afterLoading(
                                 {"factory", "setEventCallback", "start 127.0.0.1 41000",
                                  R"(onMessage {"to":[")" + guid + R"(","good"]})", "stop", "~"})));
    const auto lines = logged("Information");
    EXPECT_THAT(lines, Contains("starting plugin, guid: " + guid).Times(1));
    EXPECT_THAT(lines, Not(Contains("started plugin, guid: " + guid)));
    const auto end = std::find(lines.begin(), lines.end(), "edge reportServerStarted");
    EXPECT_EQ(std::count(lines.begin(), end, "started plugin, guid: good"), 2);
}

TEST_P(ThrowingPluginTest, InStopKeepsItsObjectWhenItReportsAgain) {
    const std::string guid = startHostWith("stop");
    plugin(guid).report(41000);
    waitCalls(guid, "start 127.0.0.1 41000");
    plugin(guid).report(41001);
    EXPECT_TRUE(host->waitLogged(" Critical " + failureAt("stop") + "\n"));
    expectAtWork("good");
    plugin("good").raise(R"({"to":[")" + guid + R"("]})");
    const std::string message = R"(onMessage {"to":[")" + guid + R"("]})";
    EXPECT_THAT(waitCalls(guid, message),
                ElementsAreArray(afterLoading(
                    {"factory", "setEventCallback", "start 127.0.0.1 41000", "stop", message})));
    expectOrderlyEnd();
    EXPECT_THAT(logged("Critical"), ElementsAre(failureAt("stop"), failureAt("stop")));
}

TEST_P(ThrowingPluginTest, InOnMessageCostsOnlyItsOwnDelivery) {
    const std::string guid = startHostWith("onMessage");
    plugin(guid).report(41000);
    startPuppet("good");
    waitCalls(guid, "start 127.0.0.1 41000");
    const std::string event = R"({"to":[")" + guid + R"(","good",")" + guid + R"("]})";
    plugin("good").raise(event);
    const std::string line =
        "exception in event callback, error: " + failureAt("onMessage") + ", message: [ERRFMT]";
    EXPECT_TRUE(host->waitLogged(" Error " + line + "\n", 2));
    EXPECT_THAT(waitMessages("good", 1), ElementsAre(event));
    expectOrderlyEnd();
    EXPECT_THAT(logged("Error"), ElementsAre(line, line));
    EXPECT_THAT(calls(guid), Contains("onMessage " + event).Times(2));
}

INSTANTIATE_TEST_SUITE_P(With, ThrowingPluginTest,
                         testing::Values(Kind{"Std", "std", ""},
                                         Kind{"Poco", "poco", "Data error: "}),
                         [](const auto& tested) { return tested.param.name; });

TEST_F(BadPluginTest, AnExceptionOfAnotherTypeCostsTheRestOfTheTask) {
    root.addPlugin("worse", "start=throw-int\nmessage=throw-int\n");
    startHost();
    startPuppet("good");
    plugin("worse").report(41000);
    EXPECT_TRUE(host->waitLogged(" Error task 'startService' failed: exception of unknown type\n"));
    plugin("good").raise(R"({"to":["worse","good"]})");
    EXPECT_TRUE(
        host->waitLogged(" Error task 'eventCallback' failed: exception of unknown type\n"));
    plugin("good").raise(R"({"to":["worse","good"],"api":"pushTelemetry"})");
    EXPECT_TRUE(
        host->waitLogged(" Error task 'rapidEventCallBack' failed: exception of unknown type\n"));
    const std::string event = R"({"to":["good"]})";
    plugin("good").raise(event);
    EXPECT_THAT(waitMessages("good", 1), ElementsAre(event));
    expectOrderlyEnd();
}

} // namespace
} // namespace ktr::test
