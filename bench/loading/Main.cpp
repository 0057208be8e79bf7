#include "FreshProcess.h"
#include "PluginFolder.h"
#include "support/Figure.h"

#include "ktr/PluginManager.h"
#include "ktr/common/Logger.h"

#include <Poco/SharedLibrary.h>

#include <filesystem>
#include <memory>
#include <stdexcept>

namespace ktr::bench {
namespace {

/// What no loader can do without.
void loadBare(const PluginFolder& plugins) {
    for (const std::string& path : plugins.paths()) {
        // as Poco leaves it, the library stays mapped when the object goes
        Poco::SharedLibrary library;
        library.load(path);
        for (const char* const symbol :
             {"PluginLoad", "PluginUnLoad", "PluginType", "PluginName", "PluginGuid"})
            // getSymbol throws where there is none, and a plugin may lack any of them
            if (library.hasSymbol(symbol))
                benchmark::DoNotOptimize(library.getSymbol(symbol));
    }
}

void loadAll(const PluginFolder& /*below the current directory*/) {
    PluginLoadAll();
}

using Load = void (*)(const PluginFolder&);

struct Folders {
    explicit Folders(int count) : measured(count), before(1, count + 1) {}

    PluginFolder measured;
    PluginFolder before;
};

void loadFrom(const PluginFolder& plugins, Load load) {
    std::filesystem::current_path(plugins.root());
    load(plugins);
}

/// Seconds that `load` takes in a process that has but one plugin, with which the code of both
/// sides was run for the first time. They are of processor time: with the files in the page cache
/// nobody waits, and what else the machine does counts for less.
double timeOf(Load load, const Folders& folders) {
    return inFreshProcess([&] {
        cachedLogger().setLevel(Poco::Message::PRIO_WARNING);
        loadFrom(folders.before, load);
        const double seconds = secondsOf([&] { loadFrom(folders.measured, load); });
        if (folders.measured.countMapped() != folders.measured.paths().size())
            throw std::runtime_error("not all plugins were loaded");
        return seconds;
    });
}

Figure loading(int count, int rounds) {
    // made by whoever comes first, for all
    const auto folders = std::make_shared<std::unique_ptr<Folders>>();
    const auto variant = [=](const char* name, Load load) {
        return Variant{name, [=](benchmark::State& state) {
                           if (!*folders)
                               *folders = std::make_unique<Folders>(count);
                           while (state.KeepRunning())
                               state.SetIterationTime(timeOf(load, **folders));
                       }};
    };
    Figure figure;
    figure.variants = {variant("floor", &loadBare), variant("ours", &loadAll)};
    figure.rows = {{"loading of " + std::to_string(count) + " plugins", kMilliseconds, "ours",
                    "floor", ratioAtMost(1.10), ""}};
    figure.rounds = rounds;
    figure.iterations = 1;
    figure.manualTime = true;
    return figure;
}

} // namespace
} // namespace ktr::bench

int main(int argc, char** argv) {
    return ktr::bench::run(argc, argv,
                           {ktr::bench::loading(100, 301), ktr::bench::loading(1000, 61)});
}
