#include "Device.h"

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <random>
#include <sstream>
#include <system_error>

namespace ktr::soak {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t kTailLines = 60;

std::string randomText() {
    std::random_device random;
    std::ostringstream text;
    text << std::hex << random();
    return text.str();
}

std::string lastLines(const fs::path& file, const std::string& leaveOut) {
    auto lines = test::readLines(file);
    if (!leaveOut.empty())
        lines.erase(std::remove_if(lines.begin(), lines.end(),
                                   [&](const std::string& line) {
                                       return line.find(leaveOut) != std::string::npos;
                                   }),
                    lines.end());
    std::string tail;
    for (std::size_t i = lines.size() - std::min(lines.size(), kTailLines); i < lines.size(); ++i)
        tail += lines[i] + "\n";
    return tail;
}

} // namespace

Device::Device(std::uint32_t seed, bool mayMount)
    : shared(mapShared(root.path() / "soak.shared", true)), disk(root.notes() / "log", mayMount) {
    layOut(seed);
}

void Device::layOut(std::uint32_t seed) {
    shared.seed = seed;
    shared.noReports = true;
    shared.noEvents = true;
    const std::string services = "ketra-soak-" + randomText() + "-";
    for (std::uint32_t i = 0; i < kPlugins; ++i) {
        const std::string number = std::to_string(i);
        fs::copy_file(KETRA_PUPPET_PLUGIN,
                      root.plugins() / ("libKetraPluginSoak-" + number + ".so"));
        fs::copy_file(KETRA_PUPPET_SERVICE, root.services() / (services + number));
    }
    std::ofstream(root.notes() / "host.conf") << "http.connections = " << kConnections << "\n"
                                              << "log.rotation = 1 M\n"
                                              << "log.purge.count = 2\n";
}

bool Device::start() {
    // What each thread keeps in hand of the memory that it gave back would count as allocated, and
    // hide what really is lost.
    setenv("GLIBC_TUNABLES", "glibc.malloc.tcache_count=0", 1);
    host.emplace(root, std::vector<std::string>{"--config=" + (root.notes() / "host.conf").string(),
                                                "--log-file=" + disk.logFile().string(),
                                                "--mqtt-url=" + broker.url()});
    if (!host->waitReady())
        return false;
    shared.noReports = false;
    const bool started = test::waitUntil(
        [this] {
            return std::all_of(shared.plugins.begin(), shared.plugins.end(),
                               [](const PluginState& plugin) { return plugin.starts > 0; });
        },
        std::chrono::seconds(30));
    // before, an event would have found no object to receive it
    shared.noEvents = false;
    return started;
}

std::optional<int> Device::end(std::chrono::milliseconds limit) {
    host->signal(SIGTERM);
    return host->waitForExit(limit);
}

void Device::dropOutput() const {
    // both are written at their end, wherever that is
    for (const char* name : {"out", "err"}) {
        std::error_code ignored;
        fs::resize_file(host->directory() / name, 0, ignored);
    }
}

std::vector<fs::path> Device::logFiles() const {
    std::vector<fs::path> files;
    const std::string name = disk.logFile().filename();
    for (const auto& entry : fs::directory_iterator(disk.logFile().parent_path()))
        if (entry.path().filename().string().rfind(name, 0) == 0)
            files.push_back(entry.path());
    return files;
}

std::string Device::tailOfLog() const {
    return "-- the host's log\n" + lastLines(disk.logFile(), "") + "-- the host's error output\n" +
           lastLines(host->directory() / "err", "has a lot to say");
}

void Device::keepLog(const fs::path& folder) const {
    fs::create_directories(folder);
    for (const fs::path& file : logFiles())
        fs::copy_file(file, folder / file.filename(), fs::copy_options::overwrite_existing);
}

int Device::overflows() const {
    int count = 0;
    for (const fs::path& file : logFiles())
        count += test::countOf(test::readFile(file), "recieved service's message discard!");
    return count;
}

} // namespace ktr::soak
