#include "PluginHost.h"

namespace ktr::test {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

/// One of the two ways of an event.
struct Path {
    const char* name;
    /// The member that makes an event go this way.
    const char* api;
    /// So many events may wait; one more drops them.
    int limit;
    /// How often an overflow is logged.
    int lines;

    friend void PrintTo(const Path& path, std::ostream* out) { *out << path.name; }
};

constexpr Path kNormal{"Normal", "", 51, 0};
constexpr Path kRapid{"Rapid", R"(,"api":"pushTelemetry")", 21, 1};

constexpr const char* kOverflowLine = "sEventCallback recive service's msg cnt: 0";
constexpr const char* kDiscardLine = "recieved service's message discard!";

/// The plugin "blocker" blocks in onMessage, "taker" receives and "raiser" raises.
class EventOverflowTest : public PluginHostTest {
protected:
    void SetUp() override {
        root.addPlugin("blocker", "message=hold\n");
        root.addPlugin("raiser");
        root.addPlugin("taker");
        startHost();
        for (const char* guid : {"blocker", "raiser", "taker"})
            startPuppet(guid);
    }

    static std::string event(const Path& path, const std::string& name, const char* to = "taker") {
        return std::string(R"({"to":[")") + to + "\"]" + path.api + R"(,"event":")" + name + "\"}";
    }

    static std::vector<std::string> events(const Path& path, const std::string& name, int count) {
        std::vector<std::string> all;
        for (int i = 1; i <= count; ++i)
            all.push_back(event(path, name + std::to_string(i)));
        return all;
    }

    void raiseAll(const std::vector<std::string>& all) const {
        for (const std::string& text : all)
            plugin("raiser").raise(text);
    }

    /// Has all four threads of the path's pool deliver: one blocks in onMessage, which keeps the
    /// others waiting at their second recipient. Returns what the taker is to get of it.
    std::vector<std::string> block(const Path& path) const {
        plugin("raiser").raise(event(path, "blocks", "blocker"));
        EXPECT_TRUE(waitUntil([this] { return root.isHeld("blocker", "message"); }));
        std::vector<std::string> waiting;
        for (const char* name : {"first", "second", "third"})
            waiting.push_back(std::string(R"({"to":[5,"taker"])") + path.api + R"(,"event":")" +
                              name + "\"}");
        raiseAll(waiting);
        // a number is no recipient, which is logged without waiting for anybody
        EXPECT_TRUE(host->waitLogged("exception in event callback", 3));
        return waiting;
    }

    void unblock() const { root.letGo("blocker", "message"); }

    /// Raises events until `condition` holds: threads that just delivered may not be free at once.
    template <class Condition>
    bool raiseUntil(const Path& path, const std::string& name, Condition condition) const {
        int raised = 0;
        return waitUntil([&] {
            plugin("raiser").raise(event(path, name + std::to_string(++raised)));
            return waitUntil(condition, std::chrono::milliseconds(100));
        });
    }

    /// Has all that waits delivered, and then one event more.
    void flush(const Path& path, const std::string& name) const {
        EXPECT_TRUE(raiseUntil(path, name, [&] { return !taken(name).empty(); }));
    }

    /// What the taker got of the events that are called `name`.
    std::vector<std::string> taken(const std::string& name) const {
        std::vector<std::string> found;
        for (const std::string& text : plugin("taker").texts("messages"))
            if (text.find(R"("event":")" + name) != std::string::npos)
                found.push_back(text);
        return found;
    }

    int count(const std::string& line) const { return countOf(host->err(), line); }
};

class OnePathTest : public EventOverflowTest, public testing::WithParamInterface<Path> {};

TEST_P(OnePathTest, DeliversWhatWaitedAsOneBatchInOrder) {
    const Path path = GetParam();
    const auto delayed = block(path);
    const auto pending = events(path, "pending", 5);
    raiseAll(pending);
    unblock();
    EXPECT_THAT(waitMessages("taker", 3), testing::UnorderedElementsAreArray(delayed));
    flush(path, "last");
    EXPECT_THAT(taken("pending"), ElementsAreArray(pending));
    EXPECT_EQ(count(kDiscardLine), 0);
    EXPECT_EQ(count(kOverflowLine), 0);
    expectOrderlyEnd();
}

TEST_P(OnePathTest, DropsAllThatWaitedWithTheNextAndThenOneBatch) {
    const Path path = GetParam();
    const auto delayed = block(path);
    raiseAll(events(path, "pending", path.limit));
    EXPECT_EQ(count(kOverflowLine), 0);
    plugin("raiser").raise(event(path, "one too many"));
    EXPECT_EQ(count(kOverflowLine), path.lines);
    EXPECT_EQ(count(kDiscardLine), 0);
    unblock();
    // those that were delivering go on
    EXPECT_THAT(waitMessages("taker", 3), testing::UnorderedElementsAreArray(delayed));
    EXPECT_TRUE(raiseUntil(path, "probe", [&] { return count(kDiscardLine) > 0; }));
    flush(path, "after");
    EXPECT_THAT(taken("pending"), IsEmpty());
    EXPECT_THAT(taken("one too many"), IsEmpty());
    EXPECT_EQ(count(kDiscardLine), 1);
    EXPECT_EQ(count(kOverflowLine), path.lines);
    EXPECT_THAT(logged("Information"), Contains(kDiscardLine));
    expectOrderlyEnd();
}

TEST_P(OnePathTest, ItsOverflowStopsTheNextBatchOfTheOther) {
    const Path path = GetParam();
    const Path other = path.limit == kNormal.limit ? kRapid : kNormal;
    block(path);
    raiseAll(events(path, "pending", path.limit));
    // the other path's pool is free: it comes as far as the plugin that blocks
    const std::string before = std::string(R"({"to":[5,"taker"])") + other.api + "}";
    plugin("raiser").raise(before);
    EXPECT_TRUE(host->waitLogged("exception in event callback", 4));
    plugin("raiser").raise(event(path, "one too many"));
    // and now it gives up earlier
    plugin("raiser").raise(event(other, "of the other path"));
    EXPECT_TRUE(host->waitLogged(kDiscardLine));
    unblock();
    EXPECT_THAT(waitMessages("taker", 4), Contains(before));
    flush(path, "after");
    flush(other, "and after");
    EXPECT_THAT(taken("pending"), IsEmpty());
    EXPECT_THAT(taken("of the other path"), IsEmpty());
    EXPECT_THAT(taken("one too many"), ElementsAre(event(path, "one too many")));
    EXPECT_EQ(count(kDiscardLine), 1);
    expectOrderlyEnd();
}

INSTANTIATE_TEST_SUITE_P(Of, OnePathTest, testing::Values(kNormal, kRapid),
                         [](const auto& tested) { return tested.param.name; });

TEST_F(EventOverflowTest, ABlockedRecipientHoldsUpBothPathsAndLosesNothing) {
    plugin("raiser").raise(event(kNormal, "blocks", "blocker"));
    ASSERT_TRUE(waitUntil([this] { return root.isHeld("blocker", "message"); }));
    const std::string rapid = R"({"to":[5,"taker"],"api":"smaReceivePilotData"})";
    plugin("raiser").raise(rapid);
    EXPECT_TRUE(host->waitLogged("exception in event callback"));
    EXPECT_THAT(plugin("taker").texts("messages"), IsEmpty());
    unblock();
    EXPECT_THAT(waitMessages("taker", 1), ElementsAre(rapid));
    EXPECT_THAT(waitMessages("blocker", 1), ElementsAre(event(kNormal, "blocks", "blocker")));
}

} // namespace
} // namespace ktr::test
