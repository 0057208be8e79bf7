#include "Measure.h"

#include <algorithm>
#include <benchmark/benchmark.h>
#include <utility>

namespace ktr::bench {
namespace {

/// Keeps what a single run reports.
class Collector : public benchmark::BenchmarkReporter {
public:
    bool ReportContext(const Context&) override { return true; }

    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) {
            if (run.error_occurred)
                error = run.error_message;
            values[""] = run.real_accumulated_time / static_cast<double>(run.iterations);
            for (const auto& [name, counter] : run.counters)
                values[name] = counter.value;
        }
    }

    Values values;
    std::string error;
};

void enter(const Figure& figure, const Variant& variant, bool quick) {
    constexpr double quickSeconds = 0.02;
    benchmark::internal::Benchmark* const entry =
        benchmark::RegisterBenchmark(variant.name.c_str(), variant.work);
    if (figure.manualTime)
        entry->UseManualTime();
    else
        entry->UseRealTime();
    if (figure.iterations > 0)
        entry->Iterations(figure.iterations);
    else
        entry->MinTime(quick ? std::min(figure.seconds, quickSeconds) : figure.seconds);
}

} // namespace

Measured measure(const Figure& figure, bool quick) {
    Measured measured;
    const int warmUps = figure.warmUp && !quick ? 1 : 0;
    const int rounds = quick ? 1 : figure.rounds;
    for (int round = -warmUps; round < rounds; ++round) {
        // every other round the other way round, so that a drift meets all alike
        std::vector<Variant> order = figure.variants;
        if (round % 2 != 0)
            std::reverse(order.begin(), order.end());
        for (const Variant& variant : order) {
            benchmark::ClearRegisteredBenchmarks();
            enter(figure, variant, quick);
            Collector collector;
            benchmark::RunSpecifiedBenchmarks(&collector, ".");
            if (!collector.error.empty()) {
                measured.error = variant.name + ": " + collector.error;
                return measured;
            }
            if (round >= 0)
                measured.rounds[variant.name].push_back(std::move(collector.values));
        }
    }
    return measured;
}

} // namespace ktr::bench
