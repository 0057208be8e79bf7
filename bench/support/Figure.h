#pragma once

#include <benchmark/benchmark.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace ktr::bench {

/// How a value, measured in seconds, bytes, or just a number, is shown.
struct Unit {
    const char* name;
    double scale;
};

constexpr Unit kMicroseconds{"us", 1e6};
constexpr Unit kMilliseconds{"ms", 1e3};
constexpr Unit kSeconds{"s", 1};
constexpr Unit kPerSecond{"/s", 1};
constexpr Unit kPercent{"%", 100};
constexpr Unit kKibibytes{"KiB", 1.0 / 1024};
constexpr Unit kCount{"", 1};

/// What a row is held to: ours / floor, ours - floor, or ours alone, the last two in the row's
/// unit.
struct Limit {
    enum class On { Nothing, Ratio, Difference, Value };
    On on = On::Nothing;
    bool atLeast = false;
    double bound = 0;
};

constexpr Limit ratioAtMost(double bound) {
    return {Limit::On::Ratio, false, bound};
}
constexpr Limit ratioAtLeast(double bound) {
    return {Limit::On::Ratio, true, bound};
}
constexpr Limit differenceAtMost(double bound) {
    return {Limit::On::Difference, false, bound};
}
constexpr Limit valueAtMost(double bound) {
    return {Limit::On::Value, false, bound};
}
/// Reported only.
constexpr Limit kNoLimit{};

/// One line of the table.
struct Row {
    std::string name;
    Unit unit;
    /// The variant that is held against `floor`, and the one that is the floor; may be empty.
    std::string ours = "ours";
    std::string floor = "floor";
    Limit limit;
    /// Of the benchmark's state; empty: the time of one iteration.
    std::string counter;
};

/// One way of doing a thing; loops `while (state.KeepRunning())`. SkipWithError fails the figure.
struct Variant {
    std::string name;
    std::function<void(benchmark::State&)> work;
};

/// Variants that are measured by turns, a round of each at a time, and what is told of them.
struct Figure {
    std::vector<Variant> variants;
    std::vector<Row> rows;
    /// Rounds that count. Their median is shown, that of the rounds' own ratios for a ratio.
    int rounds = 5;
    /// Of each round; 0: as many as take `seconds`.
    int iterations = 0;
    double seconds = 0.2;
    /// Whether each variant is run once before the rounds.
    bool warmUp = true;
    /// Whether the variants call SetIterationTime.
    bool manualTime = false;
};

/// Measures the figures that the command line asks for, in this order, prints a row for each of
/// theirs, and returns the exit code: 0, 1 if a limit is broken or a figure failed, 64 for a bad
/// command line.
int run(int argc, char** argv, std::vector<Figure> figures);

} // namespace ktr::bench
