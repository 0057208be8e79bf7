#include "common/HandOver.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

namespace ktr {
namespace {

TEST(HandOver, LeavesATaskAloneForWhichNobodyWaits) {
    HandOver handOver;
    bool ran = false;
    std::function<void()> task = [&] { ran = true; };
    EXPECT_FALSE(handOver.give(task, "task"));
    ASSERT_TRUE(task);
    task();
    EXPECT_TRUE(ran);
}

TEST(HandOver, GivesUpAfterAMoment) {
    HandOver handOver;
    HandOver::Work work;
    ASSERT_TRUE(handOver.offer());
    EXPECT_FALSE(handOver.take(work, true));
    std::function<void()> task = [] {};
    EXPECT_FALSE(handOver.give(task, "late"));
}

TEST(HandOver, GivesTheTaskWithItsNameToWhoWaits) {
    HandOver handOver;
    HandOver::Work work;
    ASSERT_TRUE(handOver.offer());
    std::function<void()> task = [] {};
    EXPECT_TRUE(handOver.give(task, "task"));
    EXPECT_TRUE(handOver.take(work, true));
    EXPECT_TRUE(work.task);
    EXPECT_EQ(work.name, "task");
}

TEST(HandOver, KeepsNoTaskThatWasGivenToWhoMayNotWait) {
    HandOver handOver;
    HandOver::Work work;
    ASSERT_TRUE(handOver.offer());
    std::function<void()> task = [] {};
    EXPECT_TRUE(handOver.give(task, "task"));
    EXPECT_TRUE(handOver.take(work, false));
    EXPECT_TRUE(work.task);
}

TEST(HandOver, LetsOneWaitAtATime) {
    HandOver handOver;
    HandOver::Work work;
    ASSERT_TRUE(handOver.offer());
    EXPECT_FALSE(handOver.offer());
    EXPECT_FALSE(handOver.take(work, false));
    EXPECT_TRUE(handOver.offer());
}

TEST(HandOver, WaitsSeldomWhereNoTaskComes) {
    HandOver handOver;
    HandOver::Work work;
    int worth = 0;
    for (int i = 0; i < 1000; ++i) {
        ASSERT_TRUE(handOver.offer());
        worth += handOver.isWorthIt() ? 1 : 0;
        handOver.take(work, false);
    }
    EXPECT_GT(worth, 0);
    EXPECT_LT(worth, 200);
}

TEST(HandOver, WaitsAgainOnceATaskHasCome) {
    HandOver handOver;
    HandOver::Work work;
    ASSERT_TRUE(handOver.offer());
    while (handOver.isWorthIt()) {
    }
    std::function<void()> task = [] {};
    EXPECT_TRUE(handOver.give(task, "task"));
    EXPECT_TRUE(handOver.take(work, false));
    ASSERT_TRUE(handOver.offer());
    EXPECT_TRUE(handOver.isWorthIt());
}

TEST(HandOver, GivesEachTaskOnceToOneOfSeveral) {
    constexpr int tasks = 200;
    HandOver handOver;
    std::atomic<int> ran{0};
    std::atomic<bool> ending{false};
    const auto takeAll = [&] {
        HandOver::Work work;
        while (!ending)
            if (handOver.offer() && handOver.take(work, true))
                work.task();
    };
    std::thread first(takeAll);
    std::thread second(takeAll);
    for (int given = 0; given < tasks;) {
        std::function<void()> task = [&] { ++ran; };
        if (handOver.give(task, "task"))
            ++given;
        else
            std::this_thread::yield();
    }
    while (ran < tasks)
        std::this_thread::yield();
    ending = true;
    first.join();
    second.join();
    EXPECT_EQ(ran, tasks);
}

} // namespace
} // namespace ktr
