// More events than the plugins can take: the memory stays bounded, and the rapid path goes on.
#include "Events.h"
#include "Figures.h"
#include "Percentiles.h"
#include "Route.h"
#include "support/Memory.h"
#include "support/WaitUntil.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>

namespace ktr::bench {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kSlow = 1;
constexpr std::size_t kRapid = 2;
constexpr std::size_t kProducers = 4;
constexpr std::size_t kBytes = 1000;
constexpr std::chrono::milliseconds kWork(1);
constexpr std::chrono::milliseconds kRapidInterval(5);
constexpr std::chrono::seconds kDuration(2);
constexpr const char* kRapidApi = "pushTelemetry";

/// One plugin takes its time, while all others wait; another one tells how old its events are.
class SlowAndRapid : public Sink {
public:
    SlowAndRapid() { board().sink = this; }
    ~SlowAndRapid() override { board().sink = nullptr; }

    // never two at a time
    void take(std::size_t number, const std::string& event) override {
        if (number == kSlow)
            std::this_thread::sleep_for(kWork); // the slow plugin's work, which costs no processor
        else
            ages.push_back(ageOf(event));
        ++calls;
    }

    std::vector<std::chrono::nanoseconds> ages;
    std::atomic<std::size_t> calls{0};
};

/// Raises `event` every `interval` until `end`; returns how often.
std::size_t raiseUntil(Clock::time_point end, std::string event, Clock::duration interval) {
    KetraRoute route;
    std::size_t raised = 0;
    for (auto next = Clock::now(); next < end; ++raised) {
        stamp(event);
        route.raise(event);
        next = std::max(next + interval, Clock::now());
        if (interval != Clock::duration::zero())
            std::this_thread::sleep_until(next);
    }
    return raised;
}

/// Waits until nothing comes any more.
void settle(const SlowAndRapid& sink) {
    KetraRoute route;
    for (std::size_t before = sink.calls + 1; before != sink.calls;) {
        before = sink.calls;
        // along with an event to nobody goes what waited for a free thread
        route.raise(R"({"to":[]})");
        route.raise(R"({"to":[],"api":"pushTelemetry"})");
        // nobody tells of what was lost: it is over when nothing has come for so long
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
}

void overload(benchmark::State& state) {
    SlowAndRapid sink;
    std::size_t rapid = 0;
    PeakMemory memory;
    while (state.KeepRunning()) {
        const Clock::time_point end = Clock::now() + kDuration;
        std::vector<std::thread> producers;
        producers.reserve(kProducers);
        for (std::size_t i = 0; i < kProducers; ++i)
            producers.emplace_back(
                [end] { raiseUntil(end, eventText(kBytes, kSlow), Clock::duration::zero()); });
        rapid = raiseUntil(end, eventText(kBytes, kRapid, 1, kRapidApi), kRapidInterval);
        for (std::thread& producer : producers)
            producer.join();
    }
    state.counters["growth"] = static_cast<double>(memory.growth());
    settle(sink);
    state.counters["lost"] = 1 - static_cast<double>(sink.ages.size()) / static_cast<double>(rapid);
    tellPercentiles(state, sink.ages);
}

} // namespace

std::vector<Figure> overloadFigures() {
    // A queue and the batches of four threads hold 250 events, and each thread that raises or
    // delivers them has its heap; but the events of the two seconds would take hundreds of MiB.
    constexpr double sixteenMebibytes = 16 * 1024;
    Figure figure;
    figure.variants = {{"ours", overload}};
    figure.rows = {
        {"overload, growth of memory", kKibibytes, "ours", "", valueAtMost(sixteenMebibytes),
         "growth"},
        {"overload, latency of rapid events, p50", kMilliseconds, "ours", "", kNoLimit, "p50"},
        {"overload, latency of rapid events, p99", kMilliseconds, "ours", "", kNoLimit, "p99"},
        {"overload, rapid events lost", kPercent, "ours", "", kNoLimit, "lost"}};
    figure.rounds = 3;
    figure.iterations = 1;
    figure.warmUp = false;
    return {figure};
}

} // namespace ktr::bench
