#include "HostWatch.h"

#include <algorithm>
#include <cstddef>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>
#include <set>
#include <string>
#include <system_error>

namespace ktr::soak {
namespace {

namespace fs = std::filesystem;

// The services are looked after once a second.
constexpr std::chrono::seconds kMostZombieTime(4);

fs::path folderOf(pid_t pid) {
    return fs::path("/proc") / std::to_string(pid);
}

/// Without throwing where the process ends meanwhile.
std::uint64_t entriesIn(const fs::path& folder) {
    std::uint64_t count = 0;
    std::error_code error;
    for (fs::directory_iterator entry(folder, error), end; !error && entry != end;
         entry.increment(error))
        ++count;
    return count;
}

std::set<pid_t> childrenOf(pid_t pid) {
    std::set<pid_t> children;
    std::error_code error;
    for (fs::directory_iterator task(folderOf(pid) / "task", error), end; !error && task != end;
         task.increment(error)) {
        std::ifstream in(task->path() / "children");
        for (pid_t child = 0; in >> child;)
            children.insert(child);
    }
    return children;
}

bool isZombie(pid_t pid) {
    std::ifstream in(folderOf(pid) / "stat");
    std::string text;
    std::getline(in, text);
    const auto bracket = text.rfind(')');
    return bracket != std::string::npos && text.compare(bracket, 3, ") Z") == 0;
}

} // namespace

Holdings holdingsOf(pid_t pid) {
    Holdings held;
    std::ifstream in(folderOf(pid) / "status");
    for (std::string key; in >> key; in.ignore(std::numeric_limits<std::streamsize>::max(), '\n'))
        if (key == "VmHWM:")
            in >> held.peakKib;
        else if (key == "VmRSS:")
            in >> held.residentKib;
        else if (key == "RssAnon:")
            in >> held.ownKib;
        else if (key == "Threads:")
            in >> held.threads;
    held.descriptors = entriesIn(folderOf(pid) / "fd");
    return held;
}

void HostWatch::look() {
    const Holdings held = holdingsOf(pid);
    threads = std::max(threads, held.threads);
    descriptors = std::max(descriptors, held.descriptors);
    peak = std::max(peak, held.peakKib);
    lookForZombies();
}

void HostWatch::lookForZombies() {
    const auto now = Clock::now();
    const std::set<pid_t> children = childrenOf(pid);
    for (auto entry = zombies.begin(); entry != zombies.end();)
        entry = children.count(entry->first) != 0 && isZombie(entry->first) ? std::next(entry)
                                                                            : zombies.erase(entry);
    for (const pid_t child : children)
        if (isZombie(child) &&
            now - zombies.try_emplace(child, now).first->second > kMostZombieTime) {
            problems.add("process " + std::to_string(child) + " of the host is not reaped");
            zombies.at(child) = Clock::time_point::max() - kMostZombieTime; // told
        }
}

} // namespace ktr::soak
