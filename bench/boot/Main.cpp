#include "Device.h"

#include "support/Figure.h"

#include <chrono>
#include <exception>
#include <iostream>
#include <string>
#include <sys/resource.h>

namespace ktr::bench {
namespace {

/// Poco closes every descriptor up to the limit in each process that it launches; the host sets
/// this one for itself.
void limitDescriptorsAsHost() {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = 4096;
    setrlimit(RLIMIT_NOFILE, &limit);
}

void storm(benchmark::State& state, Device& device, std::chrono::milliseconds start) {
    while (state.KeepRunning()) {
        try {
            const Device::Boot boot = device.boot(start);
            const double total = boot.lastStart - boot.firstLaunch;
            state.counters["last start"] = total;
            state.counters["launches"] = boot.lastLaunch - boot.firstLaunch;
            state.counters["share"] = (boot.lastLaunch - boot.firstLaunch) / total;
            state.counters["boot"] = boot.lastStart;
            state.counters["lost"] = boot.lost;
            state.counters["hooks"] = boot.hooksAmiss;
            // a row shows the median of the rounds, but each of them counts
            if (boot.lost != 0 || boot.hooksAmiss != 0)
                state.SkipWithError((std::to_string(boot.lost) + " starts lost, " +
                                     std::to_string(boot.hooksAmiss) + " web hook posts amiss")
                                        .c_str());
        } catch (const std::exception& e) {
            state.SkipWithError(e.what());
        }
    }
}

void launch(benchmark::State& state, Device& device) {
    while (state.KeepRunning()) {
        try {
            state.counters["launches"] = device.launchAll();
        } catch (const std::exception& e) {
            state.SkipWithError(e.what());
        }
    }
}

Figure stormOf(Device& device, std::chrono::milliseconds start, const std::string& name,
               int rounds) {
    const std::string prefix = "boot storm, starts of " + name + ": ";
    Figure figure;
    figure.rounds = rounds;
    figure.iterations = 1;
    figure.warmUp = false;
    figure.variants = {
        {"ours", [&device, start](benchmark::State& state) { storm(state, device, start); }}};
    figure.rows = {
        {prefix + "last start after", kMilliseconds, "ours", "", kNoLimit, "last start"},
        {prefix + "process creation", kPercent, "ours", "", kNoLimit, "share"},
        {prefix + "lost starts", kCount, "ours", "", valueAtMost(0), "lost"},
        {prefix + "web hooks amiss", kCount, "ours", "", valueAtMost(0), "hooks"},
    };
    return figure;
}

/// Of a boot storm what goes before the reports.
Figure launchesOf(Device& device) {
    Figure figure;
    figure.iterations = 1;
    figure.variants = {
        {"floor", [&device](benchmark::State& state) { launch(state, device); }},
        {"ours",
         [&device](benchmark::State& state) {
             storm(state, device, std::chrono::milliseconds(0));
         }},
    };
    figure.rows = {
        {"boot of 100 plugins: launches", kMilliseconds, "ours", "floor", kNoLimit, "launches"},
        {"boot of 100 plugins: all started after", kMilliseconds, "ours", "", kNoLimit, "boot"},
    };
    return figure;
}

int runAll(int argc, char** argv) {
    using std::chrono::milliseconds;
    limitDescriptorsAsHost();
    Device device;
    return run(argc, argv,
               {launchesOf(device), stormOf(device, milliseconds(0), "0 ms", 20),
                stormOf(device, milliseconds(50), "50 ms", 20),
                stormOf(device, milliseconds(2000), "2 s", 20)});
}

} // namespace
} // namespace ktr::bench

int main(int argc, char** argv) {
    try {
        return ktr::bench::runAll(argc, argv);
    } catch (const std::exception& e) {
        std::cerr << argv[0] << ": " << e.what() << std::endl;
        return 1;
    }
}
