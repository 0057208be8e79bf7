#include "Figures.h"
#include "ServiceFolder.h"

#include "support/ChildProcess.h"
#include "support/WaitUntil.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <ctime>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>

namespace ktr::bench {
namespace {

using Clock = std::chrono::steady_clock;
using test::waitUntil;

constexpr int kServices = 50;
constexpr int kRestarts = 20;
// so that they meet the scans, one a second, at any moment
constexpr std::chrono::milliseconds kBetweenKills{97};

double secondsSince(Clock::time_point begin) {
    return std::chrono::duration<double>(Clock::now() - begin).count();
}

/// ketra-host with services and nothing else.
class IdleHost {
public:
    IdleHost()
        : process(
              {KETRA_HOST, "--root=" + services.root().string(), "--port=0", "--log-level=warning"},
              output()) {
        if (!waitUntil([this] { return isReady() && services.allRun(); }, std::chrono::seconds(30)))
            throw std::runtime_error("the host did not start its services");
    }
    ~IdleHost() { process.end(SIGTERM); }
    IdleHost(const IdleHost&) = delete;
    IdleHost& operator=(const IdleHost&) = delete;

    /// Seconds of processor time that all threads of the host took so far, those of its services
    /// not counted.
    double processorTime() const {
        clockid_t clock = 0;
        timespec time{};
        if (clock_getcpuclockid(process.id(), &clock) != 0 || clock_gettime(clock, &time) != 0)
            throw std::runtime_error("the host has ended");
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
    }

    ServiceFolder services{kServices};

private:
    std::string output() const { return (services.root() / "output").string(); }
    bool isReady() const {
        std::ifstream file(output());
        const std::string text{std::istreambuf_iterator<char>(file), {}};
        return text.find("ketra-host ready on ") != std::string::npos;
    }

    test::ChildProcess process;
};

/// Started by whoever comes first, for all.
using SharedHost = std::shared_ptr<std::unique_ptr<IdleHost>>;

IdleHost& started(const SharedHost& host) {
    if (!*host)
        *host = std::make_unique<IdleHost>();
    return **host;
}

/// Kills services one by one, and tells for each how many seconds it took to be back.
class Restarts {
public:
    explicit Restarts(const ServiceFolder& services_) : services(services_) {}

    std::vector<double> run() {
        const auto allBack = [this] {
            killNext();
            noteThoseBack();
            return delays.size() == kRestarts;
        };
        if (!waitUntil(allBack, std::chrono::seconds(20)))
            throw std::runtime_error("a service did not come back");
        return delays;
    }

private:
    struct Killed {
        pid_t pid;
        Clock::time_point when;
    };

    void killNext() {
        if (next == kRestarts || Clock::now() < begin + kBetweenKills * next)
            return;
        const std::string& path = services.paths()[next++];
        const pid_t pid = services.running().at(path);
        kill(pid, SIGKILL);
        away[path] = {pid, Clock::now()};
    }

    void noteThoseBack() {
        for (const auto& [path, pid] : services.running()) {
            const auto killed = away.find(path);
            if (killed == away.end() || killed->second.pid == pid)
                continue;
            delays.push_back(secondsSince(killed->second.when));
            away.erase(killed);
        }
    }

    const ServiceFolder& services;
    const Clock::time_point begin = Clock::now();
    std::size_t next = 0;
    std::map<std::string, Killed> away;
    std::vector<double> delays;
};

Figure idle(const SharedHost& host) {
    const auto measure = [=](benchmark::State& state) {
        const IdleHost& running = started(host);
        while (state.KeepRunning()) {
            const auto begin = Clock::now();
            const double used = running.processorTime();
            // what is measured: the time in which nothing happens
            std::this_thread::sleep_for(std::chrono::seconds(3));
            state.counters["load"] = (running.processorTime() - used) / secondsSince(begin);
        }
    };
    Figure figure;
    figure.variants = {{"ours", measure}};
    figure.rows = {
        {"processor time, idle with 50 services", kPercent, "ours", "", valueAtMost(0.2), "load"}};
    figure.rounds = 5;
    figure.iterations = 1;
    figure.warmUp = false;
    return figure;
}

Figure restarts(const SharedHost& host) {
    const auto measure = [=](benchmark::State& state) {
        const IdleHost& running = started(host);
        while (state.KeepRunning()) {
            std::vector<double> delays = Restarts(running.services).run();
            std::sort(delays.begin(), delays.end());
            state.counters["median"] = delays[delays.size() / 2];
            state.counters["worst"] = delays.back();
        }
    };
    Figure figure;
    figure.variants = {{"ours", measure}};
    figure.rows = {
        {"restart after SIGKILL, median of 20", kSeconds, "ours", "", valueAtMost(1.1), "median"},
        {"restart after SIGKILL, worst of 20", kSeconds, "ours", "", valueAtMost(1.1), "worst"},
    };
    figure.rounds = 1;
    figure.iterations = 1;
    figure.warmUp = false;
    return figure;
}

} // namespace

std::vector<Figure> hostFigures() {
    const auto host = std::make_shared<std::unique_ptr<IdleHost>>();
    return {idle(host), restarts(host)};
}

} // namespace ktr::bench
