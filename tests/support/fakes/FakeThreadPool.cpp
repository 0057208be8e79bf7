#include "State.h"

#include <stdexcept>
#include <utility>

namespace ktr {

using test::fakes::Locked;
using test::fakes::PoolTask;

struct ThreadPool::Progress {};

namespace {

const std::string& checked(const std::string& name) {
    test::fakes::throwIfSet(Locked()->poolFailure);
    return name;
}

void file(PoolTask task) {
    std::function<void()> hook;
    std::exception_ptr failure;
    {
        const Locked state;
        hook = state->startHook;
        failure = state->startFailure;
    }
    if (hook)
        hook();
    test::fakes::throwIfSet(failure);
    Locked()->tasks.push_back(std::move(task));
}

} // namespace

ThreadPool::ThreadPool(const std::string& name, int minCapacity, int maxCapacity, int idleTime,
                       int stackSize)
    : Poco::ThreadPool(checked(name), minCapacity, maxCapacity, idleTime, stackSize) {
    if (name != "default")
        Locked()->poolsMade.push_back({name, minCapacity, maxCapacity, idleTime, stackSize});
}

ThreadPool::~ThreadPool() {
    Locked()->poolsDestroyed.push_back(name());
}

ThreadPool& ThreadPool::defaultPool() {
    static ThreadPool pool("default", 1, 2, 60, 0);
    return pool;
}

void ThreadPool::start(std::function<void()> task) {
    file({name(), std::nullopt, std::move(task)});
}

void ThreadPool::start(std::function<void()> task, const std::string& taskName) {
    file({name(), taskName, std::move(task)});
}

int ThreadPool::available() const {
    const Locked state;
    const auto found = state->available.find(name());
    return found == state->available.end() ? capacity() : found->second;
}

void ThreadPool::close() {}

} // namespace ktr

namespace ktr::test::fakes {

std::vector<PoolSizes> poolsMade() {
    return Locked()->poolsMade;
}

std::vector<std::string> poolsDestroyed() {
    return Locked()->poolsDestroyed;
}

std::size_t taskCount() {
    return Locked()->tasks.size();
}

std::vector<PoolTask> tasks() {
    std::vector<PoolTask> found;
    const Locked state;
    for (const PoolTask& task : state->tasks)
        found.push_back({task.pool, task.name, nullptr});
    return found;
}

PoolTask takeTask() {
    const Locked state;
    if (state->tasks.empty())
        throw std::logic_error("no task waits");
    PoolTask task = std::move(state->tasks.front());
    state->tasks.pop_front();
    return task;
}

void runTasks() {
    while (taskCount() > 0)
        takeTask().run();
}

void setAvailable(const std::string& pool, int threads) {
    Locked()->available[pool] = threads;
}

void failStart(std::exception_ptr failure) {
    Locked()->startFailure = std::move(failure);
}

void onStart(std::function<void()> hook) {
    Locked()->startHook = std::move(hook);
}

void failPools(std::exception_ptr failure) {
    Locked()->poolFailure = std::move(failure);
}

} // namespace ktr::test::fakes
