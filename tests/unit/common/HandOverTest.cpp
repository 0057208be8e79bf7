#include "common/HandOver.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <thread>

namespace ktr {
namespace {

TEST(HandOver, LeavesATaskAloneForWhichNobodyWaits) {
    HandOver<> handOver(true);
    bool ran = false;
    std::function<void()> task = [&] { ran = true; };
    EXPECT_FALSE(handOver.give(task, "task"));
    ASSERT_TRUE(task);
    task();
    EXPECT_TRUE(ran);
}

TEST(HandOver, GivesUpAfterAMoment) {
    HandOver<> handOver(true);
    HandOver<>::Work work;
    ASSERT_TRUE(handOver.offer());
    EXPECT_FALSE(handOver.take(work, true));
    std::function<void()> task = [] {};
    EXPECT_FALSE(handOver.give(task, "late"));
}

TEST(HandOver, GivesTheTaskWithItsNameToWhoWaits) {
    HandOver<> handOver(true);
    HandOver<>::Work work;
    ASSERT_TRUE(handOver.offer());
    std::function<void()> task = [] {};
    EXPECT_TRUE(handOver.give(task, "task"));
    EXPECT_TRUE(handOver.take(work, true));
    EXPECT_TRUE(work.task);
    EXPECT_EQ(work.name, "task");
}

TEST(HandOver, KeepsNoTaskThatWasGivenToWhoMayNotWait) {
    HandOver<> handOver(true);
    HandOver<>::Work work;
    ASSERT_TRUE(handOver.offer());
    std::function<void()> task = [] {};
    EXPECT_TRUE(handOver.give(task, "task"));
    EXPECT_TRUE(handOver.take(work, false));
    EXPECT_TRUE(work.task);
}

TEST(HandOver, LeavesTheTaskToAnotherThatComesBeforeWhoWaits) {
    HandOver<> handOver(true);
    HandOver<>::Work work;
    ASSERT_TRUE(handOver.offer());
    int ran = 0;
    std::function<void()> first = [&] { ran = 1; };
    std::function<void()> second = [&] { ran = 2; };
    ASSERT_TRUE(handOver.give(first, "first"));
    ASSERT_TRUE(handOver.takeOver(work));
    EXPECT_EQ(work.name, "first");
    work.task();
    EXPECT_EQ(ran, 1);
    // the one that waits still does
    EXPECT_FALSE(handOver.offer());
    ASSERT_TRUE(handOver.give(second, "second"));
    ASSERT_TRUE(handOver.take(work, true));
    EXPECT_EQ(work.name, "second");
    work.task();
    EXPECT_EQ(ran, 2);
}

// It may be older than what the other has just done.
TEST(HandOver, LeavesTheTaskToWhoWaitsWhereWorkersAreFew) {
    HandOver<> handOver(false);
    HandOver<>::Work work;
    ASSERT_TRUE(handOver.offer());
    std::function<void()> task = [] {};
    ASSERT_TRUE(handOver.give(task, "task"));
    EXPECT_FALSE(handOver.takeOver(work));
    EXPECT_FALSE(work.task);
    EXPECT_TRUE(handOver.take(work, true));
    EXPECT_EQ(work.name, "task");
}

TEST(HandOver, TakesNothingOverWhereNothingWasGiven) {
    HandOver<> handOver(true);
    HandOver<>::Work work;
    EXPECT_FALSE(handOver.takeOver(work));
    ASSERT_TRUE(handOver.offer());
    EXPECT_FALSE(handOver.takeOver(work));
    EXPECT_FALSE(work.task);
    EXPECT_FALSE(handOver.take(work, false));
}

TEST(HandOver, LetsOneWaitAtATime) {
    HandOver<> handOver(true);
    HandOver<>::Work work;
    ASSERT_TRUE(handOver.offer());
    EXPECT_FALSE(handOver.offer());
    EXPECT_FALSE(handOver.take(work, false));
    EXPECT_TRUE(handOver.offer());
}

TEST(HandOver, WaitsSeldomWhereNoTaskComes) {
    HandOver<> handOver(true);
    HandOver<>::Work work;
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
    HandOver<> handOver(true);
    HandOver<>::Work work;
    ASSERT_TRUE(handOver.offer());
    while (handOver.isWorthIt()) {
    }
    std::function<void()> task = [] {};
    EXPECT_TRUE(handOver.give(task, "task"));
    EXPECT_TRUE(handOver.take(work, false));
    ASSERT_TRUE(handOver.offer());
    EXPECT_TRUE(handOver.isWorthIt());
}

/// Stands still but for a leap when it is looked at for the second time.
struct LeapingClock : std::chrono::steady_clock {
    static time_point now() {
        if (++looks == 2) {
            atLeap();
            time += leap;
        }
        return time;
    }

    static inline int looks = 0;
    static inline time_point time{};
    static inline std::chrono::microseconds leap{};
    static inline std::function<void()> atLeap;
};

/// Whether it pays to wait after a task that came when `passed` was over.
bool isWorthItAfterATaskWithin(std::chrono::microseconds passed) {
    HandOver<LeapingClock> handOver(false);
    HandOver<LeapingClock>::Work work;
    std::function<void()> task = [] {};
    LeapingClock::looks = 0;
    LeapingClock::leap = passed;
    LeapingClock::atLeap = [&] { EXPECT_TRUE(handOver.give(task, "task")); };
    EXPECT_TRUE(handOver.offer());
    EXPECT_TRUE(handOver.take(work, true));
    EXPECT_TRUE(handOver.offer());
    return handOver.isWorthIt();
}

TEST(HandOver, WaitsSeldomOnceTheThreadHasLostTheProcessor) {
    EXPECT_TRUE(isWorthItAfterATaskWithin(std::chrono::microseconds(19)));
    EXPECT_FALSE(isWorthItAfterATaskWithin(std::chrono::milliseconds(3)));
}

TEST(HandOver, GivesEachTaskOnceToOneOfSeveral) {
    constexpr int tasks = 200;
    HandOver<> handOver(true);
    std::atomic<int> ran{0};
    std::atomic<bool> ending{false};
    const auto takeAll = [&] {
        HandOver<>::Work work;
        while (!ending)
            if (handOver.offer() ? handOver.take(work, true) : handOver.takeOver(work))
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
