#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <utility>

namespace ktr {

/// Where a pool's worker that has just ended a task waits a moment for the next one. Under load a
/// task then changes hands without a call of the system, where to wake a sleeping thread costs
/// giver and taker more than most tasks take. At most one worker waits at a time.
class HandOver {
public:
    struct Work {
        std::function<void()> task;
        std::string name;
    };

    /// Returns false, and leaves `task` alone, if no worker waits.
    bool give(std::function<void()>& task, const std::string& name) {
        State expected = State::Awaited;
        if (!state.compare_exchange_strong(expected, State::Filling))
            return false;
        try {
            place.name = name;
        } catch (...) {
            state = State::Awaited;
            throw;
        }
        place.task.swap(task);
        state = State::Full;
        return true;
    }

    /// Called by a worker that is about to have no task: from now on one comes here first. Returns
    /// false if another worker waits already, and must be followed by take() if not.
    bool offer() {
        State expected = State::Empty;
        return state.compare_exchange_strong(expected, State::Awaited);
    }

    /// Whether tasks come soon enough to wait for one. Where they come seldom most waits are in
    /// vain; now and then it is tried again. To be asked after offer().
    bool isWorthIt() { return inVain++ < kTrials || inVain % kTrials == 0; }

    /// Returns false if nothing came, for which it waits a moment only if it may.
    bool take(Work& work, bool mayWait) {
        if (mayWait)
            await();
        State expected = State::Awaited;
        if (state.compare_exchange_strong(expected, State::Empty))
            return false;
        while (state != State::Full)
            std::this_thread::yield();
        inVain = 0;
        std::swap(work.name, place.name);
        work.task = std::move(place.task);
        state = State::Empty;
        return true;
    }

private:
    enum class State { Empty, Awaited, Filling, Full };
    using Clock = std::chrono::steady_clock;

    // about what it costs to fall asleep and be woken
    static constexpr std::chrono::microseconds kPatience{20};
    static constexpr unsigned kTrials = 8;

    void await() const {
        const auto end = Clock::now() + kPatience;
        // nobody who has something to do is kept from it
        while (state == State::Awaited && Clock::now() < end)
            std::this_thread::yield();
    }

    std::atomic<State> state{State::Empty};
    // of whoever has made the state Filling or found it Full
    Work place;
    // waits since the last task, of who has made the state Awaited
    unsigned inVain = 0;
};

} // namespace ktr
