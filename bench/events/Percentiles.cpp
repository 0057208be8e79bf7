#include "Percentiles.h"

#include <algorithm>
#include <cstddef>

namespace ktr::bench {

void tellPercentiles(benchmark::State& state, std::vector<std::chrono::nanoseconds> times) {
    if (times.empty()) {
        state.SkipWithError("nothing came");
        return;
    }
    std::sort(times.begin(), times.end());
    const auto percentile = [&](std::size_t percent) {
        return std::chrono::duration<double>(times.at((times.size() - 1) * percent / 100)).count();
    };
    state.counters["p50"] = percentile(50);
    state.counters["p99"] = percentile(99);
}

} // namespace ktr::bench
