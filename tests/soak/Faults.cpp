#include "Faults.h"

#include "HostWatch.h"

#include "support/WaitUntil.h"

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <sys/resource.h>
#include <thread>
#include <utility>

namespace ktr::soak {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

// An exit is seen at most a second and a scan after it happened; the rest is for a busy machine.
constexpr seconds kRestartLimit(3);
// A report waits while the host is short of descriptors.
constexpr seconds kReportLimit(15);
constexpr seconds kThrowLimit(15);
constexpr seconds kFloodLimit(30);
constexpr seconds kLogLimit(10);
constexpr milliseconds kShortage(2500);
constexpr milliseconds kBrokerAway(1000);
// what the host may still open while it is short
constexpr rlim_t kSpareDescriptors = 2;

milliseconds between(std::minstd_rand& random, int least, int most) {
    return milliseconds(least + static_cast<int>(random() % static_cast<unsigned>(most - least)));
}

} // namespace

Faults::Faults(Device& device_, Queries& queries_, MqttPeer& mqtt_, Problems& problems_,
               const std::atomic<bool>& interrupted_)
    : device(device_), queries(queries_), mqtt(mqtt_), problems(problems_),
      interrupted(interrupted_), clients(device_, problems_), services(ofServices()),
      surroundings(ofSurroundings()) {}

Faults::Sort Faults::ofServices() {
    return {{{"service killed", [this] { killService(); }},
             {"service stopped", [this] { stopService(); }},
             {"service floods", [this] { flood(); }},
             {"plugin throws in onMessage", [this] { throwIn(Place::message); }},
             {"plugin throws in start", [this] { throwIn(Place::start); }},
             {"plugin throws in stop", [this] { throwIn(Place::stop); }}},
            std::minstd_rand(device.shared.seed + 1)};
}

Faults::Sort Faults::ofSurroundings() {
    Sort sort{{{"broker restarted", [this] { restartBroker(); }},
               {"client stalls", [this] { clients.stall(surroundings.random() % 2 == 0); }},
               {"client sends rubbish",
                [this] { clients.sendRubbish(static_cast<std::uint32_t>(surroundings.random())); }},
               {"crowd of idle clients", [this] { clients.crowd(); }},
               {"descriptors used up", [this] { takeDescriptors(); }}},
              std::minstd_rand(device.shared.seed + 2)};
    if (device.disk.canBeFilled())
        sort.kinds.push_back({"disk of the log full", [this] { fillDisk(); }});
    return sort;
}

void Faults::runEach() {
    inBothSorts([this](Sort& sort) { eachOf(sort); });
}

void Faults::runUntil(std::chrono::steady_clock::time_point end) {
    inBothSorts([this, end](Sort& sort) { someOf(sort, end); });
}

void Faults::inBothSorts(const std::function<void(Sort&)>& work) {
    std::thread other([&] { work(services); });
    work(surroundings);
    other.join();
    clients.join();
}

void Faults::eachOf(Sort& sort) {
    std::vector<Kind> kinds = sort.kinds;
    std::shuffle(kinds.begin(), kinds.end(), sort.random);
    for (const Kind& kind : kinds)
        if (!interrupted)
            run(kind);
}

void Faults::someOf(Sort& sort, std::chrono::steady_clock::time_point end) {
    for (;;) {
        pause(between(sort.random, 1000, 4000));
        if (interrupted || std::chrono::steady_clock::now() >= end)
            return;
        run(sort.kinds.at(sort.random() % sort.kinds.size()));
    }
}

void Faults::run(const Kind& kind) {
    kind.work();
    const std::lock_guard<std::mutex> lock(mutex);
    ++done[kind.name];
}

std::map<std::string, int> Faults::counts() const {
    const std::lock_guard<std::mutex> lock(mutex);
    return done;
}

void Faults::pause(milliseconds time) const {
    test::waitUntil([this] { return interrupted.load(); }, time);
}

std::uint32_t Faults::anyOf(std::minstd_rand& random) const {
    return static_cast<std::uint32_t>(random() % kPlugins);
}

void Faults::killService() {
    const std::uint32_t service = anyOf(services.random);
    killAndAwait(service);
    awaitReport(service);
}

void Faults::stopService() {
    const std::uint32_t service = anyOf(services.random);
    const ServiceState& state = device.shared.services.at(service);
    kill(state.pid, SIGSTOP);
    pause(between(services.random, 500, 3000));
    if (services.random() % 2 == 0)
        kill(state.pid, SIGCONT);
    else
        killAndAwait(service);
    awaitReport(service);
}

void Faults::killAndAwait(std::uint32_t service) {
    const ServiceState& state = device.shared.services.at(service);
    const pid_t victim = state.pid;
    const std::int64_t killedAt = monotonicTime();
    kill(victim, SIGKILL);
    ++restarted.count;
    if (!test::waitUntil([&] { return state.pid != victim; }, kRestartLimit)) {
        problems.add("service " + std::to_string(service) + " was not back in time");
        return;
    }
    restarted.slowest = std::max(restarted.slowest, milliseconds(state.startedAt - killedAt));
}

void Faults::awaitReport(std::uint32_t service) {
    const std::int64_t now = monotonicTime();
    const ServiceState& state = device.shared.services.at(service);
    if (!test::waitUntil([&] { return interrupted || state.reportedAt > now; }, kReportLimit))
        problems.add("service " + std::to_string(service) + " cannot report again");
}

void Faults::flood() {
    ServiceState& state = device.shared.services.at(anyOf(services.random));
    state.flood = true;
    if (!test::waitUntil([&] { return interrupted || !state.flood; }, kFloodLimit))
        problems.add("a service that floods its output hangs");
    device.dropOutput();
}

void Faults::throwIn(Place place) {
    const std::uint32_t plugin = anyOf(services.random);
    auto& throwNext = device.shared.plugins.at(plugin).throwNext;
    throwNext = place;
    if (!test::waitUntil([&] { return interrupted || throwNext == Place::nowhere; }, kThrowLimit))
        problems.add("plugin " + std::to_string(plugin) + " was not called where it was to throw");
    // what threw in start or stop works again after the next report
    if (!interrupted && !queries.ask(plugin))
        problems.add("plugin " + std::to_string(plugin) + " does not work again after it threw");
}

void Faults::restartBroker() {
    mqtt.settle();
    device.broker.stop();
    pause(kBrokerAway);
    device.broker.start();
    mqtt.expectFlow();
}

void Faults::fillDisk() {
    device.disk.fill();
    pause(kShortage);
    device.disk.free();
    const auto state = [this] {
        std::error_code ignored;
        return std::pair(std::filesystem::file_size(device.disk.logFile(), ignored),
                         std::filesystem::last_write_time(device.disk.logFile(), ignored));
    };
    const auto before = state();
    if (!test::waitUntil([&] { return interrupted || state() != before; }, kLogLimit))
        problems.add("the host logs no more after its disk was full");
}

void Faults::takeDescriptors() {
    rlimit usual{};
    if (prlimit(device.pid(), RLIMIT_NOFILE, nullptr, &usual) != 0)
        return;
    rlimit scarce = usual;
    scarce.rlim_cur = holdingsOf(device.pid()).descriptors + kSpareDescriptors;
    prlimit(device.pid(), RLIMIT_NOFILE, &scarce, nullptr);
    pause(kShortage);
    prlimit(device.pid(), RLIMIT_NOFILE, &usual, nullptr);
}

} // namespace ktr::soak
