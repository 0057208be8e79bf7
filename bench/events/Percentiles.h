#pragma once

#include <benchmark/benchmark.h>

#include <chrono>
#include <vector>

namespace ktr::bench {

/// Sets the counters "p50" and "p99", in seconds; fails the figure if there are no times.
void tellPercentiles(benchmark::State& state, std::vector<std::chrono::nanoseconds> times);

} // namespace ktr::bench
