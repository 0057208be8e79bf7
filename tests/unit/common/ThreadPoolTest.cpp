#include "ktr/common/ThreadPool.h"

#include "ktr/common/Logger.h"

#include "support/LogCapture.h"
#include "support/RefuseThreads.h"
#include "support/WaitUntil.h"

#include <Poco/Channel.h>
#include <Poco/Exception.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

namespace ktr {
namespace {

using test::LogCapture;
using test::refuseThreads;
using test::waitUntil;

std::shared_ptr<ThreadPool> makePool(int maxCapacity) {
    return std::make_shared<ThreadPool>("test", 1, maxCapacity, 60, 0);
}

TEST(ThreadPool, RunsATaskOnceOnAnotherThread) {
    const auto pool = makePool(2);
    std::atomic<int> runs{0};
    std::promise<std::thread::id> ran;
    pool->start([&] {
        ++runs;
        ran.set_value(std::this_thread::get_id());
    });
    EXPECT_NE(ran.get_future().get(), std::this_thread::get_id());
    pool->joinAll();
    EXPECT_EQ(runs, 1);
}

TEST(ThreadPool, TellsTheTruthAboutFreeThreads) {
    const auto pool = makePool(2);
    EXPECT_EQ(pool->available(), 2);
    std::promise<void> release;
    const std::shared_future<void> released(release.get_future());
    pool->start([released] { released.wait(); });
    EXPECT_EQ(pool->available(), 1);
    pool->start([released] { released.wait(); });
    EXPECT_EQ(pool->available(), 0);
    EXPECT_THROW(pool->start([] {}), Poco::NoThreadAvailableException);
    release.set_value();
    pool->joinAll();
    EXPECT_EQ(pool->available(), 2);
}

// By Poco's count its thread is busy until it sleeps.
TEST(ThreadPool, TakesATaskAtOnceWhenTheOneBeforeHasEnded) {
    const auto pool = makePool(1);
    for (int i = 0; i < 2000; ++i) {
        ASSERT_NO_THROW(pool->start([] {}));
        pool->joinAll();
        ASSERT_EQ(pool->available(), 1);
    }
}

/// Keeps the processor busy, as what a caller does between two tasks.
void work(std::chrono::microseconds time) {
    const auto end = std::chrono::steady_clock::now() + time;
    while (std::chrono::steady_clock::now() < end)
        continue;
}

TEST(ThreadPool, TakesATaskWheneverItHasAFreeThread) {
    constexpr int tasks = 5000;
    for (const int capacity : {1, 2, 4}) {
        const auto pool = makePool(capacity);
        std::atomic<int> ran{0};
        for (int i = 0; i < tasks; ++i) {
            while (pool->available() == 0)
                std::this_thread::yield();
            ASSERT_NO_THROW(pool->start([&] { ++ran; }));
            // from well below to well above the time for which a thread looks for another task
            work(std::chrono::microseconds(i % 80));
        }
        pool->joinAll();
        EXPECT_EQ(ran, tasks);
    }
}

bool takes(ThreadPool& pool, const std::function<void()>& task) {
    try {
        pool.start(task);
        return true;
    } catch (const Poco::NoThreadAvailableException&) {
        return false;
    }
}

TEST(ThreadPool, RunsWhatSeveralThreadsGiveItOnceEach) {
    constexpr std::size_t givers = 4;
    constexpr std::size_t tasks = 2000;
    const auto pool = makePool(givers);
    std::array<std::array<std::atomic<int>, tasks>, givers> runs{};
    std::vector<std::thread> threads;
    threads.reserve(givers);
    for (auto& own : runs)
        threads.emplace_back([&pool, &own] {
            for (auto& run : own)
                while (!takes(*pool, [&run] { ++run; }))
                    std::this_thread::yield();
        });
    for (std::thread& thread : threads)
        thread.join();
    pool->joinAll();
    for (const auto& own : runs)
        EXPECT_TRUE(std::all_of(own.begin(), own.end(), [](const auto& run) { return run == 1; }));
}

TEST(ThreadPool, GivesEachThreadOfASmallPoolItsTasksInOrder) {
    constexpr int tasks = 50000;
    const auto pool = makePool(4);
    std::mutex mutex;
    std::map<std::thread::id, int> last;
    bool inOrder = true;
    for (int n = 1; n <= tasks; ++n) {
        const auto note = [&, n] {
            const std::lock_guard<std::mutex> lock(mutex);
            int& before = last[std::this_thread::get_id()];
            inOrder = inOrder && before < n;
            before = n;
        };
        while (!takes(*pool, note))
            std::this_thread::yield();
    }
    pool->joinAll();
    EXPECT_TRUE(inOrder);
}

TEST(ThreadPool, LogsWhatATaskThrowsWithItsName) {
    const LogCapture log;
    const auto pool = makePool(4);
    pool->start([] { throw std::runtime_error("first"); }, "task-one");
    pool->start([] { throw Poco::NotFoundException("second"); }, "task-two");
    pool->start([] { throw 3; }, "task-three");
    pool->joinAll();
    EXPECT_EQ(log.count("task 'task-one' failed: first"), 1);
    EXPECT_EQ(log.count("task 'task-two' failed: Not found: second"), 1);
    EXPECT_EQ(log.count("task 'task-three' failed: exception of unknown type"), 1);
    EXPECT_EQ(log.texts(Poco::Message::PRIO_ERROR).size(), 3U);
}

/// A log that fails, as on a full disk.
class FullLog {
public:
    FullLog() : former(cachedLogger().getChannel()) { cachedLogger().setChannel(new Full); }
    ~FullLog() { cachedLogger().setChannel(former); }
    FullLog(const FullLog&) = delete;
    FullLog& operator=(const FullLog&) = delete;

private:
    struct Full : Poco::Channel {
        void log(const Poco::Message& /*message*/) override { throw Poco::WriteFileException(); }
    };
    const Poco::Channel::Ptr former;
};

// The task counted as running for ever, and the host's shutdown hung.
TEST(ThreadPool, WaitsNotForATaskWhoseFailureCannotBeLogged) {
    const FullLog log;
    const auto pool = makePool(4);
    pool->start([] { throw std::runtime_error("failed"); });
    const auto joined = std::make_shared<std::promise<void>>();
    // if it hangs, so would the pool's end: both are left alone then
    std::thread([kept = pool, joined]() mutable {
        kept->joinAll();
        // so that the pool's threads end before the process does
        kept.reset();
        joined->set_value();
    }).detach();
    EXPECT_EQ(joined->get_future().wait_for(std::chrono::seconds(10)), std::future_status::ready);
}

TEST(ThreadPool, RunsAnAcceptedTaskWhenItEndsRightAfter) {
    for (int i = 0; i < 200; ++i) {
        std::atomic<bool> ran{false};
        makePool(1)->start([&] { ran = true; });
        ASSERT_TRUE(ran);
    }
}

// A pool that waited for its tasks while holding its own lock would hang here.
TEST(ThreadPool, EndsWhileATaskAsksItForFreeThreads) {
    for (int i = 0; i < 50; ++i) {
        auto pool = makePool(2);
        ThreadPool& raw = *pool;
        std::promise<void> started;
        raw.start([&] {
            started.set_value();
            for (int n = 0; n < 1000; ++n)
                static_cast<void>(raw.available());
        });
        started.get_future().wait();
        pool.reset();
    }
}

TEST(ThreadPool, WaitsForAllTasksWhileTheyUseIt) {
    const auto pool = makePool(2);
    std::atomic<int> ended{0};
    for (int i = 0; i < 2; ++i)
        pool->start([&] {
            for (int n = 0; n < 1000; ++n)
                static_cast<void>(pool->available());
            ++ended;
        });
    pool->joinAll();
    EXPECT_EQ(ended, 2);
}

TEST(ThreadPool, RefusesTasksOnceClosed) {
    const auto pool = makePool(1);
    pool->close();
    EXPECT_THROW(pool->start([] {}), Poco::IllegalStateException);
}

TEST(ThreadPool, DropsTheTaskItRefuses) {
    const auto pool = makePool(1);
    pool->close();
    const auto held = std::make_shared<int>(1);
    EXPECT_THROW(pool->start([held] {}), Poco::IllegalStateException);
    EXPECT_EQ(held.use_count(), 1);
}

TEST(ThreadPool, ReleasesWhatATaskHoldsBeforeItCountsAsEnded) {
    const auto pool = makePool(1);
    const auto held = std::make_shared<int>(1);
    pool->start([held] {});
    pool->joinAll();
    EXPECT_EQ(held.use_count(), 1);
}

TEST(DefaultPool, HoldsTwoThreadsForEachOfAHundredServices) {
    std::promise<void> release;
    const std::shared_future<void> released(release.get_future());
    std::atomic<int> running{0};
    for (int i = 0; i < 210; ++i)
        ThreadPool::defaultPool().start([&running, released] {
            ++running;
            released.wait();
        });
    EXPECT_TRUE(waitUntil([&] { return running == 210; }));
    EXPECT_GT(ThreadPool::defaultPool().available(), 0);
    release.set_value();
    ThreadPool::defaultPool().joinAll();
}

// Whoever finds the pool grown makes the thread that gives the others back, which may fail.
TEST(DefaultPool, ServesAndGivesIdleThreadsBackAfterItsUserCouldMakeNoThread) {
    std::promise<void> release;
    const std::shared_future<void> released(release.get_future());
    ThreadPool& pool = ThreadPool::defaultPool();
    for (int i = 0; i < 20; ++i)
        pool.start([released] { released.wait(); });
    std::thread([] {
        refuseThreads();
        EXPECT_NO_THROW(ThreadPool::defaultPool());
    }).join();
    EXPECT_GE(ThreadPool::defaultPool().allocated(), 20);
    release.set_value();
    EXPECT_TRUE(waitUntil([&] { return pool.allocated() <= 2; }, std::chrono::seconds(40)));
}

struct SaysWhenDestroyed {
    std::atomic<bool>& destroyed;
    ~SaysWhenDestroyed() { destroyed = true; }
};

TEST(DefaultPoolDeathTest, RunsWhatItAcceptedAtTheEndOfTheProcess) {
    EXPECT_EXIT(
        {
            static std::atomic<bool> ending{false};
            ThreadPool::defaultPool().start([] {
                // made after the pool, so destroyed before the pool is ended
                if (waitUntil([] { return ending.load(); }))
                    std::fputs("accepted task ran\n", stderr);
            });
            static const SaysWhenDestroyed atExit{ending};
            std::exit(0);
        },
        testing::ExitedWithCode(0), "accepted task ran");
}

} // namespace
} // namespace ktr
