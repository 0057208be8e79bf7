#include "Inbox.h"

#include <gmock/gmock.h>

#include <chrono>
#include <future>
#include <stdexcept>

namespace ktr::testkit {
namespace {

using namespace std::chrono_literals;
using ::testing::Optional;

TEST(TestKitInbox, GivesEventsInTheOrderInWhichTheyCame) {
    Inbox inbox;
    for (const char* event : {"a", "b"})
        inbox.put(event);
    EXPECT_THAT(inbox.take(0ms), Optional(std::string("a")));
    EXPECT_THAT(inbox.take(0ms), Optional(std::string("b")));
    EXPECT_EQ(inbox.take(0ms), std::nullopt);
}

TEST(TestKitInbox, WakesWhoWaitsForAnEvent) {
    Inbox inbox;
    auto taken = std::async(std::launch::async, [&] { return inbox.take(20s); });
    inbox.put("late");
    EXPECT_THAT(taken.get(), Optional(std::string("late")));
}

TEST(TestKitInbox, SaysFromThenOnThatEventsWereLost) {
    Inbox inbox;
    for (std::size_t i = 0; i < Inbox::kCapacity; ++i)
        inbox.put("event");
    EXPECT_TRUE(inbox.take(0ms));
    inbox.put("the last that finds room");
    EXPECT_TRUE(inbox.take(0ms));
    inbox.put("one");
    inbox.put("one too many");
    EXPECT_THROW(inbox.take(0ms), std::runtime_error);
    EXPECT_THROW(inbox.take(0ms), std::runtime_error);
}

TEST(TestKitInbox, CountsListeners) {
    Inbox inbox;
    EXPECT_TRUE(inbox.waitForListeners(0, 0ms));
    inbox.listenerStarted();
    EXPECT_TRUE(inbox.waitForListeners(1, 0ms));
    EXPECT_FALSE(inbox.waitForListeners(2, 0ms));
}

} // namespace
} // namespace ktr::testkit
