#pragma once

#include "ktr/common/FileSystem.h"
#include "ktr/common/ThreadPool.h"
#include "ktr/common/WebApiBasic.h"

#include <cstddef>
#include <exception>
#include <functional>
#include <list>
#include <optional>
#include <string>
#include <vector>

/// The common services under a test's control. Programs link ketra_test_fakes in the place of
/// libKetraCommon.so: same headers, same symbols. All state is process-wide; reset() between tests.
/// Thread-safe.
namespace ktr::test::fakes {

/// Forgets all that was recorded and all that was prepared. Handlers and tasks are destroyed.
void reset();

// ---- ThreadPool: keeps its tasks until the test runs them

struct PoolTask {
    std::string pool;
    /// What start() got as the name; none for the form without a name.
    std::optional<std::string> name;
    std::function<void()> run;
};

struct PoolSizes {
    std::string name;
    int minCapacity;
    int maxCapacity;
    int idleTime;
    int stackSize;
};

/// The pools made so far (but for the default pool), oldest first.
std::vector<PoolSizes> poolsMade();
/// Names of the pools destroyed so far.
std::vector<std::string> poolsDestroyed();
/// How many tasks wait to be run.
std::size_t taskCount();
/// The waiting tasks without their functions, oldest first.
std::vector<PoolTask> tasks();
/// Takes the oldest waiting task; fails the test's run with std::logic_error if there is none.
PoolTask takeTask();
/// Runs all that waits, also what comes while it runs, on the calling thread; what tasks throw
/// leaves this function.
void runTasks();
/// What available() answers for the pool named `pool` ("default" for the default pool).
void setAvailable(const std::string& pool, int threads);
/// Every start() of any pool throws this until reset() or null.
void failStart(std::exception_ptr failure);
/// Called inside every start(), before the task is filed.
void onStart(std::function<void()> hook);
/// Every constructor of a pool throws this until reset() or null.
void failPools(std::exception_ptr failure);

// ---- WebApiBasic

struct Route {
    std::string route;
    WebApiBasic::Handler handler;
};
/// The routes registered so far, oldest first.
std::vector<Route> routes();
/// apiRegist throws this until reset() or null.
void failRegistration(std::exception_ptr failure);

// ---- WebHookBasic

/// How often reportServerStarted was called.
int serverStartedReports();
/// reportServerStarted throws this until reset() or null.
void failWebHook(std::exception_ptr failure);
/// Called inside reportServerStarted, after it was counted.
void onServerStarted(std::function<void()> hook);

// ---- FileSystem

struct Listing {
    std::string directory;
    ListFileType type;
    std::string filter;
    bool outWasEmpty;
};
/// What getCurrentPath answers; getCurrentChildPath answers it with "/" and the name appended.
void setCurrentPath(const std::string& path);
/// Both throw this until reset() or null.
void failCurrentPath(std::exception_ptr failure);
/// What listFilesRecursively appends.
void setFiles(const std::list<std::string>& files);
/// listFilesRecursively throws this after it has appended.
void failListing(std::exception_ptr failure);
std::vector<Listing> listings();

// ---- ProcessControl

/// Names that cleanProcessByName got.
std::vector<std::string> cleanedNames();
/// Pids that cleanProcessById got. Each was ended with its process group, and waited for, if it was
/// a child of this process.
std::vector<unsigned int> cleanedIds();
/// Called by cleanProcessByName with its name; may throw.
void onCleanByName(std::function<void(const std::string&)> hook);
/// cleanProcessById throws this, instead of ending anything, until reset() or null.
void failCleanById(std::exception_ptr failure);
/// Called by cleanProcessById with its pid, before that is ended.
void onCleanById(std::function<void(unsigned int)> hook);

} // namespace ktr::test::fakes
