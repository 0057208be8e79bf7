#include "Device.h"

#include "support/HttpPeer.h"
#include "support/WaitUntil.h"

#include <Poco/Process.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <iomanip>
#include <random>
#include <sstream>
#include <stdexcept>

namespace ktr::bench {
namespace {

using test::waitUntil;

constexpr std::chrono::seconds kPatience(30);

Storm& makeStorm(const std::string& file) {
    Storm* const storm = mapStorm(file.c_str(), true);
    if (storm == nullptr)
        throw std::runtime_error("cannot map " + file);
    // for the services and the plugins inside the host
    setenv(kStormVariable, file.c_str(), 1);
    return *storm;
}

/// The number in four digits.
std::string digits(std::size_t number) {
    std::ostringstream text;
    text << std::setw(4) << std::setfill('0') << number;
    return text.str();
}

double secondsBetween(std::int64_t from, std::int64_t to) {
    return std::chrono::duration<double>(std::chrono::nanoseconds(to - from)).count();
}

/// Processes that are ended, and waited for, when it goes.
struct Launched {
    ~Launched() {
        for (const Poco::ProcessHandle& process : processes)
            kill(process.id(), SIGKILL);
        for (const Poco::ProcessHandle& process : processes)
            process.wait();
    }
    std::vector<Poco::ProcessHandle> processes;
};

} // namespace

Device::Device() : storm(makeStorm(root.path() / "storm")) {
    copyPlugins();
    copyServices();
}

void Device::copyPlugins() const {
    const std::string library = test::readFile(KETRA_PUPPET_PLUGIN);
    const std::size_t at = library.find(kGuid);
    if (at == std::string::npos || library.find(kGuid, at + 1) != std::string::npos)
        throw std::runtime_error("the plugin does not hold its guid once");
    for (std::size_t i = 0; i < kPlugins; ++i) {
        std::string copy = library;
        copy.replace(at + kGuidHead, digits(i).size(), digits(i));
        std::ofstream(root.plugins() / ("libKetraPluginBoot-" + digits(i) + ".so")) << copy;
    }
}

// The host ends by name whatever bears the name of a service.
void Device::copyServices() {
    const std::string name = "ketra-bench-" + std::to_string(std::random_device()()) + "-";
    for (std::size_t i = 0; i < kPlugins; ++i) {
        services.push_back(root.services() / (name + digits(i)));
        test::install(KETRA_PUPPET_SERVICE, services.back());
    }
}

void Device::reset(std::chrono::nanoseconds start) {
    storm.startNanoseconds = start.count();
    for (Notes& notes : storm.notes) {
        notes.launched = 0;
        notes.launches = 0;
        notes.started = 0;
        notes.starts = 0;
    }
}

bool Device::allLaunched() const {
    return std::all_of(storm.notes.begin(), storm.notes.end(),
                       [](const Notes& notes) { return notes.launches > 0; });
}

bool Device::allStarted() const {
    return std::all_of(storm.notes.begin(), storm.notes.end(),
                       [](const Notes& notes) { return notes.starts > 0; });
}

Device::Boot Device::outcome(std::int64_t since) const {
    Boot boot;
    boot.firstLaunch = secondsBetween(since, storm.notes.front().launched);
    for (const Notes& notes : storm.notes) {
        boot.firstLaunch = std::min(boot.firstLaunch, secondsBetween(since, notes.launched));
        boot.lastLaunch = std::max(boot.lastLaunch, secondsBetween(since, notes.launched));
        boot.lastStart = std::max(boot.lastStart, secondsBetween(since, notes.started));
        boot.lost += notes.starts == 0 ? 1 : 0;
    }
    return boot;
}

Device::Boot Device::boot(std::chrono::nanoseconds start) {
    reset(start);
    const test::HttpPeer hook;
    const std::int64_t begin = monotonicTime();
    test::HostProcess host(root, {"--webhook-url=" + hook.url(), "--temperature-period=0"});
    if (!host.waitReady())
        throw std::runtime_error("the host does not start: " + host.err());
    waitUntil([this] { return allStarted(); }, kPatience);
    waitUntil([&hook] { return hook.count() > 0; });
    host.signal(SIGTERM);
    if (host.waitForExit() != 0)
        throw std::runtime_error("the host does not end in order: " + host.err());
    Boot boot = outcome(begin);
    boot.hooksAmiss = std::abs(static_cast<int>(hook.count()) - 1);
    return boot;
}

double Device::launchAll() {
    reset(std::chrono::nanoseconds(0));
    Launched launched;
    for (const std::string& service : services)
        launched.processes.push_back(Poco::Process::launch(service, {}));
    if (!waitUntil([this] { return allLaunched(); }, kPatience))
        throw std::runtime_error("a service does not begin");
    const Boot boot = outcome(0);
    return boot.lastLaunch - boot.firstLaunch;
}

} // namespace ktr::bench
