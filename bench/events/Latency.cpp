// Events from end to end: how long one takes.
#include "Counter.h"
#include "Events.h"
#include "Figures.h"
#include "Percentiles.h"
#include "Route.h"

#include <chrono>
#include <thread>

namespace ktr::bench {
namespace {

constexpr std::size_t kRecipient = 1;
constexpr std::size_t kEvents = 500;
constexpr std::chrono::milliseconds kInterval(1);

/// Keeps how old the events are when they come.
class Ages : public Sink {
public:
    Ages() {
        ages.reserve(kEvents);
        board().sink = this;
    }
    ~Ages() override { board().sink = nullptr; }

    // never two at a time
    void take(std::size_t number, const std::string& event) override {
        ages.push_back(ageOf(event));
        counter.take(number, event);
    }

    Counter& counter = Counter::begin();
    std::vector<std::chrono::nanoseconds> ages;
};

template <class Way>
void raiseSteadily(benchmark::State& state) {
    Way route;
    Ages ages;
    std::string event = eventText(150, kRecipient);
    while (state.KeepRunning()) {
        auto next = std::chrono::steady_clock::now();
        for (std::size_t i = 0; i < kEvents; ++i) {
            std::this_thread::sleep_until(next += kInterval);
            stamp(event);
            route.raise(event);
            // only where the machine has held up the threads for long
            ages.counter.waitForAllBut(kUndelivered, i + 1, route);
        }
        ages.counter.waitForAllBut(0, kEvents, route);
    }
    tellPercentiles(state, ages.ages);
}

} // namespace

std::vector<Figure> latencyFigures() {
    Figure figure;
    figure.variants = {{"batch", raiseSteadily<BatchRoute>}, {"ours", raiseSteadily<KetraRoute>}};
    figure.rows = {
        {"latency at 1000/s, p50", kMicroseconds, "ours", "batch", ratioAtMost(1.2), "p50"},
        {"latency at 1000/s, p99", kMicroseconds, "ours", "batch", kNoLimit, "p99"}};
    figure.rounds = 25;
    figure.iterations = 1;
    return {figure};
}

} // namespace ktr::bench
