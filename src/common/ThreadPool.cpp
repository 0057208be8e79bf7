#include "ktr/common/ThreadPool.h"

#include "ktr/common/Logger.h"

#include <Poco/Exception.h>
#include <Poco/Format.h>
#include <Poco/Runnable.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <system_error>
#include <thread>
#include <utility>

namespace ktr {

/// How many accepted tasks have not ended yet.
struct ThreadPool::Progress {
    std::mutex mutex;
    std::condition_variable changed;
    int pending = 0;
    bool closed = false;

    void enter() {
        const std::lock_guard<std::mutex> lock(mutex);
        if (closed)
            throw Poco::IllegalStateException("thread pool is closed");
        ++pending;
    }

    void leave() {
        const std::lock_guard<std::mutex> lock(mutex);
        --pending;
        changed.notify_all();
    }
};

/// One accepted task; deletes itself when it has run. Hidden, or it would be offered to others with
/// the class around it.
class __attribute__((visibility("hidden"))) ThreadPool::Task : public Poco::Runnable {
public:
    Task(std::function<void()> work_, std::string name_, std::shared_ptr<Progress> progress_)
        : work(std::move(work_)), name(std::move(name_)), progress(std::move(progress_)) {}

    void run() override {
        const std::unique_ptr<Task> self(this);
        const std::shared_ptr<Progress> kept = std::move(progress);
        const Turn turn(*kept);
        execute();
    }

    /// The pool whose task runs on this thread, if any.
    static thread_local Progress* current;

private:
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
            const std::function<void()> once = std::move(work);
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
            cachedLogger().error(Poco::format("task '%s' failed: %s", name, reason), __FILE__,
                                 __LINE__);
    }

    std::function<void()> work;
    std::string name;
    std::shared_ptr<Progress> progress;
};

thread_local ThreadPool::Progress* ThreadPool::Task::current = nullptr;

ThreadPool::ThreadPool(const std::string& name, int minCapacity, int maxCapacity, int idleTime,
                       int stackSize)
    : Poco::ThreadPool(name, minCapacity, maxCapacity, idleTime, stackSize),
      progress(std::make_shared<Progress>()) {}

ThreadPool::~ThreadPool() {
    close();
    stopAll();
}

void ThreadPool::start(std::function<void()> task) {
    submit(std::move(task), name());
}

void ThreadPool::start(std::function<void()> task, const std::string& name) {
    submit(std::move(task), name);
}

void ThreadPool::submit(std::function<void()> task, const std::string& name) {
    auto work = std::make_unique<Task>(std::move(task), name, progress);
    progress->enter();
    try {
        Poco::ThreadPool::start(*work, name);
    } catch (...) {
        progress->leave();
        throw;
    }
    // the task owns itself from here on
    static_cast<void>(work.release());
}

// Poco's joinAll holds the lock that available() takes while it waits.
void ThreadPool::joinAll() {
    const int own = Task::current == progress.get() ? 1 : 0;
    std::unique_lock<std::mutex> lock(progress->mutex);
    progress->changed.wait(lock, [&] { return progress->pending <= own; });
}

void ThreadPool::close() {
    {
        const std::lock_guard<std::mutex> lock(progress->mutex);
        progress->closed = true;
    }
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
