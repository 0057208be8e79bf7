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
#include <utility>

namespace ktr::bench {
namespace {

constexpr std::size_t kThreads = 4;
constexpr std::size_t kHolding = 0;
constexpr std::size_t kRecipient = 1;

/// Events come one right after the other, and threads are free to take them: as many as the queue
/// would hold in any case, and then all are delivered before the next ones come.
class Burst {
public:
    void beforeCall() {
        if (count % kEvents == 0)
            counter.waitForAllBut(0, count, route);
    }
    void raised() { ++count; }

    KetraRoute route;

private:
    static constexpr std::size_t kEvents = 20;

    Counter& counter = Counter::begin();
    std::size_t count = 0;
};

/// Events come seldom, so that each has to wake a thread.
template <class Way>
class Asleep {
public:
    void beforeCall() {
        counter.waitForAllBut(0, count, route);
        // nobody tells when a thread has gone to sleep
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    void raised() { ++count; }

    Way route;

private:
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

    KetraRoute route;

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
        // twice, and with pauses, since a thread may be about to end its former work, which nobody
        // tells
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

/// Where only the parse is measured the event is raised as well, so that all are measured in the
/// same situation.
template <class Situation>
void takeIn(benchmark::State& state, const std::string& event, bool parseOnly) {
    Situation situation;
    std::size_t allocations = 0;
    while (state.KeepRunning()) {
        situation.beforeCall();
        const Cost parse = parseOnly ? costOfParse(event) : Cost{};
        std::string text = event;
        const Cost call = costOf([&] { situation.route.raise(std::move(text)); });
        situation.raised();
        const Cost& cost = parseOnly ? parse : call;
        state.SetIterationTime(cost.time.count());
        allocations += cost.allocations;
    }
    state.counters["allocations"] =
        static_cast<double>(allocations) / static_cast<double>(state.iterations());
}

template <class Situation>
Variant variant(const std::string& name, const std::string& event, bool parseOnly = false) {
    return {name, [event, parseOnly](benchmark::State& state) {
                takeIn<Situation>(state, event, parseOnly);
            }};
}

Figure figureOf(const std::string& name, int events, std::vector<Variant> variants) {
    Figure figure;
    figure.variants = std::move(variants);
    figure.rows = {{name, kMicroseconds, "ours", "floor", ratioAtMost(1.25), ""}};
    figure.rounds = 61;
    figure.iterations = events;
    figure.manualTime = true;
    return figure;
}

/// Beside the parse alone.
template <class Situation>
Figure intakeOf(const std::string& name, const std::string& event, int events) {
    Figure figure =
        figureOf(name, events,
                 {variant<Situation>("floor", event, true), variant<Situation>("ours", event)});
    figure.rows.push_back(
        {name + ", allocations", kCount, "ours", "floor", differenceAtMost(8), "allocations"});
    return figure;
}

/// Beside the barest hand-off: what it takes to wake a thread is not ours.
Figure wakingIntakeOf(const std::string& name, const std::string& event, int events) {
    return figureOf(
        name, events,
        {variant<Asleep<BatchRoute>>("floor", event), variant<Asleep<KetraRoute>>("ours", event)});
}

} // namespace

std::vector<Figure> intakeFigures() {
    struct Size {
        const char* name;
        std::size_t bytes;
        int events;
    };
    constexpr std::size_t kilobyte = 1000;
    std::vector<Figure> figures;
    for (const Size& size :
         {Size{"150 B", 150, 200}, Size{"1 kB", kilobyte, 200}, Size{"16 kB", 16 * kilobyte, 100},
          Size{"256 kB", 256 * kilobyte, 20}}) {
        const std::string name = std::string("intake of ") + size.name;
        const std::string event = eventText(size.bytes, kRecipient);
        figures.push_back(intakeOf<BusyThreads>(name + ", threads busy", event, size.events));
        figures.push_back(intakeOf<Burst>(name + ", in a burst", event, size.events));
        figures.push_back(wakingIntakeOf(name + ", threads asleep", event, size.events));
    }
    return figures;
}

} // namespace ktr::bench
