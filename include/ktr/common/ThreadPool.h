#pragma once

#include "ktr/Export.h"

#include <Poco/ThreadPool.h>

#include <functional>
#include <memory>
#include <string>

namespace ktr {

/// A pool of threads for short tasks. capacity() and allocated() are Poco::ThreadPool's; tasks are
/// handed over with the two start functions below, never with Poco's.
///
/// A thread that has ended its task looks for the next one for some microseconds before it sleeps.
/// It is free meanwhile, but Poco's own used() and available() take it for busy.
///
/// Thread safety: all functions may be called from any thread, also from inside a task, but for the
/// destructor and close().
class KTR_API ThreadPool : public Poco::ThreadPool,
                           public std::enable_shared_from_this<ThreadPool> {
public:
    /// `minCapacity` (at least 1) threads are made at once and stay, up to `maxCapacity` are made
    /// when wanted; `idleTime` in seconds (at least 1) is how long one of the others may idle;
    /// `stackSize` in bytes, 0 for the platform's default. Throws Poco::SystemException if a thread
    /// cannot be made.
    ThreadPool(const std::string& name, int minCapacity, int maxCapacity, int idleTime,
               int stackSize);

    /// Calls close() and ends the threads. Called from one of the pool's own tasks it does not wait
    /// for that task, but takes ten seconds to give up on its thread.
    ~ThreadPool();

    ThreadPool(const ThreadPool&) = delete;
    ThreadPool& operator=(const ThreadPool&) = delete;

    /// The process-wide pool. It has room for a full device's services reporting at once; its
    /// threads are made when wanted and go when idle. At the end of the process it runs what it
    /// accepted.
    static ThreadPool& defaultPool();

    /// Runs `task` once on a thread of the pool, and returns at once. An accepted task always runs,
    /// also when the pool or the process ends right after. What it throws, of any type, is logged
    /// at error with the task's name (default: the pool's). If the only free thread is still on its
    /// way to sleep, this waits for it: microseconds, on a machine without a moment to spare up to
    /// some seconds.
    /// Throws Poco::NoThreadAvailableException when every thread is busy, Poco::SystemException
    /// when no thread can be made, Poco::IllegalStateException after close(); the task is then
    /// dropped.
    void start(std::function<void()> task);
    /// As above, under a name of its own.
    void start(std::function<void()> task, const std::string& name);

    /// How many more tasks would be taken now: capacity() less the tasks that have not ended yet,
    /// never less than 0.
    int available() const;

    /// Waits until every task accepted so far has ended. Holds no lock while it waits, so tasks may
    /// use the pool. Called from a task of this pool it does not wait for that task itself.
    void joinAll();

    /// Refuses new tasks from now on and waits for those that were accepted, as joinAll does.
    void close();

private:
    struct Progress;
    class Worker;

    // shared with the tasks, so that one may outlive the pool that it ends
    const std::shared_ptr<Progress> progress;
};

} // namespace ktr
