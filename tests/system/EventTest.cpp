#include "support/HostProcess.h"
#include "support/PuppetClient.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace ktr::test {
namespace {

using testing::ElementsAre;

class EventTest : public testing::Test {
protected:
    void SetUp() override {
        root.addPlugin("raiser");
        root.addPlugin("taker");
        host.emplace(root);
        ASSERT_TRUE(host->waitReady()) << host->err();
        for (const char* guid : {"raiser", "taker"}) {
            const PuppetClient plugin(host->port(), guid);
            plugin.report(41000);
            ASSERT_TRUE(plugin.waitStarted()) << host->err();
        }
    }

    PuppetClient plugin(const std::string& guid) const { return {host->port(), guid}; }

    std::vector<std::string> waitMessages(const std::string& guid, std::size_t count) const {
        waitUntil([&] { return plugin(guid).texts("messages").size() >= count; });
        return plugin(guid).texts("messages");
    }

    DeviceRoot root;
    std::optional<HostProcess> host;
};

TEST_F(EventTest, AnEventReachesTheNamedPluginByteForByte) {
    const std::string event =
        "{ \"value\" : 1.50,\n\t\"to\":[\"taker\"] , \"text\":\"gr\\u00fc\xC3\xBC\xC3\x9F\\/\","
        "\"to \":null, \"a\":{\"z\":1,\"b\":[ ]}}";
    plugin("raiser").raise(event);
    EXPECT_THAT(waitMessages("taker", 1), ElementsAre(event));
    EXPECT_TRUE(plugin("raiser").texts("messages").empty());
}

TEST_F(EventTest, ARapidEventReachesTheNamedPluginByteForByte) {
    const std::string telemetry =
        R"({"api":"pushTelemetry",  "to":["taker"],"reading":{"celsius":45.670}})";
    plugin("raiser").raise(telemetry);
    EXPECT_THAT(waitMessages("taker", 1), ElementsAre(telemetry));
    const std::string pilot = R"({"to":["taker"],"api":"smaReceivePilotData"})";
    plugin("raiser").raise(pilot);
    EXPECT_THAT(waitMessages("taker", 2), ElementsAre(telemetry, pilot));
}

TEST_F(EventTest, AnEventMayNameItsRaiserAndSeveralOthers) {
    const std::string event = R"({"to":["nobody","raiser",null,"taker"]})";
    plugin("raiser").raise(event);
    EXPECT_THAT(waitMessages("taker", 1), ElementsAre(event));
    EXPECT_THAT(waitMessages("raiser", 1), ElementsAre(event));
}

TEST_F(EventTest, BadEventsAreLoggedAndLoseNothingElse) {
    plugin("raiser").raise("not json");
    plugin("raiser").raise(R"({"to":["taker"],"api":null})");
    EXPECT_TRUE(host->waitLogged("Can not convert empty value."));
    const std::string event = R"({"to":["taker"]})";
    plugin("raiser").raise(event);
    EXPECT_THAT(waitMessages("taker", 1), ElementsAre(event));
}

} // namespace
} // namespace ktr::test
