#include "Counter.h"

#include <chrono>
#include <stdexcept>

namespace ktr::bench {

Counter& Counter::begin() {
    static Counter only;
    only.calls = 0;
    board().sink = &only;
    return only;
}

void Counter::take(std::size_t /*number*/, const std::string& /*event*/) {
    if (++calls != awaited)
        return;
    const std::lock_guard<std::mutex> lock(mutex);
    reached.notify_one();
}

void Counter::waitForAllBut(std::size_t limit, std::size_t raised, Route& route) {
    if (raised <= calls + limit)
        return;
    constexpr std::chrono::milliseconds longest(8192);
    std::unique_lock<std::mutex> lock(mutex);
    awaited = raised - limit;
    for (std::chrono::milliseconds pause(1);
         !reached.wait_for(lock, pause, [this] { return calls >= awaited; }); pause *= 2) {
        if (pause == longest)
            throw std::runtime_error(std::to_string(raised - calls) + " calls never came");
        // What was raised while all threads were busy waits for the next event, here one to nobody;
        // ever more seldom, lest these fill the queue.
        lock.unlock();
        route.raise(R"({"to":[]})");
        lock.lock();
    }
}

} // namespace ktr::bench
