#include "Soak.h"

#include "support/WaitUntil.h"

#include <array>
#include <numeric>

namespace ktr::soak {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr std::chrono::seconds kExitLimit(5);
// A report that was under way shows only by what it sets off, and nothing tells that none is left.
constexpr std::chrono::seconds kCalmDown(2);
constexpr std::uint64_t kLoadBeforeEnd = 200;

std::string kib(std::uint64_t amount) {
    return std::to_string(amount) + " KiB";
}

} // namespace

Soak::Soak(Device& device_, const Options& options_, Problems& problems_, std::atomic<bool>& over_)
    : device(device_), options(options_), problems(problems_), over(over_),
      end(Clock::now() + std::chrono::minutes(options_.minutes)), checks(device_, problems_, over_),
      queries(device_, problems_), mqtt(device_, problems_),
      faults(device_, queries, mqtt, problems_, over_) {}

void Soak::run() {
    mqtt.expectFlow();
    faults.runEach();
    if (over)
        return;
    rest();
    warm = checks.measureQuiet();
    goOn();
    faults.runUntil(end);
    if (over)
        return;
    rest();
    last = checks.measureQuiet(warm);
    checks.compareQuiet(warm, last);
    checkRestarts();
    checks.finish();
    endHost();
}

/// Ends all load and checks what then has to be so.
void Soak::rest() {
    faults.crowd();
    makeLoad(false);
    queries.pause();
    mqtt.settle();
    std::this_thread::sleep_for(kCalmDown);
    checks.settleEvents();
}

void Soak::makeLoad(bool wanted) {
    device.shared.noReports = !wanted;
    device.shared.noEvents = !wanted;
}

std::uint64_t Soak::eventsRaised() const {
    const auto& sent = device.shared.sent;
    return std::accumulate(sent.begin(), sent.end(), std::uint64_t{0},
                           [](std::uint64_t sum, const auto& stream) { return sum + stream; });
}

void Soak::goOn() {
    makeLoad(true);
    queries.resume();
    mqtt.expectFlow();
}

void Soak::checkRestarts() const {
    std::uint64_t starts = 0;
    for (const ServiceState& service : device.shared.services)
        starts += service.starts;
    const std::uint64_t expected = kPlugins + faults.restarts().count;
    if (starts != expected)
        problems.add("services were started " + std::to_string(starts) + " times, not " +
                     std::to_string(expected));
}

/// In the middle of reports and events.
void Soak::endHost() {
    const std::uint64_t before = eventsRaised();
    makeLoad(true);
    if (!test::waitUntil([&] { return eventsRaised() >= before + kLoadBeforeEnd; }))
        problems.add("no events flow before the end");
    const auto begin = Clock::now();
    const auto code = device.end(kExitLimit);
    exitTook = std::chrono::duration_cast<milliseconds>(Clock::now() - begin);
    if (!code)
        problems.add("the host does not end within 5 s");
    else if (*code != 0)
        problems.add("the host ended with " + std::to_string(*code));
    for (const pid_t left : device.leftovers())
        problems.add("process " + std::to_string(left) + " was left behind");
    if (device.overflows() > 0)
        problems.add("the host gave up events, though never too many were pending");
}

Figures Soak::figures() const {
    Figures figures;
    figures.add("minutes", options.minutes);
    figures.add("seed", options.seed);
    addEvents(figures);
    addFaults(figures);
    addHoldings(figures);
    return figures;
}

void Soak::addEvents(Figures& figures) const {
    static constexpr std::array<const char*, kPaths> names{"normal", "rapid"};
    for (std::uint32_t path = 0; path < kPaths; ++path) {
        const std::string events = std::string(names.at(path)) + " events ";
        const Ledger::Count count = checks.count(path);
        figures.add(events + "raised", count.sent);
        figures.add(events + "delivered", count.delivered);
        figures.add(events + "pending at most", device.shared.mostUndelivered.at(path).load());
    }
    figures.add("batches given up by overflow", device.overflows());
    figures.add("reports", last.reports);
    figures.add("queries answered", queries.answered());
    figures.add("queries asked again", queries.askedAgain());
    figures.add("MQTT messages from plugins", mqtt.received());
    figures.add("MQTT messages to plugins", mqttReceivedByPlugins());
}

std::uint64_t Soak::mqttReceivedByPlugins() const {
    const auto& plugins = device.shared.plugins;
    return std::accumulate(
        plugins.begin(), plugins.end(), std::uint64_t{0},
        [](std::uint64_t sum, const PluginState& plugin) { return sum + plugin.received; });
}

void Soak::addFaults(Figures& figures) const {
    for (const auto& [kind, count] : faults.counts())
        figures.add("fault: " + kind, count);
    if (!device.disk.canBeFilled())
        figures.add("fault: disk of the log full", "left out: no disk may be mounted here");
    figures.add("services restarted", faults.restarts().count);
    figures.add("slowest restart", std::to_string(faults.restarts().slowest.count()) + " ms");
    figures.add("requests refused", faults.refused());
}

void Soak::addHoldings(Figures& figures) const {
    const auto grown = [](std::uint64_t before, std::uint64_t after) {
        return std::to_string(before) + ", later " + std::to_string(after);
    };
    figures.add("resident memory at most", kib(checks.watch().peakKib()));
    figures.add("own memory after warm-up, KiB", grown(warm.holdings.ownKib, last.holdings.ownKib));
    figures.add("allocated after warm-up, bytes", grown(warm.heap, last.heap));
    figures.add("of that for notifications", (last.reports - warm.reports) * notificationBytes());
    figures.add("descriptors after warm-up",
                grown(warm.holdings.descriptors, last.holdings.descriptors));
    figures.add("descriptors at most", checks.watch().mostDescriptors());
    figures.add("threads after warm-up", grown(warm.holdings.threads, last.holdings.threads));
    figures.add("threads at most", checks.watch().mostThreads());
    figures.add("exit", std::to_string(exitTook.count()) + " ms");
}

} // namespace ktr::soak
