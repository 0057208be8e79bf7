#pragma once

#include "FakeCommon.h"

#include <deque>
#include <map>
#include <mutex>

namespace ktr::test::fakes {

/// What the fakes remember and what the tests prepared.
struct State {
    std::deque<PoolTask> tasks;
    std::vector<PoolSizes> poolsMade;
    std::vector<std::string> poolsDestroyed;
    std::map<std::string, int> available;
    std::exception_ptr startFailure;
    std::exception_ptr poolFailure;
    std::function<void()> startHook;

    std::vector<Route> routes;
    std::exception_ptr registrationFailure;

    int serverStartedReports = 0;
    std::exception_ptr webHookFailure;
    std::function<void()> serverStartedHook;

    std::string currentPath = "/nowhere";
    std::exception_ptr currentPathFailure;
    std::list<std::string> files;
    std::exception_ptr listingFailure;
    std::vector<Listing> listings;

    std::vector<std::string> cleanedNames;
    std::vector<unsigned int> cleanedIds;
    std::function<void(const std::string&)> cleanByNameHook;
    std::exception_ptr cleanByIdFailure;
    std::function<void(unsigned int)> cleanByIdHook;
};

/// The state, locked for as long as the object lives. Never destroyed: statics of the code under
/// test use the fakes until the process ends.
class Locked {
public:
    Locked() : lock(mutex()) {}
    State* operator->() const { return &state(); }
    State& operator*() const { return state(); }

private:
    static std::mutex& mutex() {
        static auto* const kept = new std::mutex;
        return *kept;
    }
    static State& state() {
        static auto* const kept = new State;
        return *kept;
    }
    const std::lock_guard<std::mutex> lock;
};

inline void throwIfSet(const std::exception_ptr& failure) {
    if (failure)
        std::rethrow_exception(failure);
}

} // namespace ktr::test::fakes
