#include "IdleHost.h"
#include "Library.h"

#include "support/Figure.h"

#include <exception>
#include <linux/close_range.h>
#include <unistd.h>

namespace ktr::bench {
namespace {

void idleHost(benchmark::State& state) {
    while (state.KeepRunning()) {
        try {
            const IdleHost host;
            const IdleHost::Memory memory = host.memory();
            state.counters["resident"] = memory.resident;
            state.counters["anonymous"] = memory.anonymous;
            const IdleHost::Threads threads = host.threads();
            state.counters["threads"] = threads.all;
            state.counters["nameless"] = threads.nameless;
            state.counters["descriptors"] = host.descriptors();
            state.counters["libraries"] = host.libraries();
        } catch (const std::exception& e) {
            state.SkipWithError(e.what());
        }
    }
}

void library(benchmark::State& state, const std::string& path) {
    while (state.KeepRunning()) {
        try {
            state.counters["size"] = strippedSize(path);
            state.counters["relocations"] = relocations(path);
        } catch (const std::exception& e) {
            state.SkipWithError(e.what());
        }
    }
}

// The limits are what was measured, and an eighth where other versions of the libraries below may
// change it: whatever is more has to be looked at.
Figure idleHostFigure() {
    const std::string prefix = "idle host: ";
    Figure figure;
    figure.iterations = 1;
    figure.warmUp = false;
    figure.variants = {{"ours", idleHost}};
    figure.rows = {
        {prefix + "resident", kKibibytes, "ours", "", valueAtMost(14600), "resident"},
        {prefix + "backed by no file", kKibibytes, "ours", "", valueAtMost(1540), "anonymous"},
        {prefix + "threads", kCount, "ours", "", valueAtMost(9), "threads"},
        {prefix + "threads without a name", kCount, "ours", "", valueAtMost(6), "nameless"},
        {prefix + "descriptors", kCount, "ours", "", valueAtMost(6), "descriptors"},
        {prefix + "shared libraries", kCount, "ours", "", valueAtMost(31), "libraries"},
    };
    return figure;
}

Figure libraryFigure(const std::string& name, const std::string& path, double mostKibibytes,
                     double mostRelocations) {
    Figure figure;
    figure.rounds = 1;
    figure.iterations = 1;
    figure.warmUp = false;
    figure.variants = {{"ours", [path](benchmark::State& state) { library(state, path); }}};
    figure.rows = {
        {name + ": size stripped", kKibibytes, "ours", "", valueAtMost(mostKibibytes), "size"},
        {name + ": relocations", kCount, "ours", "", valueAtMost(mostRelocations), "relocations"},
    };
    return figure;
}

} // namespace
} // namespace ktr::bench

int main(int argc, char** argv) {
    using namespace ktr::bench;
    // the host is to inherit none of what this program was started with
    close_range(STDERR_FILENO + 1, ~0U, CLOSE_RANGE_CLOEXEC);
    return run(argc, argv,
               {idleHostFigure(), libraryFigure("libKetraPlugins.so", KETRA_PLUGINS, 160, 440),
                libraryFigure("libKetraCommon.so", KETRA_COMMON, 485, 1250)});
}
