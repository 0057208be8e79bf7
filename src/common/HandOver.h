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
/// giver and taker more than most tasks take. At most one worker waits at a time; where threads are
/// many and processors few, another often gets there first.
template <class Clock = std::chrono::steady_clock>
class HandOver {
public:
    struct Work {
        std::function<void()> task;
        std::string name;
    };

    /// Where workers are many, whoever waits gives way to those that have something to do. Where
    /// they are few it does not, for the kernel holds that against a thread when it has work again,
    /// and the worker is then long about to end its task.
    explicit HandOver(bool hasMany_) : hasMany(hasMany_) {}

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

    /// Whether it pays to wait. Where tasks come seldom most waits are in vain, and where others
    /// want the processor who waits is soon the last to get it; now and then it is tried again. To
    /// be asked after offer().
    bool isWorthIt() { return inVain++ < kTrials || inVain % kPause == 0; }

    /// Returns false if nothing came, for which it waits a moment only if it may.
    bool take(Work& work, bool mayWait) {
        if (mayWait)
            await();
        while (!receive(work)) {
            State expected = State::Awaited;
            if (state.compare_exchange_strong(expected, State::Empty))
                return false;
            std::this_thread::yield();
        }
        inVain = isCrowded ? kTrials : 0;
        state = State::Empty;
        return true;
    }

    /// Takes what was given to the worker that waits, if that has not come for it yet. For another
    /// that has just ended a task: it has the processor, and the one that waits goes on waiting,
    /// unless it looks at this very moment and leaves. Not where workers are few: each gets its
    /// tasks in the order in which they came, and this one may be older than the one just ended.
    bool takeOver(Work& work) {
        if (!hasMany || !receive(work))
            return false;
        state = State::Awaited;
        return true;
    }

private:
    enum class State { Empty, Awaited, Filling, Full, Emptying };

    // about what it costs to fall asleep and be woken
    static constexpr std::chrono::microseconds kPatience{50};
    static constexpr unsigned kTrials = 8;
    static constexpr unsigned kPause = 64;

    /// Returns false if nothing is there. Whoever it returned true to sets the state anew.
    bool receive(Work& work) {
        State expected = State::Full;
        if (!state.compare_exchange_strong(expected, State::Emptying))
            return false;
        std::swap(work.name, place.name);
        work.task = std::move(place.task);
        return true;
    }

    void await() {
        const auto end = Clock::now() + kPatience;
        auto now = end;
        do {
            if (hasMany)
                std::this_thread::yield();
            now = Clock::now();
        } while (state == State::Awaited && now < end);
        isCrowded = !hasMany && now > end + kPatience;
    }

    const bool hasMany;

    std::atomic<State> state{State::Empty};
    // of whoever has made the state Filling or Emptying
    Work place;

    // both of who has made the state Awaited
    unsigned inVain = 0;
    // whether the thread that waited last lost the processor meanwhile
    bool isCrowded = false;
};

} // namespace ktr
