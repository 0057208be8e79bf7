#include "ktr/common/ThreadPool.h"

#include "HandOver.h"
#include "ktr/common/Logger.h"

#include <Poco/Exception.h>
#include <Poco/Format.h>
#include <Poco/Runnable.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <system_error>
#include <thread>
#include <utility>

namespace ktr {

namespace {

// A thread takes microseconds to fall asleep, but much longer if others keep it from the processor.
constexpr std::chrono::microseconds kRetryDelay{50};
constexpr int kTries = 20000;

// As many threads are never all about to end their tasks.
constexpr int kPlenty = 64;

} // namespace

/// How many accepted tasks have not ended yet. Counted without a lock: every task comes by twice.
/// Hidden, or it would be offered to others with the class around it.
struct __attribute__((visibility("hidden"))) ThreadPool::Progress {
    explicit Progress(int maxCapacity) : hasPlenty(maxCapacity >= kPlenty) {}
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    void enter(int capacity) {
        int before = pending;
        do {
            if (closed)
                throw Poco::IllegalStateException("thread pool is closed");
            if (before >= capacity)
                throw Poco::NoThreadAvailableException();
        } while (!pending.compare_exchange_weak(before, before + 1));
        // who closed the pool meanwhile may have seen no task left
        if (!closed)
            return;
        leave();
        throw Poco::IllegalStateException("thread pool is closed");
    }

    void leave() {
        --pending;
        // whoever begins to wait after this look sees the new count
        if (waiting == 0)
            return;
        const std::lock_guard<std::mutex> lock(mutex);
        changed.notify_all();
    }

    /// Returns when no more than `most` tasks are left.
    void wait(int most) {
        std::unique_lock<std::mutex> lock(mutex);
        ++waiting;
        changed.wait(lock, [&] { return pending <= most; });
        --waiting;
    }

    /// Whether a thread that has ended its task may wait for another. Where one is pending still,
    /// threads are kept from the processor, and one more that holds it would make that worse.
    bool mayWait() { return (hasPlenty || pending == 0) && handOver.isWorthIt(); }

    const bool hasPlenty;
    std::atomic<int> pending{0};
    std::atomic<bool> closed{false};
    std::atomic<int> waiting{0};
    std::mutex mutex;
    std::condition_variable changed;
    HandOver<> handOver{hasPlenty};
    /// One that has nothing to do, for the next task.
    std::atomic<Worker*> spare{nullptr};
};

/// Runs an accepted task, and those that are handed to it right after; belongs to itself meanwhile.
class __attribute__((visibility("hidden"))) ThreadPool::Worker : public Poco::Runnable {
public:
    /// Has a thread of `pool` run the task. Returns false, and leaves `task` alone, if none sleeps
    /// and no more may be made.
    static bool wake(Poco::ThreadPool& pool, const std::shared_ptr<Progress>& progress,
                     std::function<void()>& task, const std::string& name) {
        std::unique_ptr<Worker> worker(progress->spare.exchange(nullptr));
        if (!worker)
            worker = std::make_unique<Worker>();
        worker->work.name = name;
        worker->work.task.swap(task);
        worker->progress = progress;
        try {
            pool.start(*worker);
        } catch (const Poco::NoThreadAvailableException&) {
            worker->work.task.swap(task);
            return false;
        }
        // it owns itself from here on
        static_cast<void>(worker.release());
        return true;
    }

    void run() override {
        // the pool may end meanwhile, and a spare one must not keep what it belongs to
        const std::shared_ptr<Progress> kept = std::move(progress);
        const Return whenDone{*this, *kept};
        bool offered = false;
        do {
            const Turn turn(*kept);
            execute();
            // before the task counts as ended: whoever waited for that shall find this thread
            offered = kept->handOver.offer();
        } while (offered ? kept->handOver.take(work, kept->mayWait())
                         : kept->handOver.takeOver(work));
    }

    /// The pool whose task runs on this thread, if any.
    static thread_local Progress* current;

private:
    /// Also when a failure cannot be logged.
    struct Return {
        Worker& worker;
        Progress& progress;
        ~Return() { delete progress.spare.exchange(&worker); }
    };

    /// Ends also when a failure cannot be logged, or who waits for the task would wait for ever.
    struct Turn {
        explicit Turn(Progress& progress_)
            : progress(progress_), outer(std::exchange(current, &progress_)) {}
        ~Turn() {
            current = outer;
            progress.leave();
        }
        Turn(const Turn&) = delete;
        Turn& operator=(const Turn&) = delete;

