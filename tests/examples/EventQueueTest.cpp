#include "recorder/EventQueue.h"

#include <gmock/gmock.h>

#include <atomic>
#include <thread>

namespace ktr::example {
namespace {

const std::atomic<bool> kLive{false};

TEST(EventQueueTest, givesTheOldestUntilItIsRemoved) {
    EventQueue queue(10);
    queue.push("first");
    queue.push("second");
    const auto item = queue.front(kLive);
    EXPECT_EQ("first", item->text);
    EXPECT_EQ("first", queue.front(kLive)->text);
    queue.remove(item->number);
    EXPECT_EQ("second", queue.front(kLive)->text);
}

TEST(EventQueueTest, dropsTheOldestWhenFullAndCountsIt) {
    EventQueue queue(2);
    EXPECT_EQ(0U, queue.push("1"));
    EXPECT_EQ(0U, queue.push("2"));
    EXPECT_EQ(1U, queue.push("3"));
    EXPECT_EQ(2U, queue.push("4"));
    EXPECT_EQ("3", queue.front(kLive)->text);
}

TEST(EventQueueTest, removesNoOtherEventForOneThatWasDropped) {
    EventQueue queue(1);
    queue.push("1");
    const auto item = queue.front(kLive);
    queue.push("2");
    queue.remove(item->number);
    EXPECT_EQ("2", queue.front(kLive)->text);
}

TEST(EventQueueTest, wakesAWaiterWhenAnEventComes) {
    EventQueue queue(10);
    std::thread pusher([&] { queue.push("late"); });
    EXPECT_EQ("late", queue.front(kLive)->text);
    pusher.join();
}

TEST(EventQueueTest, givesNothingToAWaiterThatIsToEnd) {
    EventQueue queue(10);
    std::atomic<bool> ended{false};
    std::thread ender([&] {
        ended = true;
        queue.wake();
    });
    EXPECT_FALSE(queue.front(ended).has_value());
    ender.join();
    queue.push("event");
    EXPECT_FALSE(queue.front(ended).has_value());
}

} // namespace
} // namespace ktr::example
