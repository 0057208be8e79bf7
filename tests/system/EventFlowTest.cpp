#include "PluginHost.h"

namespace ktr::test {
namespace {

using testing::Contains;
using testing::IsEmpty;
using testing::UnorderedElementsAreArray;

class EventFlowTest : public PluginHostTest {
protected:
    EventFlowTest() { root.addPlugin("listener"); }

    /// What the fixture raises at `place`, on each path.
    static std::vector<std::string> raisedAt(const std::vector<std::string>& places) {
        std::vector<std::string> events;
        for (const std::string& place : places) {
            events.push_back(R"({"to":["listener"],"raised":")" + place + "\"}");
            events.push_back(R"({"to":["listener"],"raised":")" + place +
                             R"(","api":"pushTelemetry"})");
        }
        return events;
    }
};

TEST_F(EventFlowTest, APluginMayRaiseEventsWhereverItIsCalledAndFromItsOwnThreads) {
    addFixture("Raises");
    startHost();
    startPuppet("listener");
    plugin("raises").report(41000);
    std::vector<std::string> places{"setEventCallback", "start", "thread"};
    EXPECT_THAT(waitMessages("listener", 6), UnorderedElementsAreArray(raisedAt(places)));

    plugin("listener").raise(R"({"to":["raises"]})");
    plugin("listener").raise(R"({"to":["raises"],"api":"pushTelemetry"})");
    for (int i = 0; i < 2; ++i)
        places.emplace_back("onMessage");
    EXPECT_THAT(waitMessages("listener", 10), UnorderedElementsAreArray(raisedAt(places)));

    plugin("raises").report(41001);
    for (const char* place : {"stop", "setEventCallback", "start", "thread"})
        places.emplace_back(place);
    EXPECT_THAT(waitMessages("listener", 18), UnorderedElementsAreArray(raisedAt(places)));
    expectOrderlyEnd();
    EXPECT_THAT(logged("Critical"), IsEmpty());
    EXPECT_THAT(logged("Error"), IsEmpty());
}

TEST_F(EventFlowTest, EndsInOrderWhileEventsFlowOnBothPathsFromManyThreads) {
    addFixture("Floods");
    const std::string service = root.addService("guid=floods\nport=41000");
    startHost();
    startPuppet("listener");
    // from both ends: the fixture is recipient too
    const auto deliveries = [this] {
        return std::min(plugin("listener").texts("messages").size(), calls("floods").size());
    };
    ASSERT_TRUE(waitUntil([&] { return deliveries() >= 200; }, std::chrono::seconds(20)))
        << host->err();
    expectOrderlyEnd();
    const auto made = calls("floods");
    EXPECT_EQ(made[made.size() - 2], "stop");
    EXPECT_EQ(made.back(), "~");
    EXPECT_THAT(logged("Information"), Contains("----end PluginUnLoadAll-plugin: floods"));
    EXPECT_THAT(logged("Information"), Contains("----end PluginUnLoadAll-plugin: puppet"));
    EXPECT_THAT(logged("Critical"), IsEmpty());
    EXPECT_THAT(logged("Error"), IsEmpty());
    EXPECT_EQ(countOf(host->err(), "hangs"), 0);
}

} // namespace
} // namespace ktr::test
