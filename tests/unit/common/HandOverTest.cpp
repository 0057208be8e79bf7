#include "common/HandOver.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

namespace ktr {
namespace {

bool agree() {
    return true;
}

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
    EXPECT_FALSE(handOver.take(work, agree));
    std::function<void()> task = [] {};
    EXPECT_FALSE(handOver.give(task, "late"));
}

TEST(HandOver, GivesTheTaskWithItsNameToWhoWaits) {
    HandOver handOver;
    HandOver::Work work;
    bool given = false;
    // given while the wait begins, which is the one moment that a test can be sure of
    const bool taken = handOver.take(work, [&] {
        std::function<void()> task = [] {};
        given = handOver.give(task, "task");
        return true;
    });
    EXPECT_TRUE(given);
    EXPECT_TRUE(taken);
    EXPECT_TRUE(work.task);
    EXPECT_EQ(work.name, "task");
}

TEST(HandOver, KeepsNoneThatWasGivenToWhoMayNotWait) {
    HandOver handOver;
    HandOver::Work work;
    const bool taken = handOver.take(work, [&] {
        std::function<void()> task = [] {};
        handOver.give(task, "task");
        return false;
    });
    EXPECT_TRUE(taken);
    EXPECT_TRUE(work.task);
}

TEST(HandOver, LetsOneWaitAtATime) {
    HandOver handOver;
    HandOver::Work work;
    bool second = true;
    EXPECT_FALSE(handOver.take(work, [&] {
        HandOver::Work other;
        second = handOver.take(other, agree);
        return true;
    }));
    EXPECT_FALSE(second);
}

TEST(HandOver, GivesEachTaskOnceToOneOfSeveral) {
    constexpr int tasks = 200;
    HandOver handOver;
    std::atomic<int> ran{0};
    std::atomic<bool> ending{false};
    const auto takeAll = [&] {
        HandOver::Work work;
        while (!ending)
            if (handOver.take(work, agree))
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
