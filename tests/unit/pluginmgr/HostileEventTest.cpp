#include "PluginManagerUnderTest.h"

namespace ktr {
namespace {

using namespace test;
using testing::SizeIs;

std::string repeat(const std::string& part, int times) {
    std::string whole;
    for (int i = 0; i < times; ++i)
        whole += part;
    return whole;
}

class HostileEventTest : public PluginManagerTest {
protected:
    HostileEventTest() {
        InitThreadPool();
        file("a")->instance = recipient;
    }

    /// The entry of a delivery of `text`.
    static std::string delivery(const std::string& text) { return "a:onMessage " + text; }

    const std::shared_ptr<DiaryPlugin> recipient = std::make_shared<DiaryPlugin>(diary, "a");
    const LogCapture log;
};

// The parser goes one call deeper with each level: without a bound, the raiser's stack would be
// full long before the end of these.
TEST_F(HostileEventTest, RefusesNestingThatWouldFillTheStack) {
    for (const char* level : {"[", R"({"a":)"}) {
        sEventCallback(R"({"to":["a"],"payload":)" + repeat(level, 100'000));
        sEventCallback(repeat(level, 100'000));
    }
    fakes::runTasks();
    EXPECT_THAT(log.texts(kCritical), SizeIs(4));
    EXPECT_EQ(log.count("Maximum depth exceeded"), 4);
    EXPECT_TRUE(diary.entries.empty());
}

TEST_F(HostileEventTest, DeliversWhatIsNestedAHundredLevelsDeep) {
    const std::string event =
        R"({"payload":)" + repeat("[", 100) + repeat("]", 100) + R"(,"to":["a"]})";
    sEventCallback(event);
    fakes::runTasks();
    EXPECT_THAT(diary.entries, testing::ElementsAre(delivery(event)));
    EXPECT_THAT(log.messages(), SizeIs(0));
}

} // namespace
} // namespace ktr
