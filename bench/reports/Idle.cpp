#include "Figures.h"
#include "Servers.h"

#include <Poco/Exception.h>

#include <algorithm>
#include <chrono>
#include <list>

namespace ktr::bench {
namespace {

constexpr int kIdle = 60;
constexpr int kTries = 1000;

/// From the connecting to the end of the answer.
double secondsOfANewcomer(const Poco::Net::SocketAddress& server) {
    using Clock = std::chrono::steady_clock;
    const auto start = Clock::now();
    test::RawClient client(server);
    ask(client);
    return std::chrono::duration<double>(Clock::now() - start).count();
}

void beside(benchmark::State& state) {
    while (state.KeepRunning())
        try {
            ReportServer server;
            std::list<test::RawClient> idle;
            for (int i = 0; i < kIdle; ++i)
                ask(idle.emplace_back(server.address()));
            std::vector<double> times(kTries);
            for (double& time : times)
                time = secondsOfANewcomer(server.address());
            std::sort(times.begin(), times.end());
            state.counters["median"] = times[kTries / 2];
            state.counters["worst"] = times.back();
        } catch (const Poco::Exception& e) {
            state.SkipWithError(e.displayText().c_str());
        }
}

} // namespace

std::vector<Figure> idleFigures() {
    Figure figure;
    figure.variants = {{"ours", beside}};
    figure.rows = {
        {"61st client beside 60 idle ones", kMilliseconds, "ours", "", kNoLimit, "median"},
        {"61st client beside 60 idle ones, worst", kMilliseconds, "ours", "", valueAtMost(100),
         "worst"},
    };
    figure.rounds = 1;
    figure.iterations = 1;
    figure.warmUp = false;
    return {figure};
}

} // namespace ktr::bench
