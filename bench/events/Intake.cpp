// The time for which a plugin that raises an event is held, and the memory it asks for meanwhile.
#include "Counter.h"
#include "Events.h"
#include "Figures.h"
#include "Route.h"
#include "support/Allocations.h"

#include <Poco/JSON/Object.h>
#include <Poco/JSON/Parser.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace ktr::bench {
namespace {

constexpr std::size_t kThreads = 4;
constexpr std::size_t kHolding = 0;
constexpr std::size_t kRecipient = 1;

/// A thread is free to take each event, which has been delivered before the next one is raised.
class FreeThreads {
public:
    void beforeCall() {}
    void raised() { counter.waitForAllBut(0, ++count, route); }

private:
    KetraRoute route;
    Counter& counter = Counter::begin();
    std::size_t count = 0;
};

/// No thread is free, so that events stay in the queue, which is emptied before it is full.
class BusyThreads : public Sink {
public:
    BusyThreads() { board().sink = this; }
    ~BusyThreads() override {
        let();
        board().sink = nullptr;
    }

    void beforeCall() {
        if (queued != kQueued && count != 0)
            return;
        let();
        hold();
    }
    void raised() {
        ++queued;
        ++count;
    }

private:
    static constexpr std::size_t kQueued = 40;

    void take(std::size_t number, const std::string& event) override {
        if (number == kHolding) {
            std::unique_lock<std::mutex> lock(mutex);
            changed.wait(lock, [this] { return !held; });
        }
        counter.take(number, event);
    }

    void hold() {
        {
            const std::lock_guard<std::mutex> lock(mutex);
            held = true;
        }
        const std::string event = eventText(150, kHolding);
        // twice, since a thread may have been about to end its former work
        for (std::size_t i = 0; i < 2 * kThreads; ++i) {
            std::this_thread::sleep_for(std::chrono::microseconds(100));
            route.raise(event);
            ++count;
        }
    }

    void let() {
        {
            const std::lock_guard<std::mutex> lock(mutex);
            held = false;
        }
        changed.notify_all();
        counter.waitForAllBut(0, count, route);
        queued = 0;
    }

    KetraRoute route;
    Counter& counter = Counter::begin();
    std::size_t queued = 0;
    std::size_t count = 0;
    std::mutex mutex;
    std::condition_variable changed;
    bool held = false;
};

struct Cost {
    std::chrono::duration<double> time;
    std::size_t allocations;
};

template <class Work>
Cost costOf(Work work) {
    const std::size_t allocations = allocationsOfThisThread();
    const auto begin = std::chrono::steady_clock::now();
    work();
    const auto end = std::chrono::steady_clock::now();
    return {end - begin, allocationsOfThisThread() - allocations};
}

Cost costOfParse(const std::string& event) {
    return costOf([&] {
        Poco::JSON::Parser parser;
        benchmark::DoNotOptimize(parser.parse(event).extract<Poco::JSON::Object::Ptr>());
    });
}

/// The floor raises the event as well, so that both are measured in the same situation.
template <class Situation>
void takeIn(benchmark::State& state, const std::string& event, bool parseOnly) {
    KetraRoute route;
    Situation situation;
    std::size_t allocations = 0;
    while (state.KeepRunning()) {
        situation.beforeCall();
        const Cost parse = parseOnly ? costOfParse(event) : Cost{};
        const Cost call = costOf([&] { route.raise(event); });
        situation.raised();
        const Cost& cost = parseOnly ? parse : call;
        state.SetIterationTime(cost.time.count());
        allocations += cost.allocations;
    }
    state.counters["allocations"] =
        static_cast<double>(allocations) / static_cast<double>(state.iterations());
}

template <class Situation>
Figure intakeOf(const std::string& name, std::size_t size, int events) {
    const std::string event = eventText(size, kRecipient);
    Figure figure;
    figure.variants = {
        {"floor", [event](benchmark::State& state) { takeIn<Situation>(state, event, true); }},
        {"ours", [event](benchmark::State& state) { takeIn<Situation>(state, event, false); }},
    };
    figure.rows = {
        {name, kMicroseconds, "ours", "floor", ratioAtMost(1.25), ""},
        {name + ", allocations", kCount, "ours", "floor", differenceAtMost(8), "allocations"}};
    figure.rounds = 9;
    figure.iterations = events;
    figure.manualTime = true;
    return figure;
}

} // namespace

std::vector<Figure> intakeFigures() {
    struct Size {
        const char* name;
        std::size_t bytes;
        int events;
    };
    constexpr std::size_t kibibyte = 1024;
    std::vector<Figure> figures;
    for (const Size& size :
         {Size{"150 B", 150, 800}, Size{"1 KiB", kibibyte, 800}, Size{"16 KiB", 16 * kibibyte, 400},
          Size{"256 KiB", 256 * kibibyte, 80}}) {
        const std::string name = std::string("intake of ") + size.name;
        figures.push_back(
            intakeOf<FreeThreads>(name + ", a thread is free", size.bytes, size.events));
        figures.push_back(
            intakeOf<BusyThreads>(name + ", all threads busy", size.bytes, size.events));
    }
    return figures;
}

} // namespace ktr::bench