        Progress& progress;
        Progress* const outer;
    };

    void execute() {
        try {
            const std::function<void()> once = std::exchange(work.task, nullptr);
            once();
        } catch (const Poco::Exception& e) {
            logFailure(e.displayText());
        } catch (const std::exception& e) {
            logFailure(e.what());
        } catch (...) {
            logFailure("exception of unknown type");
        }
    }

    void logFailure(const std::string& reason) const {
        if (cachedLogger().error())
            cachedLogger().error(Poco::format("task '%s' failed: %s", work.name, reason), __FILE__,
                                 __LINE__);
    }

    HandOver<>::Work work;
    std::shared_ptr<Progress> progress;
};

ThreadPool::Progress::~Progress() {
    delete spare;
}

thread_local ThreadPool::Progress* ThreadPool::Worker::current = nullptr;

ThreadPool::ThreadPool(const std::string& name, int minCapacity, int maxCapacity, int idleTime,
                       int stackSize)
    : Poco::ThreadPool(name, minCapacity, maxCapacity, idleTime, stackSize),
      progress(std::make_shared<Progress>(maxCapacity)) {}

ThreadPool::~ThreadPool() {
    close();
    stopAll();
}

void ThreadPool::start(std::function<void()> task) {
    start(std::move(task), name());
}

void ThreadPool::start(std::function<void()> task, const std::string& name) {
    progress->enter(capacity());
    try {
        // By the count of tasks a thread is free, but it may be on its way to sleep yet.
        int tries = kTries;
        while (!progress->handOver.give(task, name) && !Worker::wake(*this, progress, task, name)) {
            if (--tries == 0)
                throw Poco::NoThreadAvailableException();
            std::this_thread::sleep_for(kRetryDelay);
        }
    } catch (...) {
        progress->leave();
        throw;
    }
}

int ThreadPool::available() const {
    return std::max(capacity() - progress->pending, 0);
}

// Poco's joinAll holds the lock that available() takes while it waits.
void ThreadPool::joinAll() {
    progress->wait(Worker::current == progress.get() ? 1 : 0);
}

void ThreadPool::close() {
    progress->closed = true;
    joinAll();
}

namespace {

// Every service of a full device may report at once, and each report holds two threads while its
// plugin starts.
constexpr int kDefaultMaxThreads = 512;
constexpr int kDefaultIdleSeconds = 10;

constexpr int kDefaultMinThreads = 2;

/// The default pool, and the thread that gives idle threads back after a burst: Poco looks after
/// them only when another task is started.
class DefaultPool {
public:
    /// The pool is about to be used. Whoever finds it grown sees to it that it shrinks again.
    ThreadPool& use() {
        if (!trimming && threads.allocated() > kDefaultMinThreads && !trimming.exchange(true))
            startTrimmer();
        return threads;
    }

    void end() {
        threads.close();
        {
            const std::lock_guard<std::mutex> lock(mutex);
            ending = true;
        }
        changed.notify_all();
        if (trimmer.joinable())
            trimmer.join();
        threads.stopAll();
    }

private:
    void startTrimmer() {
        const std::lock_guard<std::mutex> lock(mutex);
        if (ending)
            return;
        if (trimmer.joinable())
            trimmer.join();
        try {
            trimmer = std::thread([this] { trim(); });
        } catch (const std::system_error&) {
            // the pool serves all the same; whoever uses it next tries again
            trimming = false;
        }
    }

    void trim() {
        std::unique_lock<std::mutex> lock(mutex);
        do {
            changed.wait_for(lock, std::chrono::seconds(kDefaultIdleSeconds + 1),
                             [this] { return ending; });
            threads.collect();
        } while (!ending && threads.allocated() > kDefaultMinThreads);
        trimming = false;
    }

    ThreadPool threads{"default", kDefaultMinThreads, kDefaultMaxThreads, kDefaultIdleSeconds, 0};
    std::atomic<bool> trimming{false};

    // guards ending and the making of trimmer
    std::mutex mutex;
    std::condition_variable changed;
    std::thread trimmer;
    bool ending = false;
};

struct EndAtExit {
    DefaultPool& pool;
    ~EndAtExit() { pool.end(); }
};

} // namespace

ThreadPool& ThreadPool::defaultPool() {
    // Ended at exit but never destroyed: statics that end later may still ask for it, and get a
    // pool that refuses.
    static auto* const pool = new DefaultPool;
    static const EndAtExit atExit{*pool};
    return pool->use();
}

} // namespace ktr
