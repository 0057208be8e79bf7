#include "Figures.h"
#include "ServiceFolder.h"

#include "ktr/MSManager.h"
#include "ktr/common/Logger.h"

#include "support/WaitUntil.h"

#include <chrono>
#include <csignal>
#include <memory>
#include <stdexcept>
#include <sys/wait.h>

namespace ktr::bench {
namespace {

using Clock = std::chrono::steady_clock;

constexpr int kServices = 1000;

double secondsOf(const std::function<void()>& work) {
    const auto begin = Clock::now();
    work();
    return std::chrono::duration<double>(Clock::now() - begin).count();
}

void awaitAll(const ServiceFolder& services) {
    if (!test::waitUntil([&] { return services.allRun(); }, std::chrono::seconds(30)))
        throw std::runtime_error("not all services were started");
}

/// Seconds in which the services are launched by a bare loop; they are ended after it.
double timeOfLaunches() {
    const ServiceFolder services(kServices);
    std::vector<Poco::ProcessHandle> launched;
    const double seconds = secondsOf([&] {
        for (const std::string& path : services.paths())
            launched.push_back(Poco::Process::launch(path, {"1"}, services.root().string()));
    });
    awaitAll(services);
    for (const Poco::ProcessHandle& handle : launched)
        kill(handle.id(), SIGKILL);
    for (const Poco::ProcessHandle& handle : launched)
        handle.wait();
    return seconds;
}

/// A manager with its services.
class Crowd {
public:
    Crowd() {
        cachedLogger().setLevel(Poco::Message::PRIO_WARNING);
        std::filesystem::current_path(services.root());
        startTime = secondsOf([this] { manager.start("127.0.0.1", 1); });
        awaitAll(services);
        for (const auto& process : manager.processes)
            handles.push_back(process->handle);
    }

    ServiceFolder services{kServices};
    MSManager manager;
    double startTime = 0;
    std::vector<Poco::ProcessHandle> handles;
};

/// Started by whoever comes first, for all.
using SharedCrowd = std::shared_ptr<std::unique_ptr<Crowd>>;

Crowd& started(const SharedCrowd& crowd) {
    if (!*crowd)
        *crowd = std::make_unique<Crowd>();
    return **crowd;
}

Figure start(const SharedCrowd& crowd) {
    Figure figure;
    figure.variants = {
        {"floor",
         [](benchmark::State& state) {
             while (state.KeepRunning())
                 state.SetIterationTime(timeOfLaunches());
         }},
        {"ours",
         [=](benchmark::State& state) {
             while (state.KeepRunning())
                 state.SetIterationTime(started(crowd).startTime);
         }},
    };
    figure.rows = {{"start of 1000 services", kSeconds, "ours", "floor", kNoLimit, ""}};
    figure.rounds = 1;
    figure.iterations = 1;
    figure.warmUp = false;
    figure.manualTime = true;
    return figure;
}

void askBare(benchmark::State& state, const std::vector<Poco::ProcessHandle>& handles) {
    while (state.KeepRunning())
        for (const Poco::ProcessHandle& handle : handles)
            benchmark::DoNotOptimize(handle.tryWait());
}

void scan(benchmark::State& state, MSManager& manager) {
    MSManager::ExitCodes failedRelaunches;
    while (state.KeepRunning())
        manager.scan(failedRelaunches);
}

Figure scans(const SharedCrowd& crowd) {
    Figure figure;
    figure.variants = {
        {"floor", [=](benchmark::State& state) { askBare(state, started(crowd).handles); }},
        {"ours", [=](benchmark::State& state) { scan(state, started(crowd).manager); }},
    };
    figure.rows = {{"scan of 1000 services", kMicroseconds, "ours", "floor", ratioAtMost(1.2), ""}};
    return figure;
}

} // namespace

std::vector<Figure> crowdFigures() {
    const auto crowd = std::make_shared<std::unique_ptr<Crowd>>();
    return {start(crowd), scans(crowd)};
}

} // namespace ktr::bench
